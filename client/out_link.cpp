#include "client/out_link.hpp"

#include "platform/net.hpp"

#include <asio.hpp>
#include <cerrno>
#include <sys/socket.h>

namespace orv::client {

struct OutLink::Watcher {
    explicit Watcher(asio::ip::tcp::socket s) : socket(std::move(s)) {}
    asio::ip::tcp::socket socket;
};

OutLink::OutLink(int fd) : fd_(fd), number_(fd) {}

OutLink::~OutLink() {
    std::lock_guard lock(mutex_);
    if (watcher_) {
        asio::error_code ignored;
        watcher_->socket.close(ignored);
    } else if (fd_ >= 0) {
        close_fd(fd_);
    }
    fd_ = -1;
}

bool OutLink::is_open() const {
    std::lock_guard lock(mutex_);
    return !closed_;
}

ssize_t OutLink::send_some(const char* data, size_t size) {
    std::lock_guard lock(mutex_);
    if (closed_)
        return -1;
    ssize_t n = send_nowait(fd_, data, size);
    if (n < 0)
        return would_block_error() ? 0 : -1;
    return n;
}

void OutLink::wait_writable(int timeout_ms) const {
    int fd;
    {
        std::lock_guard lock(mutex_);
        if (closed_)
            return;
        fd = fd_;
    }
    // Outside the lock: a close meanwhile only makes the poll return early, and the next send
    // checks the link again under the lock.
    orv::wait_writable(fd, timeout_ms);
}

bool OutLink::send_all(std::string_view bytes, int idle_timeout_ms) {
    const char* p = bytes.data();
    size_t left = bytes.size();
    int idle = 0;
    while (left > 0) {
        ssize_t n = send_some(p, left);
        if (n < 0)
            return false;
        if (n > 0) {
            p += n;
            left -= static_cast<size_t>(n);
            idle = 0;
            continue;
        }
        if (idle >= idle_timeout_ms)
            return false;
        wait_writable(100);
        idle += 100;
    }
    return true;
}

bool OutLink::watch(asio::io_context& io) {
    std::lock_guard lock(mutex_);
    if (closed_ || watcher_)
        return false;
    asio::error_code ec;
    asio::ip::tcp::socket s(io);
    s.assign(asio::ip::tcp::v4(), fd_, ec);
    if (ec)
        return false;
    watcher_ = std::make_unique<Watcher>(std::move(s));
    return true;
}

void OutLink::arm(std::function<void()> on_ready) {
    std::lock_guard lock(mutex_);
    if (closed_ || !watcher_)
        return;
    watcher_->socket.async_wait(
        asio::socket_base::wait_read,
        [self = shared_from_this(), on_ready = std::move(on_ready)](const asio::error_code& ec) {
            if (!ec && self->is_open())
                on_ready();
        });
}

ssize_t OutLink::receive(char* buffer, size_t size, int& error) {
    std::lock_guard lock(mutex_);
    error = 0;
    if (closed_) {
        error = EBADF;
        return -1;
    }
    ssize_t n;
    do {
        n = ::recv(fd_, buffer, size, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        error = errno;
    return n;
}

bool OutLink::close() {
    std::lock_guard lock(mutex_);
    if (closed_)
        return false;
    closed_ = true;
    if (watcher_) {
        // Cancels a pending wait; its handler then runs with an error and does nothing.
        asio::error_code ignored;
        watcher_->socket.close(ignored);
    } else {
        close_fd(fd_);
    }
    fd_ = -1;
    return true;
}

void OutLink::shutdown_both() {
    std::lock_guard lock(mutex_);
    if (!closed_)
        ::shutdown(fd_, SHUT_RDWR);
}

bool OutLink::local_address(uint32_t& addr_be, int& port) const {
    std::lock_guard lock(mutex_);
    return !closed_ && local_ipv4(fd_, addr_be, port);
}

bool OutLink::peer_address(uint32_t& addr_be, int& port) const {
    std::lock_guard lock(mutex_);
    return !closed_ && peer_ipv4(fd_, addr_be, port);
}

} // namespace orv::client
