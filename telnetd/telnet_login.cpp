#include "telnetd/telnet_login.hpp"

#include "accounts/accounts.hpp"
#include "accounts/login_check.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "telnetd/ghost.hpp"
#include "telnetd/telnet_input.hpp"
#include "vfs/tree.hpp"

#include <mutex>
#include <shared_mutex>

namespace orv::telnet {

void login_name(Server& server, const SlotPtr& slot, const std::string& name) {
    std::shared_ptr<User> user;
    {
        std::shared_lock lock(server.tree_mutex);
        if (server.accounts)
            user = server.accounts->find_user(name);
    }
    slot->set_user(std::move(user));
    slot->login_name = name;
    slot->state = kStatePassword;
    slot->send_text("Password: ");
}

namespace {

void password_decided(Server& server, const SlotPtr& slot, bool accepted) {
    std::shared_ptr<User> user = slot->user();
    std::string name;
    int max_logins = 0;
    std::string home;
    if (accepted) {
        std::shared_lock lock(server.tree_mutex);
        name = user->name;
        max_logins = user->max_logins;
        home = user->home_dir;
    }
    if (!accepted) {
        login_failure(server, slot);
        return;
    }
    int in_use = count_login(*slot, *user);
    if (in_use > max_logins) {
        slot->send_text(strf("%s - max (%i) connections in use.\r\n", name.c_str(), max_logins));
        slot->fail_count = 3;
        login_failure(server, slot);
        return;
    }
    NodePtr start;
    {
        std::shared_lock lock(server.tree_mutex);
        if (server.vfs) {
            // A home that no longer resolves starts the session at the root.
            start = find_node(*server.vfs, home, server.vfs->root);
            if (!start || !start->is_dir())
                start = server.vfs->root;
        }
    }
    slot->set_cwd(std::move(start));
    slot->logged_in = true;
    slot->state = kStateShell;
    slot->send_text(strf("%s - %i out of %i allowed connections in use.\r\n", name.c_str(), in_use,
                         max_logins));
    send_shell_prompt(server, slot);
}

} // namespace

void login_password(Server& server, const SlotPtr& slot, const std::string& typed) {
    check_login(server, slot, kRightTelnetIn, typed,
                [&server, slot](bool accepted) { password_decided(server, slot, accepted); });
}

void login_failure(Server& server, const SlotPtr& slot) {
    int tries = ++slot->fail_count;
    int socket = slot->socket;
    log_login_failure(server, *slot);
    if (tries >= 3) {
        server.log.logf("Telnet Close port %i", socket);
        slot->close_control();
        close_telnet_conn(server, slot);
        return;
    }
    slot->state = kStateLoginName;
    slot->send_text("Login incorrect\r\nlogin: ");
}

} // namespace orv::telnet
