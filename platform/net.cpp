#include "platform/net.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orv {

ssize_t send_nowait(int fd, const void* data, size_t size) {
    ssize_t n;
    do {
        n = ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    return n;
}

bool would_block_error() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

static bool wait_for(int fd, short events, int timeout_ms) {
    pollfd p{fd, events, 0};
    int r;
    do {
        r = ::poll(&p, 1, timeout_ms);
    } while (r < 0 && errno == EINTR);
    return r > 0 && (p.revents & (events | POLLHUP | POLLERR)) != 0;
}

bool wait_writable(int fd, int timeout_ms) {
    return wait_for(fd, POLLOUT, timeout_ms);
}
bool wait_readable(int fd, int timeout_ms) {
    return wait_for(fd, POLLIN, timeout_ms);
}

int tcp_socket() {
    return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

void close_fd(int fd) {
    if (fd >= 0)
        ::close(fd);
}

bool set_nodelay(int fd) {
    int one = 1;
    return ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) == 0;
}

bool set_reuseaddr(int fd) {
    int one = 1;
    return ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0;
}

bool set_keepalive(int fd) {
    int one = 1;
    return ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one) == 0;
}

bool parse_ipv4(const std::string& text, uint32_t& addr_be) {
    in_addr a{};
    if (::inet_pton(AF_INET, text.c_str(), &a) != 1)
        return false;
    addr_be = a.s_addr;
    return true;
}

bool parse_ipv4_classic(const std::string& text, uint32_t& addr_be) {
    in_addr a{};
    if (::inet_aton(text.c_str(), &a) == 0)
        return false;
    addr_be = a.s_addr;
    return true;
}

std::string ipv4_text(uint32_t addr_be) {
    const auto* b = reinterpret_cast<const unsigned char*>(&addr_be);
    return std::to_string(b[0]) + "." + std::to_string(b[1]) + "." + std::to_string(b[2]) + "." +
           std::to_string(b[3]);
}

int bind_any(int fd, int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0)
        return errno;
    return 0;
}

int connect_ipv4(int fd, uint32_t addr_be, int port, int timeout_ms, const std::atomic<int>* stop) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = addr_be;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    int flags = ::fcntl(fd, F_GETFL, 0);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    int err = 0;
    if (rc != 0) {
        err = errno;
        if (err == EINPROGRESS) {
            // Short slices, so that a raised stop flag ends the wait promptly.
            bool writable = false;
            for (int left = timeout_ms; left > 0 && !writable; left -= 100) {
                if (stop && stop->load() != 0)
                    break;
                writable = wait_writable(fd, std::min(left, 100));
            }
            if (!writable) {
                err = ETIMEDOUT;
            } else {
                socklen_t len = sizeof err;
                if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
                    err = errno;
            }
        }
    }
    ::fcntl(fd, F_SETFL, flags);
    return err;
}

static bool address_of(int fd, bool peer, uint32_t& addr_be, int& port) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    int rc = peer ? ::getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len)
                  : ::getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
    if (rc != 0)
        return false;
    if (ss.ss_family == AF_INET) {
        const auto& sa = reinterpret_cast<const sockaddr_in&>(ss);
        addr_be = sa.sin_addr.s_addr;
        port = ntohs(sa.sin_port);
        return true;
    }
    // An IPv4 client of a listener that takes both families.
    const auto& sa6 = reinterpret_cast<const sockaddr_in6&>(ss);
    if (ss.ss_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&sa6.sin6_addr))
        return false;
    std::memcpy(&addr_be, sa6.sin6_addr.s6_addr + 12, 4);
    port = ntohs(sa6.sin6_port);
    return true;
}

std::string peer_address_text(int fd) {
    uint32_t v4 = 0;
    int port = 0;
    if (address_of(fd, true, v4, port))
        return ipv4_text(v4);
    sockaddr_in6 sa6{};
    socklen_t len = sizeof sa6;
    char text[INET6_ADDRSTRLEN] = "";
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&sa6), &len) != 0 ||
        sa6.sin6_family != AF_INET6 || !::inet_ntop(AF_INET6, &sa6.sin6_addr, text, sizeof text))
        return {};
    return text;
}

bool local_ipv4(int fd, uint32_t& addr_be, int& port) {
    return address_of(fd, false, addr_be, port);
}
bool peer_ipv4(int fd, uint32_t& addr_be, int& port) {
    return address_of(fd, true, addr_be, port);
}

bool send_all(int fd, const void* data, size_t size, const std::atomic<int>* stop,
              int idle_timeout_ms) {
    const char* p = static_cast<const char*>(data);
    int idle = 0;
    while (size > 0) {
        if (stop && stop->load() != 0)
            return false;
        ssize_t n = send_nowait(fd, p, size);
        if (n > 0) {
            p += n;
            size -= static_cast<size_t>(n);
            idle = 0;
            continue;
        }
        if (n < 0 && !would_block_error())
            return false;
        if (idle >= idle_timeout_ms)
            return false;
        wait_writable(fd, 250);
        idle += 250;
    }
    return true;
}

void raise_open_file_limit() {
    rlimit rl{};
    if (::getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &rl);
    }
}

} // namespace orv
