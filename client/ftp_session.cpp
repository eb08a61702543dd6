// The FTP client's session: entering it from the shell, the typed lines, the command table,
// the open thread, the replies on the control connection and its close.
#include "client/ftp_session.hpp"

#include "client/control_timer.hpp"

#include "accounts/user.hpp"
#include "client/ftp_commands.hpp"
#include "client/ftp_replies.hpp"
#include "client/ftp_threads.hpp"
#include "client/host_lookup.hpp"
#include "client/local_files.hpp"
#include "client/outgoing.hpp"
#include "client/remote_job.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/name_lookup.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <cstring>
#include <shared_mutex>

namespace orv::client {
namespace {

using Clock = std::chrono::steady_clock;

// Sends from the event thread give up sooner than a command thread's would.
constexpr int kEventSendTimeoutMs = 10000;
constexpr auto kWatchdogPeriod = std::chrono::seconds(2);

std::string user_name(const ConnSlot& slot) {
    std::shared_ptr<User> user = slot.user();
    return user ? user->name : std::string();
}

void reply_and_prompt(Server& server, const SlotPtr& slot, const char* text) {
    slot->send_text(text);
    send_oftp_prompt(server, slot);
}

bool send_control(const SessionPtr& session, std::string_view text) {
    LinkPtr link;
    {
        std::lock_guard lock(session->mutex);
        link = session->link;
    }
    return link && link->send_all(text, kEventSendTimeoutMs);
}

// The control connection has ended (closed by the server, an error, or given up by us):
// back to the shell. `received_close` logs the close as seen from the server.
void end_control(Server& server, const SlotPtr& slot, const SessionPtr& session,
                 const LinkPtr& link, bool received_close) {
    std::shared_ptr<ControlTimer> timer;
    {
        std::lock_guard lock(session->mutex);
        if (session->link != link) {
            link->close(); // a connection the slot no longer has
            return;
        }
        if (received_close)
            server.log.logf("(%i) recieved close on ftp_control(%i)!", slot->socket.load(),
                            link->number());
        if (slot->state.load() != kBusy)
            slot->send_text("\r\n");
        session->link = nullptr;
        session->kind = LinkKind::None;
        session->quit_pending = false;
        timer = std::move(session->watchdog);
        link->close();
        slot->out_socket = -1;
        send_shell_prompt(server, slot);
    }
    session->state_changed.notify_all();
    if (timer)
        timer->timer.cancel();
}

void log_unhandled(Server& server, std::string_view piece, uint8_t state) {
    server.log_message("**** Start UNHANDLED STATUS ****");
    server.log_message(piece);
    server.log.logf("%i", state);
    server.log_message("**** End UNHANDLED STATUS ****");
}

void login_reply(Server& server, const SlotPtr& slot, const SessionPtr& session, uint8_t state,
                 int code, std::string_view piece) {
    LoginStep step = login_step(state, code, piece);
    if (step.cr_first)
        slot->send_text("\r");
    slot->send_text(piece);
    if (step.logged_in)
        slot->transfer_type = 'A';
    if (step.state != 0)
        set_state(*session, *slot, step.state);
    switch (step.ask) {
    case Ask::User:
        slot->send_text(strf("User (%s): ", user_name(*slot).c_str()));
        break;
    case Ask::Password:
        slot->send_text("Password: ");
        break;
    case Ask::Account:
        slot->send_text("Account: ");
        break;
    case Ask::None:
        break;
    }
    if (step.post_pending)
        post_pending_line(server, slot);
    if (step.prompt)
        send_oftp_prompt(server, slot);
    if (step.start_ascii)
        spawn_job(server, slot, session, "ASCII", remote_ascii_thread, {});
    else if (step.logged_in)
        session->ascii_after = code; // the rest of the reply starts it (state 11)
}

// A waiting thread's reply: the state it leads to. Under the session lock, so that it cannot
// cross the thread's own change of state; the state is read again there, since the thread may
// have moved on (from 19 to 23, say) since the reply handler first looked. False when the state
// it found there is not a waiting one.
bool classify(const SlotPtr& slot, const SessionPtr& session, int code, std::string_view piece) {
    {
        std::lock_guard lock(session->mutex);
        uint8_t now = slot->state.load();
        if (!is_wait_state(now)) {
            // The transfer's end overtook the thread that is about to take the data
            // connection: remember it, or that thread would wait for a "226" that has gone by.
            if (code == 226 && now == kCommandDone)
                session->early_226 = true;
            return false;
        }
        uint8_t next = classify_reply(now, code, piece);
        if (next == now)
            return true;
        slot->state = next;
        session->last_code = code;
    }
    session->state_changed.notify_all();
    return true;
}

void handle_reply(Server& server, const SlotPtr& slot, const SessionPtr& session,
                  std::string_view piece) {
    uint8_t state = slot->state.load();
    int code = reply_code(piece);
    if (state >= kGreeting && state <= kAccountAsked) {
        login_reply(server, slot, session, state, code, piece);
        return;
    }
    if (state == kIdle || state == kBusy) {
        slot->send_text(piece);
        if (state == kBusy && session->ascii_after != 0 &&
            completes_reply(piece, session->ascii_after)) {
            session->ascii_after = 0;
            spawn_job(server, slot, session, "ASCII", remote_ascii_thread, {});
        }
        return;
    }
    if (state == kConnected) {
        slot->send_text(piece);
        if (ends_crlf(piece))
            send_oftp_prompt(server, slot);
        return;
    }
    if (is_wait_state(state)) {
        // During a transfer the thread prints its own completion line instead.
        if (state != kTransfer)
            slot->send_text(piece);
        classify(slot, session, code, piece);
        return;
    }
    if (!classify(slot, session, code, piece))
        log_unhandled(server, piece, state);
}

void arm_control(Server& server, const SlotPtr& slot, const SessionPtr& session,
                 const LinkPtr& link);

void on_control_ready(Server& server, const SlotPtr& slot, const SessionPtr& session,
                      const LinkPtr& link) {
    int error = 0;
    char* buffer = server.recv_buffer.data();
    ssize_t n = link->receive(buffer, Server::kReceiveSize, error);
    if (n > 0) {
        if (link_current(*session, link))
            handle_reply(server, slot, session, std::string_view(buffer, static_cast<size_t>(n)));
        std::memset(buffer, 0, Server::kReceiveSize);
        arm_control(server, slot, session, link);
    } else if (n < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
        arm_control(server, slot, session, link);
    } else {
        end_control(server, slot, session, link, true);
    }
}

void arm_control(Server& server, const SlotPtr& slot, const SessionPtr& session,
                 const LinkPtr& link) {
    link->arm([&server, slot, session, link] { on_control_ready(server, slot, session, link); });
}

// Every few seconds: a user who has gone while the server waits for a login answer can never
// give one, and a server that ignores QUIT must not keep the session.
void schedule_watchdog(Server& server, const SlotPtr& slot, const SessionPtr& session,
                       const LinkPtr& link, std::shared_ptr<ControlTimer> timer) {
    timer->timer.expires_after(kWatchdogPeriod);
    timer->timer.async_wait([&server, slot, session, link, timer](const asio::error_code& ec) {
        if (ec || !link_current(*session, link))
            return;
        uint8_t state = slot->state.load();
        if (slot->ghost.load() && state >= kGreeting && state <= kAccountAsked) {
            server.log_message("Outgoing FTP connection logged off");
            end_control(server, slot, session, link, false);
            return;
        }
        bool quit_expired;
        bool greeting_expired;
        {
            std::lock_guard lock(session->mutex);
            auto now = Clock::now();
            quit_expired =
                session->quit_pending &&
                now - session->quit_sent > std::chrono::milliseconds(session->quit_timeout_ms);
            greeting_expired =
                state == kGreeting &&
                now - session->connected_at > std::chrono::milliseconds(session->reply_timeout_ms);
        }
        if (greeting_expired)
            server.log.logf("(%i) no reply from the remote server", slot->socket.load());
        if (quit_expired || greeting_expired) {
            end_control(server, slot, session, link, false);
            return;
        }
        schedule_watchdog(server, slot, session, link, timer);
    });
}

// Event thread: the new control connection starts delivering its replies.
void register_control(Server& server, const SlotPtr& slot, const SessionPtr& session,
                      const LinkPtr& link) {
    if (!link_current(*session, link))
        return;
    if (!link->watch(server.io())) {
        server.log_message("could not set up ftp_control message handler");
        end_control(server, slot, session, link, false);
        return;
    }
    arm_control(server, slot, session, link);
    auto timer = std::make_shared<ControlTimer>(server.io());
    {
        std::lock_guard lock(session->mutex);
        session->watchdog = timer;
    }
    schedule_watchdog(server, slot, session, link, timer);
}

void open_thread(Server& server, const SlotPtr& slot, const SessionPtr& session, std::string arg) {
    std::string host = next_word(arg);
    int port = port_number(next_word(arg), 21);
    uint32_t addr = 0;
    bool known = dotted_address(host, addr);
    if (!known) {
        slot->send_text(strf("Looking up (%s)...\r\n", host.c_str()));
        known = resolve_ipv4(host, addr, kLookupTimeoutMs, &slot->stop);
        if (known) {
            host = ipv4_text(addr);
            slot->send_text(strf("Connecting to %s ...\r\n", host.c_str()));
        } else {
            // Carries on with the name: the connect below fails as a refused one.
            server.log_message("*** DNS Failed! ***");
            slot->send_text("DNS failed!\r\n");
        }
    } else {
        slot->send_text(strf("Connecting to %s ...\r\n", host.c_str()));
    }
    auto give_up = [&](const std::string& text) {
        slot->out_socket = -1;
        set_state(*session, *slot, kIdle);
        server.log_message(text);
    };
    int fd = tcp_socket();
    if (fd < 0) {
        give_up(strf("(%s) Could not get a socket to use!", host.c_str()));
    } else if (bind_any(fd, 0) != 0) {
        close_fd(fd);
        give_up("(-1) Bind failed");
    } else if (!set_keepalive(fd)) {
        close_fd(fd);
        give_up("(-1) set socket opt failed");
    } else {
        set_state(*session, *slot, kGreeting);
        int error = known && port > 0 ? connect_ipv4(fd, addr, port, kConnectTimeoutMs, &slot->stop)
                                      : ECONNREFUSED;
        if (error != 0) {
            close_fd(fd);
            slot->out_socket = -1;
            set_state(*session, *slot, kIdle);
            slot->send_text("Connection refused\r\n");
            send_oftp_prompt(server, slot);
        } else {
            set_nodelay(fd);
            auto link = std::make_shared<OutLink>(fd);
            bool installed = false;
            {
                std::lock_guard lock(session->mutex);
                if (!session->ended && !server.stopping.load()) {
                    session->link = link;
                    session->kind = LinkKind::Ftp;
                    session->early_226 = false;
                    session->quit_pending = false;
                    session->last_code = 0;
                    session->ascii_after = 0;
                    session->connected_at = Clock::now();
                    slot->out_socket = link->number();
                    installed = true;
                }
            }
            if (installed)
                server.post([&server, slot, session, link] {
                    register_control(server, slot, session, link);
                });
            else
                link->close(); // the user's session went away meanwhile
        }
    }
    server.log.logf("(%i) outgoing ftp open thread complete", slot->socket.load());
}

void start_open(Server& server, const SlotPtr& slot, const SessionPtr& session, std::string arg) {
    bool ok = server.workers.spawn([&server, slot, session, arg = std::move(arg)]() mutable {
        open_thread(server, slot, session, std::move(arg));
    });
    if (!ok)
        server.log_message("**** Failed to create oftp open Thread ****");
}

void user_operation(Server& server, const SlotPtr& slot, const SessionPtr& session,
                    const std::string& arg) {
    (void)server;
    std::string name = arg.empty() ? user_name(*slot) : arg;
    set_state(*session, *slot, kUserAsked);
    send_control(session, "USER " + name + "\r\n");
}

void hash_command(Server& server, const SlotPtr& slot, const std::string& arg) {
    HashSetting setting = hash_setting(arg, slot->tick_size.load());
    slot->hash_on = setting.hash_on;
    slot->tick_size = setting.tick_size;
    slot->send_text(setting.text);
    send_oftp_prompt(server, slot);
}

void prompt_toggle(Server& server, const SlotPtr& slot) {
    bool was_on = slot->prompting.load() != 0;
    slot->prompting = was_on ? 0 : 1;
    reply_and_prompt(server, slot, was_on ? "Prompting OFF\r\n" : "Prompting ON\r\n");
}

void local_pwd(Server& server, const SlotPtr& slot) {
    if (server.shell.local_pwd) {
        server.shell.local_pwd(slot);
        return;
    }
    std::string path = "\\";
    if (NodePtr cwd = slot->cwd()) {
        std::shared_lock lock(server.tree_mutex);
        path = node_virtual_path(*cwd, '\\');
    }
    slot->send_text(path + "\r\n");
    send_oftp_prompt(server, slot);
}

void dispatch(Server& server, const SlotPtr& slot, const SessionPtr& session,
              const std::string& line) {
    bool connected = slot->state.load() == kConnected;
    std::string arg;
    std::optional<Cmd> cmd = find_command(line, arg);
    set_state(*session, *slot, kBusy);
    if (!cmd) {
        reply_and_prompt(server, slot, "?Invalid command\r\n");
        return;
    }
    auto job = [&](const char* name, void (*body)(RemoteJob&, std::string)) {
        if (connected)
            spawn_job(server, slot, session, name, body, arg);
        else
            reply_and_prompt(server, slot, "Not connected.\r\n");
    };
    // The local and multiple-file commands answer differently when not connected.
    auto connected_only = [&](auto&& action) {
        if (connected)
            action();
        else
            reply_and_prompt(server, slot, "?Invalid command\r\n");
    };
    switch (*cmd) {
    case Cmd::Open:
        if (connected)
            reply_and_prompt(server, slot, "Already connected close first\r\n");
        else
            start_open(server, slot, session, open_argument(arg));
        break;
    case Cmd::Close:
        if (connected)
            ftp_quit(server, slot, session);
        else
            reply_and_prompt(server, slot, "Not connected.\r\n");
        break;
    case Cmd::Bye:
    case Cmd::Quit:
    case Cmd::Exit:
        ftp_quit(server, slot, session);
        break;
    case Cmd::Dir:
        job("DIR", remote_dir_thread);
        break;
    case Cmd::Cd:
        job("CD", remote_cd_thread);
        break;
    case Cmd::Lcd:
        slot->send_text(change_local_dir(server, *slot, arg));
        send_oftp_prompt(server, slot);
        break;
    case Cmd::Pwd:
        job("PWD", remote_pwd_thread);
        break;
    case Cmd::Mkdir:
        job("MKD", remote_mkd_thread);
        break;
    case Cmd::Rmdir:
        job("RMD", remote_rmd_thread);
        break;
    case Cmd::Delete:
        job("DELE", remote_dele_thread);
        break;
    case Cmd::Get:
        job("GET", remote_get_thread);
        break;
    case Cmd::Put:
        job("PUT", remote_put_thread);
        break;
    case Cmd::Ascii:
        job("ASCII", remote_ascii_thread);
        break;
    case Cmd::Bin:
        job("BIN", remote_bin_thread);
        break;
    case Cmd::Quote:
        reply_and_prompt(server, slot,
                         connected ? "Not Programmed Yet!\r\n" : "Not connected.\r\n");
        break;
    case Cmd::Tick:
    case Cmd::Hash:
        hash_command(server, slot, arg);
        break;
    case Cmd::Ls:
        job("LS", remote_ls_thread);
        break;
    case Cmd::User:
        if (connected)
            user_operation(server, slot, session, arg);
        else
            reply_and_prompt(server, slot, "Not connected.\r\n");
        break;
    case Cmd::Help:
    case Cmd::Question:
        spawn_job(server, slot, session, "HELP", remote_help_thread, {});
        break;
    case Cmd::Ldir:
        connected_only([&] {
            if (server.shell.local_dir)
                server.shell.local_dir(slot, arg);
            else
                send_oftp_prompt(server, slot);
        });
        break;
    case Cmd::Lpwd:
        connected_only([&] { local_pwd(server, slot); });
        break;
    case Cmd::Prompt:
        connected_only([&] { prompt_toggle(server, slot); });
        break;
    case Cmd::Mget:
        connected_only([&] { spawn_job(server, slot, session, "MGET", remote_mget_thread, arg); });
        break;
    case Cmd::Mput:
        connected_only([&] { spawn_job(server, slot, session, "MPUT", remote_mput_thread, arg); });
        break;
    case Cmd::Ftp:
        connected_only(
            [&] { reply_and_prompt(server, slot, "Already connected close first\r\n"); });
        break;
    case Cmd::More:
        connected_only([&] { spawn_job(server, slot, session, "MORE", remote_more_thread, arg); });
        break;
    }
}

} // namespace

void ftp_quit(Server& server, const SlotPtr& slot, const SessionPtr& session) {
    LinkPtr link;
    {
        std::lock_guard lock(session->mutex);
        link = session->link;
        if (link && slot->out_socket.load() != -1) {
            session->quit_pending = true;
            session->quit_sent = Clock::now();
            slot->state = kBusy;
        } else {
            link = nullptr;
        }
    }
    if (!link) {
        send_shell_prompt(server, slot);
        return;
    }
    session->state_changed.notify_all();
    // The server's reply is echoed and its close takes the user back to the shell.
    link->send_all("QUIT\r\n", kEventSendTimeoutMs);
}

void start_ftp(Server& server, const SlotPtr& slot, std::string arg) {
    SessionPtr session = session_of(slot);
    std::string open_arg = open_argument(arg);
    if (open_arg.empty()) {
        send_oftp_prompt(server, slot);
        return;
    }
    set_state(*session, *slot, kBusy);
    start_open(server, slot, session, std::move(open_arg));
}

void ftp_line(Server& server, const SlotPtr& slot, std::string line) {
    SessionPtr session = session_of(slot);
    switch (slot->state.load()) {
    case kUserAsked:
        send_control(session, "USER " + (line.empty() ? user_name(*slot) : line) + "\r\n");
        break;
    case kPasswordAsked:
        send_control(session, "PASS " + line + "\r\n");
        break;
    case kAccountAsked:
        send_control(session, "ACCT " + line + "\r\n");
        break;
    case kIdle:
    case kConnected:
        dispatch(server, slot, session, line);
        break;
    default:
        break;
    }
}

} // namespace orv::client
