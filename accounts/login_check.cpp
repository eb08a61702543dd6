#include "accounts/login_check.hpp"

#include "accounts/password.hpp"
#include "accounts/user.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"

#include <mutex>
#include <shared_mutex>

namespace orv {
namespace {

using Clock = LoginGuard::Clock;

struct Attempt {
    SlotPtr slot;
    std::shared_ptr<User> user;
    std::string typed;
    std::string stored; // the stored form as it was when the check began
    Clock::time_point started;
    std::function<void(bool)> decided;
};

// A classic stored form that checked out is replaced by a hash when hashing is on: the next
// login then finds the hash. The record keeps a form that changed meanwhile (an admin's edit).
void store_hash_later(Server& server, const Attempt& a) {
    server.guard.run_slow([&server, user = a.user, typed = a.typed, stored = a.stored] {
        std::optional<std::string> hash = hash_password(typed);
        if (!hash)
            return;
        std::string name;
        {
            std::unique_lock lock(server.tree_mutex);
            if (user->password != stored)
                return;
            user->password = *hash;
            name = user->name;
        }
        server.log.logf("Password of user (%s) is now stored as a hash", log_safe(name).c_str());
    });
}

void conclude(Server& server, Attempt a, bool accepted) {
    if (!accepted) {
        std::string account = a.slot->login_name;
        server.guard.login_failed(
            a.slot, account, a.started, [decided = std::move(a.decided)] { decided(false); },
            [&server, slot = a.slot] { log_login_failure(server, *slot); });
        return;
    }
    server.guard.login_succeeded(*a.slot);
    if (server.guard.settings().password_hash && !is_hashed_password(a.stored))
        store_hash_later(server, a);
    a.decided(true);
}

} // namespace

void log_login_failure(Server& server, const ConnSlot& slot) {
    int socket = slot.socket;
    std::shared_ptr<User> user = slot.user();
    if (!user) {
        server.log.logf("(%i) Login failure for unknown user", socket);
        return;
    }
    std::string name;
    {
        std::shared_lock lock(server.tree_mutex);
        name = user->name;
    }
    server.log.logf("(%i) Login failure for user (%s)", socket, log_safe(name).c_str());
}

int count_login(ConnSlot& slot, User& user) {
    int count = ++user.active_logins;
    slot.login_counted = true;
    return count;
}

void give_back_login(ConnSlot& slot) {
    if (slot.login_counted.exchange(false)) {
        if (std::shared_ptr<User> counted = slot.user())
            --counted->active_logins;
    }
}

void check_login(Server& server, const SlotPtr& slot, uint16_t right, std::string typed,
                 std::function<void(bool accepted)> decided) {
    Attempt a{slot, slot->user(), std::move(typed), {}, Clock::now(), std::move(decided)};
    bool may = false;
    std::string name;
    if (a.user) {
        std::shared_lock lock(server.tree_mutex);
        may = a.user->has_right(right);
        a.stored = a.user->password;
        name = a.user->name;
    }
    // A banned address learns nothing from its guesses: they fail unchecked.
    if (!may || server.guard.banned(*slot)) {
        conclude(server, std::move(a), false);
        return;
    }
    if (!is_hashed_password(a.stored)) {
        std::optional<std::string> encoded = encode_password(name, a.typed);
        bool accepted = encoded && *encoded == a.stored;
        conclude(server, std::move(a), accepted);
        return;
    }
    slot->state = 10;
    auto shared = std::make_shared<Attempt>(std::move(a));
    server.guard.run_slow([&server, shared] {
        bool accepted = verify_hashed_password(shared->stored, shared->typed);
        server.post([&server, shared, accepted] {
            const ConnSlot& s = *shared->slot;
            if ((!s.control_open() || s.ghost != 0) && accepted) {
                // Gone while its password was checked: no login to count.
                settle_gone_session(*shared->slot);
                return;
            }
            conclude(server, std::move(*shared), accepted);
        });
    });
}

} // namespace orv
