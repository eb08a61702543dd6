// The users file: read, written and read again. Fields are cut to their limits, the stored
// form keeps its fields apart, and once a file has been written by us it reads back to the
// same records (the order reverses at every cycle, as it always has). The password coding must
// take any stored text, and encode and decode must agree on every password the rule accepts.
#include "accounts/accounts.hpp"
#include "accounts/password.hpp"
#include "core/log.hpp"
#include "fuzz/fuzz_world.hpp"

#include <algorithm>
#include <vector>

using namespace orv;

namespace {

std::string read_and_write(const std::string& text) {
    Log log;
    Accounts accounts;
    accounts.read_users(fuzz::write_scratch("users", text), log);
    return accounts.users_text();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    Log log;
    Accounts accounts;
    accounts.read_users(fuzz::write_scratch("users", text), log);
    for (const auto& user : accounts.users()) {
        fuzz::check(user->name.size() <= kMaxUserName, "name over its limit");
        bool hashed = is_hashed_password(user->password);
        fuzz::check(user->password.size() <= (hashed ? kMaxHashedPassword : kMaxPassword),
                    "password over its limit");
        fuzz::check(user->home_dir.size() <= kMaxHomeDir, "home over its limit");
        fuzz::check(user->name.find(':') == std::string::npos, "name holds the separator");
        // The dialog shows the clear text of whatever is stored; a check must not trip on it.
        std::string clear = decode_password(user->name, user->password);
        if (hashed) // a hash check costs tens of milliseconds; the unit tests cover it
            continue;
        check_password(*user, clear);
        check_password(*user, user->home_dir);
    }

    std::string written = accounts.users_text();
    if (fuzz::plain_file(text)) {
        std::string again = read_and_write(written);
        std::vector<std::string> a = fuzz::lines_of(written), b = fuzz::lines_of(again);
        std::reverse(b.begin(), b.end());
        fuzz::check(a == b, "the users file does not read back to what was written");
    }

    // Passwords: any name and password the rule takes survive encoding, and the stored form
    // fits the file.
    size_t cut = std::min<size_t>(text.size(), text.size() / 2);
    std::string name = text.substr(0, std::min<size_t>(cut, 31));
    std::string password = text.substr(cut, 40);
    if (std::optional<std::string> stored = encode_password(name, password)) {
        fuzz::check(password_rule(name, password) > 0, "encoded a password the rule refuses");
        fuzz::check(stored->size() <= kMaxPassword, "stored password too long");
        fuzz::check(stored->find_first_of(":\r\n") == std::string::npos,
                    "stored password holds a separator or line end");
        for (char c : *stored)
            fuzz::check(c >= 0x20 && c < 0x7f, "stored password not printable");
        fuzz::check(decode_password(name, *stored) == password, "password does not decode back");
        User user;
        user.name = name;
        user.password = *stored;
        fuzz::check(check_password(user, password), "the password does not check");
    } else {
        fuzz::check(password_rule(name, password) <= 0, "refused a password the rule takes");
    }
    return 0;
}
