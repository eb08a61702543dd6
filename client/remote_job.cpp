#include "client/remote_job.hpp"

#include "client/ftp_replies.hpp"
#include "client/progress.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/byte_mover.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace orv::client {
namespace {

using Clock = std::chrono::steady_clock;

// Data moves in large blocks; the hash marks and counts do not depend on the block size.

} // namespace

RemoteJob::RemoteJob(Server& s, SlotPtr sl, SessionPtr se)
    : server(s), slot(std::move(sl)), session(std::move(se)), link([this] {
          std::lock_guard lock(session->mutex);
          return session->link;
      }()) {}

int RemoteJob::user_socket() const {
    return slot->socket.load();
}

std::shared_ptr<User> RemoteJob::user() const {
    return slot->checked_user();
}

int RemoteJob::reply_timeout_ms() const {
    std::lock_guard lock(session->mutex);
    return session->reply_timeout_ms;
}

bool RemoteJob::alive() const {
    if (server.stopping.load())
        return false;
    std::lock_guard lock(session->mutex);
    return session->link == link && (!link || link->is_open());
}

void RemoteJob::set(uint8_t state) {
    {
        std::lock_guard lock(session->mutex);
        if (session->link != link || (link && !link->is_open()))
            return;
        slot->state = state;
    }
    session->state_changed.notify_all();
}

void RemoteJob::enter_transfer() {
    {
        std::lock_guard lock(session->mutex);
        if (session->link != link || (link && !link->is_open()))
            return;
        if (slot->state.load() == kTransferDone)
            return;
        if (session->early_226) {
            session->early_226 = false;
            slot->state = kTransferDone;
        } else {
            slot->state = kTransfer;
        }
    }
    session->state_changed.notify_all();
}

bool RemoteJob::command(std::string_view text, uint8_t state) {
    if (!link)
        return false;
    {
        std::lock_guard lock(session->mutex);
        if (session->link != link || !link->is_open())
            return false;
        session->early_226 = false;
        session->last_code = 0;
        slot->state = state;
    }
    return link->send_all(text);
}

uint8_t RemoteJob::wait_while(uint8_t state) {
    auto deadline = Clock::now() + std::chrono::milliseconds(reply_timeout_ms());
    std::unique_lock lock(session->mutex);
    for (;;) {
        uint8_t now = slot->state.load();
        if (now != state)
            return now;
        if (session->link != link || (link && !link->is_open()) || server.stopping.load())
            return 0;
        if (Clock::now() >= deadline) {
            lock.unlock();
            log(strf("(%i) no reply from the remote server", user_socket()));
            return 0;
        }
        session->state_changed.wait_for(lock, std::chrono::milliseconds(100));
    }
}

bool RemoteJob::refused() const {
    std::lock_guard lock(session->mutex);
    return session->last_code >= 400;
}

void RemoteJob::say(std::string_view text) const {
    if (!text.empty())
        slot->send_text(text);
}

void RemoteJob::log(std::string_view text) const {
    server.log_message(text);
}

void RemoteJob::finish(const std::string& log_line) const {
    log(log_line);
    // Under the session lock, so that a close of the connection either happens before (and
    // the user is at the shell prompt already) or after the client prompt.
    std::lock_guard lock(session->mutex);
    if (session->link == link && (!link || link->is_open()))
        send_oftp_prompt(server, slot);
}

void RemoteJob::finish(const char* name, int number) const {
    finish(strf("(%i) outgoing ftp %s thread complete", number, name));
}

int RemoteJob::open_data_port() {
    uint32_t addr = 0;
    int control_port = 0;
    if (!link || !link->local_address(addr, control_port))
        return -1;
    int fd = tcp_socket();
    if (fd < 0)
        return -1;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = addr;
    sa.sin_port = 0;
    socklen_t len = sizeof sa;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        close_fd(fd);
        return -1;
    }
    if (::listen(fd, 5) != 0) {
        log(strf("%i", errno));
        close_fd(fd);
        return -1;
    }
    const auto* b = reinterpret_cast<const unsigned char*>(&addr);
    int port = ntohs(sa.sin_port);
    std::string text =
        strf("PORT %d,%d,%d,%d,%d,%d\r\n", b[0], b[1], b[2], b[3], port >> 8, port & 0xff);
    command(text, kPortSent);
    return fd;
}

int RemoteJob::accept_data(int listen_fd) {
    uint32_t expected = 0;
    int ignored_port = 0;
    bool check_peer = link && link->peer_address(expected, ignored_port);
    auto deadline = Clock::now() + std::chrono::milliseconds(reply_timeout_ms());
    while (Clock::now() < deadline) {
        if (!alive())
            return -1;
        if (!wait_readable(listen_fd, 100))
            continue;
        sockaddr_in sa{};
        socklen_t len = sizeof sa;
        int fd = ::accept4(listen_fd, reinterpret_cast<sockaddr*>(&sa), &len, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == ECONNABORTED)
                continue;
            return -1;
        }
        // Only the server we talk to may deliver the data.
        if (check_peer && sa.sin_addr.s_addr != expected) {
            close_fd(fd);
            continue;
        }
        return fd;
    }
    log(strf("(%i) no data connection from the remote server", user_socket()));
    return -1;
}

bool RemoteJob::type_to_ascii() {
    if (slot->transfer_type.load() == 'A')
        return false;
    command("TYPE A\r\n", kCommandSent);
    wait_while(kCommandSent);
    return true;
}

void RemoteJob::type_back(bool switched) {
    if (!switched || !alive())
        return;
    command("TYPE I\r\n", kCommandSent);
    wait_while(kCommandSent);
}

MoveControl RemoteJob::move_control(HashMarks& marks, const long long& base) {
    MoveControl control;
    control.stop = [this] { return server.stopping.load(); };
    control.progress = [this, &marks, &base](long long total) {
        say(marks.add(static_cast<long>(base + total - marks.total())));
    };
    control.idle_limit_ms = reply_timeout_ms();
    return control;
}

long RemoteJob::receive_file(int data_fd, int file_fd) {
    HashMarks marks(slot->hash_on.load() != 0, slot->tick_size.load());
    long long base = 0;
    MoveControl control = move_control(marks, base);
    WallTime start = wall_now();
    MoveResult moved = receive_socket_to_file(data_fd, file_fd, control);
    if (moved.end == MoveEnd::sink_failed) {
        // Keep reading, into nothing, so that the server finishes the transfer and the session
        // stays in step; the short file is reported once.
        log(strf("(%i) local write failed", user_socket()));
        base = moved.bytes;
        say(marks.add(static_cast<long>(base - marks.total())));
        int nothing = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nothing >= 0) {
            receive_socket_to_file(data_fd, nothing, control, ReceiveMethod::recv_write);
            ::close(nothing);
        }
    }
    say(marks.finish());
    close_fd(data_fd);
    WallTime end = wall_now();
    std::string line = rate_line(user_socket(), marks.total(), elapsed_seconds(start, end), true);
    log(line);
    say(line + "\r\n");
    return marks.total();
}

long RemoteJob::send_file(int data_fd, int file_fd) {
    HashMarks marks(slot->hash_on.load() != 0, slot->tick_size.load());
    long long base = 0;
    MoveControl control = move_control(marks, base);
    struct stat st {};
    long long size = ::fstat(file_fd, &st) == 0 ? st.st_size : 0;
    WallTime start = wall_now();
    send_file_to_socket(file_fd, data_fd, size, control);
    say(marks.finish());
    ::shutdown(data_fd, SHUT_WR);
    close_fd(data_fd);
    WallTime end = wall_now();
    std::string line = rate_line(user_socket(), marks.total(), elapsed_seconds(start, end), false);
    log(line);
    say(line + "\r\n");
    return marks.total();
}

bool RemoteJob::confirm(const std::string& question) {
    if (slot->ghost.load())
        return true;
    // The state first: an answer (or the user's going away) can then never come before the
    // question is open.
    set(kQuestion);
    say(question);
    post_pending_line(server, slot);
    std::unique_lock lock(session->mutex);
    for (;;) {
        uint8_t now = slot->state.load();
        if (slot->ghost.load())
            return true; // nobody is left to say no
        if (now != kQuestion)
            return now == kAnswerYes;
        if (session->link != link || (link && !link->is_open()) || server.stopping.load())
            return false;
        session->state_changed.wait_for(lock, std::chrono::milliseconds(250));
    }
}

char RemoteJob::wait_key(bool announce) {
    if (slot->ghost.load() || !alive())
        return 'Q';
    set(kMorePage);
    if (announce)
        say("-MORE-");
    post_pending_line(server, slot);
    for (;;) {
        if (slot->ghost.load() || !alive())
            return 'Q';
        if (slot->state.load() != kMorePage) {
            const std::string& key = slot->arg_buf;
            return key.empty() ? '\0' : key[0];
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
}

bool spawn_job(Server& server, const SlotPtr& slot, const SessionPtr& session, const char* name,
               void (*body)(RemoteJob&, std::string), std::string arg) {
    auto job = std::make_shared<RemoteJob>(server, slot, session);
    bool ok = server.workers.spawn(
        [job, body, arg = std::move(arg)]() mutable { body(*job, std::move(arg)); });
    if (!ok)
        server.log.logf("**** Failed to create oftp %s Thread ****", name);
    return ok;
}

} // namespace orv::client
