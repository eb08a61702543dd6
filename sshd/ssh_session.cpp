#include "sshd/ssh_session.hpp"

#include "accounts/accounts.hpp"
#include "accounts/login_check.hpp"
#include "accounts/user.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "sshd/authorized_keys.hpp"
#include "sshd/sftp_subsystem.hpp"
#include "sshd/ssh_bridge.hpp"
#include "telnetd/ghost.hpp"
#include "telnetd/shell_adopt.hpp"
#include "telnetd/telnet_input.hpp"
#include "vfs/tree.hpp"

#include <libssh/callbacks.h>
#include <libssh/server.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <optional>
#include <poll.h>
#include <shared_mutex>
#include <sys/socket.h>
#include <unistd.h>

namespace orv::ssh {

void LiveConnections::add(int fd) {
    std::lock_guard lock(mutex_);
    fds_.insert(fd);
}

void LiveConnections::remove(int fd) {
    std::lock_guard lock(mutex_);
    fds_.erase(fd);
}

void LiveConnections::shut_all() {
    std::lock_guard lock(mutex_);
    for (int fd : fds_)
        ::shutdown(fd, SHUT_RDWR);
}

namespace {

using Clock = std::chrono::steady_clock;

// The whole login (key exchange included) must be over this long after the connection came.
constexpr auto kLoginLimit = std::chrono::seconds(30);
constexpr int kMaxTries = 3;
// Clients offer their keys one after the other; more offers than this end the connection.
constexpr int kMaxKeyOffers = 10;
// How often the loop looks at the stop flags and the deadline.
constexpr int kPollMs = 100;
// Bytes the shell has not taken yet beyond which the channel's data waits in the channel
// (its window closes, so the client slows down).
constexpr size_t kShellBacklog = 64 * 1024;
// How long a finished channel waits for the client to close it and hang up.
constexpr auto kLingerLimit = std::chrono::seconds(2);

enum class Verdict { Accepted, Denied, Refused };
enum class Mode { None, Shell, Exec, Sftp };

// A result handed from the event thread to the session thread.
template <typename T> struct Handover {
    std::mutex mutex;
    std::condition_variable ready;
    std::optional<T> value;
    void set(T v) {
        std::lock_guard lock(mutex);
        value = v;
        ready.notify_all();
    }
};

// The accounting of a successful password (event thread), as a Telnet login does it: the
// account's login count and limit, the home directory as the current one.
Verdict settle_login(Server& server, const SlotPtr& slot, bool accepted, int& in_use) {
    if (!accepted) {
        log_login_failure(server, *slot);
        slot->state = telnet::kStateLoginName;
        return Verdict::Denied;
    }
    std::shared_ptr<User> user = slot->user();
    std::string name, home;
    int max_logins = 0;
    {
        std::shared_lock lock(server.tree_mutex);
        name = user->name;
        max_logins = user->max_logins;
        home = user->home_dir;
    }
    in_use = ++user->active_logins;
    slot->login_counted = true;
    if (in_use > max_logins) {
        give_back_login(*slot);
        server.log.logf("(%i) %s - max (%i) connections in use.", slot->socket.load(),
                        log_safe(name).c_str(), max_logins);
        log_login_failure(server, *slot);
        slot->state = telnet::kStateLoginName;
        return Verdict::Refused;
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
    slot->state = telnet::kStateShell;
    return Verdict::Accepted;
}

bool in_table(const Server& server, const SlotPtr& slot) {
    return server.conns.find_if([&](const ConnSlot& s) { return &s == slot.get(); }) != nullptr;
}

class Session {
  public:
    explicit Session(SessionStart start)
        : server_(*start.server), slot_(std::move(start.slot)), session_(start.session),
          tcp_fd_(start.tcp_fd), bridge_fd_(start.bridge_fd), live_(std::move(start.live)),
          deadline_(Clock::now() + kLoginLimit) {}

    void run();

  private:
    // libssh callbacks (this thread, inside the library's polling).
    static int on_password(ssh_session, const char* user, const char* password, void* self);
    static int on_pubkey(ssh_session, const char* user, ssh_key key, char state, void* self);
    static ssh_channel on_channel_open(ssh_session session, void* self);
    static int on_pty(ssh_session, ssh_channel, const char*, int, int, int, int, void* self);
    static int on_window_change(ssh_session, ssh_channel, int, int, int, int, void*) { return 0; }
    static int on_shell(ssh_session, ssh_channel, void* self);
    static int on_exec(ssh_session, ssh_channel, const char* command, void* self);
    static int on_subsystem(ssh_session, ssh_channel, const char* name, void* self);
    static int on_data(ssh_session, ssh_channel, void* data, uint32_t len, int is_stderr,
                       void* self);
    static void on_channel_close(ssh_session, ssh_channel, void* self);
    static void on_channel_eof(ssh_session, ssh_channel, void* self);
    static int on_shell_output(socket_t fd, int revents, void* self);

    // `typed` is the password, or none for a key that was already proved to be the client's.
    Verdict check_login_of(const std::string& name, std::optional<std::string> typed);
    bool has_right(uint16_t right) const;
    bool request(Mode mode);
    void start_shell();
    void read_shell_output();
    void flush_to_shell();
    void take_channel_backlog();
    void write_channel(std::string_view bytes);
    void finish_channel(int status);
    void answer_for_absent_client();
    bool should_stop() const;
    void end();

    Server& server_;
    SlotPtr slot_;
    ssh_session session_;
    int tcp_fd_;
    int bridge_fd_;
    std::shared_ptr<LiveConnections> live_;
    Clock::time_point deadline_;

    ssh_server_callbacks_struct server_cb_{};
    ssh_channel_callbacks_struct channel_cb_{};
    ssh_event event_ = nullptr;
    bool fd_watched_ = false;

    int tries_ = 0;
    int key_offers_ = 0;
    bool authed_ = false;
    bool give_up_ = false;
    int in_use_ = 0;

    ssh_channel channel_ = nullptr;
    bool channel_closed_ = false;
    bool client_eof_ = false;
    Clock::time_point last_answer_{};
    bool pty_ = false;
    Mode requested_ = Mode::None;
    Mode mode_ = Mode::None;
    std::string command_;
    bool shell_gone_ = false;
    bool adopted_ = false;

    ShellInput input_;
    ShellOutput output_;
    ExecOutput exec_;
    std::string to_shell_;
};

int Session::on_password(ssh_session, const char* user, const char* password, void* self) {
    auto& s = *static_cast<Session*>(self);
    if (s.authed_ || s.give_up_)
        return SSH_AUTH_DENIED;
    ++s.tries_;
    Verdict v = s.check_login_of(user ? user : "", std::string(password ? password : ""));
    if (v == Verdict::Accepted) {
        s.authed_ = true;
        return SSH_AUTH_SUCCESS;
    }
    if (v == Verdict::Refused || s.tries_ >= kMaxTries)
        s.give_up_ = true;
    return SSH_AUTH_DENIED;
}

int Session::on_pubkey(ssh_session, const char* user, ssh_key key, char state, void* self) {
    auto& s = *static_cast<Session*>(self);
    if (s.authed_ || s.give_up_ || !user)
        return SSH_AUTH_DENIED;
    if (++s.key_offers_ > kMaxKeyOffers) {
        s.give_up_ = true;
        return SSH_AUTH_DENIED;
    }
    if (!key_is_authorized(s.server_.start_dir, user, key))
        return SSH_AUTH_DENIED;
    // An offer of a listed key is answered yes; the login happens once the client has
    // proved with its signature that it holds the private key.
    if (state == SSH_PUBLICKEY_STATE_NONE)
        return SSH_AUTH_SUCCESS;
    if (state != SSH_PUBLICKEY_STATE_VALID)
        return SSH_AUTH_DENIED;
    Verdict v = s.check_login_of(user, std::nullopt);
    if (v == Verdict::Accepted) {
        s.authed_ = true;
        return SSH_AUTH_SUCCESS;
    }
    s.give_up_ = true;
    return SSH_AUTH_DENIED;
}

// A key login: the account's right and the address's ban decide, as they would for a password.
void key_login(Server& server, const SlotPtr& slot, std::function<void(bool)> decided) {
    std::shared_ptr<User> user = slot->user();
    bool may = false;
    if (user) {
        std::shared_lock lock(server.tree_mutex);
        may = user->has_right(kRightTelnetIn | kRightFtpIn);
    }
    if (!may || server.guard.banned(*slot)) {
        server.guard.login_failed(
            slot, slot->login_name, LoginGuard::Clock::now(), [decided] { decided(false); },
            [&server, slot] { log_login_failure(server, *slot); });
        return;
    }
    server.guard.login_succeeded(*slot);
    decided(true);
}

// The decision is made on the event thread, which owns the slot's login fields; this thread
// waits for it (the defence's pause included), or gives up when the server stops.
Verdict Session::check_login_of(const std::string& name, std::optional<std::string> typed) {
    auto answer = std::make_shared<Handover<std::pair<Verdict, int>>>();
    Server& server = server_;
    SlotPtr slot = slot_;
    server.post([&server, slot, name, typed = std::move(typed), answer] {
        if (!slot->control_open() || server.stopping) {
            answer->set({Verdict::Denied, 0});
            return;
        }
        std::shared_ptr<User> user;
        {
            std::shared_lock lock(server.tree_mutex);
            if (server.accounts)
                user = server.accounts->find_user(name);
        }
        slot->set_user(std::move(user));
        slot->login_name = name;
        auto decided = [&server, slot, answer](bool accepted) {
            int in_use = 0;
            Verdict v = settle_login(server, slot, accepted, in_use);
            answer->set({v, in_use});
        };
        if (typed)
            check_login(server, slot, kRightTelnetIn | kRightFtpIn, *typed, decided);
        else
            key_login(server, slot, decided);
    });
    std::unique_lock lock(answer->mutex);
    while (!answer->value) {
        if (server_.stopping || Clock::now() > deadline_ + kLoginLimit)
            return Verdict::Denied;
        answer->ready.wait_for(lock, std::chrono::milliseconds(kPollMs));
    }
    in_use_ = answer->value->second;
    return answer->value->first;
}

bool Session::has_right(uint16_t right) const {
    std::shared_ptr<User> user = slot_->checked_user();
    if (!user)
        return false;
    std::shared_lock lock(server_.tree_mutex);
    return user->has_right(right);
}

ssh_channel Session::on_channel_open(ssh_session session, void* self) {
    auto& s = *static_cast<Session*>(self);
    // One session channel per connection: it is the connection's one slot.
    if (!s.authed_ || s.channel_)
        return nullptr;
    s.channel_ = ssh_channel_new(session);
    if (!s.channel_)
        return nullptr;
    s.channel_cb_ = {};
    s.channel_cb_.userdata = &s;
    s.channel_cb_.channel_data_function = on_data;
    s.channel_cb_.channel_close_function = on_channel_close;
    s.channel_cb_.channel_eof_function = on_channel_eof;
    s.channel_cb_.channel_pty_request_function = on_pty;
    s.channel_cb_.channel_pty_window_change_function = on_window_change;
    s.channel_cb_.channel_shell_request_function = on_shell;
    s.channel_cb_.channel_exec_request_function = on_exec;
    s.channel_cb_.channel_subsystem_request_function = on_subsystem;
    ssh_callbacks_init(&s.channel_cb_);
    ssh_set_channel_callbacks(s.channel_, &s.channel_cb_);
    return s.channel_;
}

int Session::on_pty(ssh_session, ssh_channel, const char*, int, int, int, int, void* self) {
    auto& s = *static_cast<Session*>(self);
    if (s.requested_ != Mode::None)
        return -1;
    s.pty_ = true;
    return 0;
}

bool Session::request(Mode mode) {
    if (requested_ != Mode::None)
        return false;
    uint16_t right = mode == Mode::Sftp ? kRightFtpIn : kRightTelnetIn;
    if (!has_right(right))
        return false;
    requested_ = mode;
    return true;
}

int Session::on_shell(ssh_session, ssh_channel, void* self) {
    return static_cast<Session*>(self)->request(Mode::Shell) ? 0 : -1;
}

int Session::on_exec(ssh_session, ssh_channel, const char* command, void* self) {
    auto& s = *static_cast<Session*>(self);
    std::string line = command ? command : "";
    line = line.substr(0, line.find_first_of("\r\n"));
    if (!s.request(Mode::Exec))
        return -1;
    s.command_ = std::move(line);
    return 0;
}

int Session::on_subsystem(ssh_session, ssh_channel, const char* name, void* self) {
    auto& s = *static_cast<Session*>(self);
    if (!name || std::string_view(name) != "sftp")
        return -1;
    return s.request(Mode::Sftp) ? 0 : -1;
}

int Session::on_data(ssh_session, ssh_channel, void* data, uint32_t len, int is_stderr,
                     void* self) {
    auto& s = *static_cast<Session*>(self);
    if (is_stderr)
        return static_cast<int>(len);
    // Data stays in the channel until a shell or a command takes it (the SFTP subsystem reads
    // the channel itself), and while the shell lags behind (the channel's window closes); the
    // loop takes it from there.
    bool for_shell = s.requested_ == Mode::Shell || s.requested_ == Mode::Exec;
    if (!for_shell || s.to_shell_.size() > kShellBacklog)
        return 0;
    s.to_shell_ += s.input_.encode(std::string_view(static_cast<const char*>(data), len));
    s.flush_to_shell();
    return static_cast<int>(len);
}

void Session::on_channel_close(ssh_session, ssh_channel, void* self) {
    static_cast<Session*>(self)->channel_closed_ = true;
}

void Session::on_channel_eof(ssh_session, ssh_channel, void* self) {
    static_cast<Session*>(self)->client_eof_ = true;
}

// A command whose client has no more input to give (`ssh HOST more FILE < /dev/null`) would
// wait at the pager or a question for ever: the pager gets a space (the whole text comes),
// a question "n".
void Session::answer_for_absent_client() {
    if (mode_ != Mode::Exec || !client_eof_ || !to_shell_.empty())
        return;
    auto now = Clock::now();
    if (now - last_answer_ < std::chrono::milliseconds(200))
        return;
    uint8_t state = slot_->state;
    if (state == telnet::kStateMorePage)
        to_shell_ = " ";
    else if (state == telnet::kStateQuestion)
        to_shell_ = "n\r\n";
    else
        return;
    last_answer_ = now;
    flush_to_shell();
}

int Session::on_shell_output(socket_t, int, void* self) {
    static_cast<Session*>(self)->read_shell_output();
    return 0;
}

void Session::take_channel_backlog() {
    char buffer[16384];
    while (channel_ && !channel_closed_ && to_shell_.size() <= kShellBacklog &&
           ssh_channel_poll(channel_, 0) > 0) {
        int n = ssh_channel_read_nonblocking(channel_, buffer, sizeof buffer, 0);
        if (n <= 0)
            return;
        to_shell_ += input_.encode(std::string_view(buffer, static_cast<size_t>(n)));
    }
}

void Session::flush_to_shell() {
    // Until the shell has taken the slot over, what the client typed waits here.
    if (!adopted_)
        return;
    while (!to_shell_.empty()) {
        ssize_t n =
            ::send(bridge_fd_, to_shell_.data(), to_shell_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            to_shell_.erase(0, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        to_shell_.clear(); // the shell has gone
        shell_gone_ = true;
        return;
    }
}

void Session::read_shell_output() {
    char buffer[16384];
    ssize_t n = ::recv(bridge_fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    if (n <= 0) {
        shell_gone_ = true;
        if (fd_watched_) {
            ssh_event_remove_fd(event_, bridge_fd_);
            fd_watched_ = false;
        }
        return;
    }
    std::string text = output_.decode(std::string_view(buffer, static_cast<size_t>(n)));
    if (mode_ == Mode::Exec)
        text = exec_.feed(text, slot_->state == telnet::kStateShell);
    write_channel(text);
}

void Session::write_channel(std::string_view bytes) {
    while (!bytes.empty() && channel_ && !channel_closed_) {
        int n = ssh_channel_write(channel_, bytes.data(), static_cast<uint32_t>(bytes.size()));
        if (n == SSH_ERROR || n < 0) {
            channel_closed_ = true;
            return;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
}

// The shell takes over the slot on the event thread; this thread relays from now on.
void Session::start_shell() {
    mode_ = requested_;
    telnet::AdoptOptions options;
    options.greet = mode_ == Mode::Shell;
    options.in_use = in_use_;
    if (mode_ == Mode::Exec) {
        ShellInput fresh;
        to_shell_.insert(0, fresh.encode(command_) + "\r\n");
    }
    Server& server = server_;
    SlotPtr slot = slot_;
    server.post([&server, slot, options = std::move(options)]() mutable {
        if (slot->control_open() && !server.stopping)
            telnet::adopt_shell_session(server, slot, std::move(options));
    });
    adopted_ = true;
    flush_to_shell();
    if (ssh_event_add_fd(event_, bridge_fd_, POLLIN, on_shell_output, this) == SSH_OK)
        fd_watched_ = true;
}

void Session::finish_channel(int status) {
    if (!channel_ || channel_closed_)
        return;
    ssh_channel_request_send_exit_status(channel_, status);
    ssh_channel_send_eof(channel_);
    ssh_channel_close(channel_);
    // The client answers the close and then hangs up itself; hanging up first would make it
    // report a broken connection instead of the exit status.
    auto until = Clock::now() + kLingerLimit;
    while (!channel_closed_ && Clock::now() < until && !server_.stopping &&
           !(ssh_get_status(session_) & (SSH_CLOSED | SSH_CLOSED_ERROR))) {
        if (ssh_event_dopoll(event_, kPollMs) == SSH_ERROR)
            break;
    }
    until = Clock::now() + kLingerLimit;
    while (Clock::now() < until && !server_.stopping &&
           !(ssh_get_status(session_) & (SSH_CLOSED | SSH_CLOSED_ERROR))) {
        if (ssh_event_dopoll(event_, kPollMs) == SSH_ERROR)
            break;
    }
}

bool Session::should_stop() const {
    // A shell's end shows as the end of its socket, after its last output: that is awaited.
    if (server_.stopping || (!adopted_ && slot_->stop))
        return true;
    if (!authed_ && Clock::now() > deadline_)
        return true;
    int status = ssh_get_status(session_);
    return (status & (SSH_CLOSED | SSH_CLOSED_ERROR)) != 0;
}

void Session::run() {
    server_cb_.userdata = this;
    server_cb_.auth_password_function = on_password;
    server_cb_.auth_pubkey_function = on_pubkey;
    server_cb_.channel_open_request_session_function = on_channel_open;
    ssh_callbacks_init(&server_cb_);
    ssh_set_server_callbacks(session_, &server_cb_);
    ssh_set_auth_methods(session_, SSH_AUTH_METHOD_PASSWORD | SSH_AUTH_METHOD_PUBLICKEY);

    if (ssh_handle_key_exchange(session_) != SSH_OK) {
        end();
        return;
    }
    event_ = ssh_event_new();
    if (!event_ || ssh_event_add_session(event_, session_) != SSH_OK) {
        end();
        return;
    }
    bool session_in_event = true;
    while (!give_up_ && !channel_closed_) {
        // A shell that ended (exit, or the session was freed) gives its status first.
        if (shell_gone_) {
            finish_channel(0);
            break;
        }
        if (should_stop())
            break;
        if (ssh_event_dopoll(event_, kPollMs) == SSH_ERROR &&
            (ssh_get_status(session_) & (SSH_CLOSED | SSH_CLOSED_ERROR)))
            break;
        if (requested_ == Mode::Sftp) {
            // The subsystem reads the channel itself from here on.
            ssh_remove_channel_callbacks(channel_, &channel_cb_);
            ssh_event_remove_session(event_, session_);
            session_in_event = false;
            mode_ = Mode::Sftp;
            serve_sftp(server_, slot_, session_, channel_);
            break;
        }
        if (requested_ != Mode::None && mode_ == Mode::None)
            start_shell();
        if (adopted_) {
            take_channel_backlog();
            flush_to_shell();
            answer_for_absent_client();
        }
        if (mode_ == Mode::Exec && !exec_.done())
            write_channel(exec_.feed({}, slot_->state == telnet::kStateShell));
        if (mode_ == Mode::Exec && exec_.done()) {
            finish_channel(exec_exit_status(command_, exec_.output()));
            break;
        }
    }
    if (fd_watched_)
        ssh_event_remove_fd(event_, bridge_fd_);
    fd_watched_ = false;
    if (session_in_event)
        ssh_event_remove_session(event_, session_);
    end();
}

void Session::end() {
    if (event_)
        ssh_event_free(event_);
    event_ = nullptr;
    live_->remove(tcp_fd_);
    ssh_disconnect(session_);
    ssh_free(session_);
    session_ = nullptr;
    // The slot leaves the table on the event thread: freed now, or a ghost while a command
    // still runs (its ghost thread ends it).
    Server& server = server_;
    SlotPtr slot = slot_;
    int number = slot->socket;
    server.post([&server, slot, number] {
        if (!slot->ghost && in_table(server, slot))
            telnet::close_telnet_conn(server, slot);
        slot->close_control();
        server.log.logf("SSH Close port %i", number);
    });
    ::close(bridge_fd_);
}

} // namespace

void run_ssh_session(SessionStart start) {
    Session session(std::move(start));
    session.run();
}

} // namespace orv::ssh
