#include "app/admin_socket.hpp"

#include "app/admin_call.hpp"
#include "app/server_app.hpp"
#include "platform/text.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace orv {
namespace {

constexpr std::string_view kMagic = "orvane-admin 1";
constexpr size_t kMaxArgs = 256;
// A command waits for the event thread, which may be busy for a moment.
constexpr int kReplyTimeoutMs = 120000;
// A listing of many accounts may be long.
constexpr size_t kMaxReply = 256 * 1024 * 1024;

// The address of a socket file. A path longer than sun_path can hold is reached through
// /proc/self/fd and a handle on its directory, which lives as long as the address.
struct UnixAddress {
    sockaddr_un addr{};
    socklen_t length = 0;
    int dir_fd = -1;
    UnixAddress() = default;
    UnixAddress(const UnixAddress&) = delete;
    UnixAddress& operator=(const UnixAddress&) = delete;
    ~UnixAddress() {
        if (dir_fd >= 0)
            ::close(dir_fd);
    }

    bool set(const std::filesystem::path& path) {
        std::string text = path.string();
        if (text.size() >= sizeof addr.sun_path) {
            dir_fd = ::open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (dir_fd < 0)
                return false;
            text = strf("/proc/self/fd/%d/%s", dir_fd, path.filename().c_str());
            if (text.size() >= sizeof addr.sun_path)
                return false;
        }
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, text.data(), text.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + 1);
        return true;
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&addr); }
};

// Waits until `fd` is ready for `events`; false on the time-out, an error, or `wake_fd`.
bool wait_ready(int fd, short events, int timeout_ms, int wake_fd) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        pollfd fds[2] = {{fd, events, 0}, {wake_fd, POLLIN, 0}};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0)
            return false;
        int n = ::poll(fds, wake_fd >= 0 ? 2 : 1, static_cast<int>(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || (wake_fd >= 0 && fds[1].revents))
            return false;
        return true;
    }
}

bool read_exact(int fd, char* data, size_t size, int timeout_ms, int wake_fd) {
    while (size > 0) {
        if (!wait_ready(fd, POLLIN, timeout_ms, wake_fd))
            return false;
        ssize_t n = ::recv(fd, data, size, MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool write_all(int fd, std::string_view bytes, int timeout_ms) {
    while (!bytes.empty()) {
        if (!wait_ready(fd, POLLOUT, timeout_ms, -1))
            return false;
        ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

std::string framed(const std::string& payload) {
    uint32_t n = static_cast<uint32_t>(payload.size());
    std::string out{static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                    static_cast<char>(n >> 8), static_cast<char>(n)};
    return out + payload;
}

std::optional<std::string> read_framed(int fd, size_t max, int timeout_ms, int wake_fd) {
    unsigned char head[4];
    if (!read_exact(fd, reinterpret_cast<char*>(head), 4, timeout_ms, wake_fd))
        return std::nullopt;
    size_t n = (size_t{head[0]} << 24) | (size_t{head[1]} << 16) | (size_t{head[2]} << 8) | head[3];
    if (n > max)
        return std::nullopt;
    std::string payload(n, '\0');
    if (!read_exact(fd, payload.data(), n, timeout_ms, wake_fd))
        return std::nullopt;
    return payload;
}

// NUL-terminated fields; nothing when the text does not end in one.
std::optional<std::vector<std::string_view>> split_fields(std::string_view payload) {
    std::vector<std::string_view> fields;
    while (!payload.empty()) {
        size_t end = payload.find('\0');
        if (end == std::string_view::npos)
            return std::nullopt;
        fields.push_back(payload.substr(0, end));
        payload.remove_prefix(end + 1);
    }
    return fields;
}

} // namespace

std::string encode_admin_request(const AdminRequest& request) {
    std::string out(kMagic);
    out += '\0';
    if (request.password)
        out += "=" + *request.password;
    out += '\0';
    for (const std::string& arg : request.args)
        out += arg + '\0';
    return out;
}

std::optional<AdminRequest> decode_admin_request(std::string_view payload) {
    auto fields = split_fields(payload);
    if (!fields || fields->size() < 2 || fields->size() > kMaxArgs + 2 || (*fields)[0] != kMagic)
        return std::nullopt;
    AdminRequest request;
    std::string_view password = (*fields)[1];
    if (!password.empty()) {
        if (password.front() != '=')
            return std::nullopt;
        request.password = std::string(password.substr(1));
    }
    for (size_t i = 2; i < fields->size(); ++i)
        request.args.emplace_back((*fields)[i]);
    return request;
}

std::string encode_admin_outcome(const AdminOutcome& outcome) {
    std::string out(1, static_cast<char>('0' + std::clamp(outcome.status, 0, 9)));
    out += '\0';
    out += outcome.out;
    out += '\0';
    out += outcome.err;
    out += '\0';
    return out;
}

std::optional<AdminOutcome> decode_admin_outcome(std::string_view payload) {
    auto fields = split_fields(payload);
    if (!fields || fields->size() != 3 || (*fields)[0].size() != 1 || (*fields)[0][0] < '0' ||
        (*fields)[0][0] > '9')
        return std::nullopt;
    return AdminOutcome{(*fields)[0][0] - '0', std::string((*fields)[1]),
                        std::string((*fields)[2])};
}

AdminSocket::AdminSocket(ServerApp& app) : app_(app) {}

AdminSocket::~AdminSocket() {
    stop();
}

void AdminSocket::start() {
    if (listen_fd_ >= 0)
        return;
    Server& server = app_.server();
    path_ = server.table_path(kAdminSocketName);
    auto fail = [&](const char* step) {
        server.log.logf("**** Admin socket %s failed (%s) ****", step, std::strerror(errno));
        if (listen_fd_ >= 0)
            ::close(listen_fd_);
        listen_fd_ = -1;
    };
    // Bound in a folder only we can enter, made owner-only, then moved into place: nobody
    // can connect between the bind and the chmod.
    std::string folder = (server.start_dir / ".orvane-sock-XXXXXX").string();
    if (!::mkdtemp(folder.data()))
        return fail("folder");
    std::filesystem::path bound = std::filesystem::path(folder) / "s";
    listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    UnixAddress address;
    bool ok = listen_fd_ >= 0 && address.set(bound) &&
              ::bind(listen_fd_, address.get(), address.length) == 0 &&
              ::chmod(bound.c_str(), 0600) == 0 && ::rename(bound.c_str(), path_.c_str()) == 0;
    int error = errno;
    ::unlink(bound.c_str());
    ::rmdir(folder.c_str());
    errno = error;
    if (!ok)
        return fail("bind");
    if (::listen(listen_fd_, 16) != 0)
        return fail("listen");
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC);
    if (wake_fd_ < 0)
        return fail("event");
    thread_ = std::thread([this] { serve(); });
}

void AdminSocket::stop() {
    if (thread_.joinable()) {
        uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
        thread_.join();
    }
    if (listen_fd_ >= 0) {
        ::close(listen_fd_);
        listen_fd_ = -1;
        ::unlink(path_.c_str());
    }
    if (wake_fd_ >= 0) {
        ::close(wake_fd_);
        wake_fd_ = -1;
    }
}

void AdminSocket::serve() {
    for (;;) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
        int n = ::poll(fds, 2, -1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || fds[1].revents)
            return;
        int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        serve_one(fd);
        // What the client sent beyond the request is read away first: closing a socket with
        // unread bytes resets it, and the client would lose the reply.
        ::shutdown(fd, SHUT_WR);
        char discard[4096];
        for (size_t total = 0; total < kMaxAdminMessage && wait_ready(fd, POLLIN, 200, wake_fd_);) {
            ssize_t n = ::recv(fd, discard, sizeof discard, MSG_DONTWAIT);
            if (n < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            if (n <= 0)
                break;
            total += static_cast<size_t>(n);
        }
        ::close(fd);
    }
}

void AdminSocket::serve_one(int fd) {
    auto reply = [fd](const AdminOutcome& outcome) {
        write_all(fd, framed(encode_admin_outcome(outcome)), kAdminReadTimeoutMs);
    };
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        (peer.uid != ::geteuid() && peer.uid != 0))
        return reply({1, "", "orvane-server: only the server's own user may administer it\n"});
    std::optional<std::string> payload =
        read_framed(fd, kMaxAdminMessage, kAdminReadTimeoutMs, wake_fd_);
    std::optional<AdminRequest> request = payload ? decode_admin_request(*payload) : std::nullopt;
    if (!request)
        return reply({2, "", "orvane-server: the request could not be read\n"});
    AdminOutcome outcome{1, "", "The server is stopping.\n"};
    Server& server = app_.server();
    run_on_event_thread(server, [&] { outcome = run_admin_command(server, &app_, *request); });
    reply(outcome);
}

std::optional<AdminOutcome> send_admin_request(const std::filesystem::path& start_dir,
                                               const AdminRequest& request, bool* connected) {
    UnixAddress address;
    if (!address.set(start_dir / kAdminSocketName))
        return std::nullopt;
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::nullopt;
    std::optional<AdminOutcome> outcome;
    bool made = ::connect(fd, address.get(), address.length) == 0;
    if (connected)
        *connected = made;
    if (made && write_all(fd, framed(encode_admin_request(request)), kAdminReadTimeoutMs))
        if (auto payload = read_framed(fd, kMaxReply, kReplyTimeoutMs, -1))
            outcome = decode_admin_outcome(*payload);
    ::close(fd);
    return outcome;
}

} // namespace orv
