#include "ftpd/login.hpp"

#include "accounts/accounts.hpp"
#include "accounts/login_check.hpp"
#include "core/server.hpp"
#include "ftpd/control_connection.hpp"
#include "ftpd/replies.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <shared_mutex>

namespace orv {

void ftp_user(FtpContext& ctx, const SlotPtr& slot, const std::string& name) {
    std::shared_ptr<User> user;
    {
        std::shared_lock lock(ctx.server.tree_mutex);
        if (ctx.server.accounts)
            user = ctx.server.accounts->find_user(name);
    }
    // Naming an account starts a new login: nothing of an earlier one carries over. The login
    // an earlier PASS counted is given back before another is counted, so that a repeated USER
    // or PASS can neither leak a count nor push somebody else's down.
    slot->logged_in = false;
    give_back_login(*slot);
    slot->set_user(std::move(user));
    slot->login_name = name;
    slot->state = 2;
    slot->send_text(ftp_text::kUserOk);
}

namespace {

void ftp_pass_decided(const FtpContextPtr& ctx, const SlotPtr& slot, bool accepted) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->user();
    std::string name;
    std::string home;
    int16_t max_logins = 0;
    if (accepted) {
        std::shared_lock lock(server.tree_mutex);
        name = user->name;
        home = user->home_dir;
        max_logins = user->max_logins;
    }
    slot->logged_in = false;
    give_back_login(*slot);
    if (!accepted) {
        ftp_login_failed(*ctx, slot);
        return;
    }

    int16_t active = static_cast<int16_t>(count_login(*slot, *user));
    if (server.conns.user_count() > server.settings.maxusers) {
        int socket = slot->socket;
        slot->send_text(ftp_text::kServerFull);
        close_session(*ctx, slot);
        server.log.logf("FTP Close port %i", socket);
        slot->close_control();
        return;
    }
    if (active > max_logins) {
        slot->send_text(strf(ftp_text::kUserLimitFmt, name.c_str(), max_logins));
        slot->fail_count = 3;
        ftp_login_failed(*ctx, slot);
        return;
    }

    NodePtr cwd;
    {
        std::shared_lock lock(server.tree_mutex);
        if (server.vfs && server.vfs->root)
            cwd = find_node(*server.vfs, home, server.vfs->root);
    }
    slot->set_cwd(std::move(cwd));
    slot->logged_in = true;
    if (!server.workers.spawn([ctx, slot] { login_message_thread(ctx, slot); }))
        server.log_message("**** Failed to create ftp in CWD Thread ****");
}

} // namespace

void ftp_pass(const FtpContextPtr& ctx, const SlotPtr& slot, const std::string& password) {
    check_login(ctx->server, slot, kRightFtpIn, password,
                [ctx, slot](bool accepted) { ftp_pass_decided(ctx, slot, accepted); });
}

void ftp_login_failed(FtpContext& ctx, const SlotPtr& slot) {
    Server& server = ctx.server;
    int socket = slot->socket;
    log_login_failure(server, *slot);
    slot->state = 1;
    slot->send_text(ftp_text::kLoginIncorrect);
    server.log.logf("Ftp Close port %i", socket);
    // The socket goes first, so the session's goodbye lines never reach this client.
    slot->close_control();
    close_session(ctx, slot);
}

void login_message_thread(const FtpContextPtr& ctx, const SlotPtr& slot) {
    Server& server = ctx->server;
    int socket = slot->socket;
    std::shared_ptr<User> user = slot->user();
    std::string name;
    int max_logins = 0;
    if (user) {
        std::shared_lock lock(server.tree_mutex);
        name = user->name;
        max_logins = user->max_logins;
    }
    // Read as a text file: a line ending of either kind becomes "\r\n"; longer lines than the
    // reader takes at once go out as several lines.
    for_each_fgets_line(server.table_path("motd.txt"), 256, [&](std::string_view piece) {
        if (slot->stop == 0)
            slot->send_text("230-" + std::string(cut_line_end(piece)) + "\r\n");
    });
    if (slot->stop == 0) {
        int active = user ? user->active_logins.load() : 0;
        slot->send_text(strf(ftp_text::kLoginCountFmt, active, max_logins));
    }
    std::string last = strf(ftp_text::kLoggedInFmt, name.c_str());
    if (slot->stop == 0)
        finish_command(*slot, last);
    else
        slot->state = 3;
    server.log.logf("(%i) Login Message thread complete", socket);
}

} // namespace orv
