#include "core/conn_slot.hpp"

#include "core/login_guard.hpp"
#include "core/server.hpp"
#include "core/slot_socket.hpp"
#include "platform/net.hpp"

#include <cstring>
#include <sys/socket.h>

namespace orv {

namespace {
// How long a send may wait for a peer that does not read: briefly on the event thread, which
// serves everybody, longer on a command's own thread.
constexpr int kEventThreadWaitMs = 500;
constexpr int kWorkerWaitMs = 30000;
} // namespace

ConnSlot::ConnSlot(Service s, int socket_number) : service(s), socket(socket_number) {
    if (s == Service::Ftp)
        transfer_type = 'A';
}

ConnSlot::~ConnSlot() = default;

void ConnSlot::take_peer_address(int fd) {
    uint32_t addr = 0;
    int port = 0;
    if (peer_ipv4(fd, addr, port)) {
        std::memcpy(peer.data(), &addr, sizeof addr);
        peer_known = true;
    }
    peer_text = peer_address_text(fd);
}

std::shared_ptr<User> ConnSlot::user() const {
    std::lock_guard lock(mutex_);
    return user_;
}

void ConnSlot::set_user(std::shared_ptr<User> user) {
    std::lock_guard lock(mutex_);
    user_ = std::move(user);
}

std::shared_ptr<User> ConnSlot::checked_user() const {
    if (!logged_in.load())
        return nullptr;
    return user();
}

std::shared_ptr<VfsNode> ConnSlot::cwd() const {
    std::lock_guard lock(mutex_);
    return cwd_;
}

void ConnSlot::set_cwd(std::shared_ptr<VfsNode> node) {
    std::lock_guard lock(mutex_);
    cwd_ = std::move(node);
}

void ConnSlot::queue_message(std::string_view text) {
    std::lock_guard lock(mutex_);
    messages_.emplace_back(text.substr(0, 80));
}

std::vector<std::string> ConnSlot::take_messages() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out(messages_.begin(), messages_.end());
    messages_.clear();
    return out;
}

std::shared_ptr<OutgoingSession> ConnSlot::outgoing() const {
    std::lock_guard lock(mutex_);
    return outgoing_;
}

void ConnSlot::set_outgoing(std::shared_ptr<OutgoingSession> session) {
    std::lock_guard lock(mutex_);
    outgoing_ = std::move(session);
}

std::shared_ptr<AddressTicket> ConnSlot::guard_ticket() const {
    std::lock_guard lock(mutex_);
    return guard_ticket_;
}

void ConnSlot::set_guard_ticket(std::shared_ptr<AddressTicket> ticket) {
    std::lock_guard lock(mutex_);
    guard_ticket_ = std::move(ticket);
}

bool ConnSlot::send_text(std::string_view text) {
    return send_bytes(text.data(), text.size());
}

bool ConnSlot::send_bytes(const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    size_t left = size;
    int waited_ms = 0;
    while (left > 0) {
        int fd;
        {
            std::lock_guard lock(io_mutex_);
            if (fd_ < 0)
                return false;
            fd = fd_;
            ssize_t n = transport_ ? transport_->send(p, left) : send_nowait(fd, p, left);
            if (n > 0) {
                p += n;
                left -= static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && !would_block_error())
                return false;
        }
        // Wait outside the lock so that a close on the event thread never waits for a slow
        // reader; the socket is checked again under the lock before the next send.
        if (waited_ms >= (Server::on_event_thread() ? kEventThreadWaitMs : kWorkerWaitMs)) {
            // A peer that stops reading its replies must not hold up the event thread (or a
            // worker for ever): end the connection; its close event removes the session.
            std::lock_guard lock(io_mutex_);
            if (fd_ == fd)
                ::shutdown(fd, SHUT_RDWR);
            return false;
        }
        wait_writable(fd, 100);
        waited_ms += 100;
    }
    return true;
}

long ConnSlot::send_some(const void* data, size_t size) {
    std::lock_guard lock(io_mutex_);
    if (fd_ < 0)
        return -1;
    ssize_t n = transport_ ? transport_->send(data, size) : send_nowait(fd_, data, size);
    if (n < 0)
        return would_block_error() ? 0 : -1;
    return static_cast<long>(n);
}

void ConnSlot::attach_control(std::unique_ptr<SlotSocket> s) {
    std::lock_guard lock(io_mutex_);
    control_ = std::move(s);
    fd_ = control_ ? control_->socket.native_handle() : -1;
}

void ConnSlot::close_control() {
    {
        std::lock_guard lock(io_mutex_);
        if (transport_ && fd_ >= 0)
            ::shutdown(fd_, SHUT_RDWR); // a transport may hold its own handle on the socket
        transport_.reset();
        read_transport_ = nullptr;
        if (control_) {
            asio::error_code ignored;
            control_->socket.close(ignored);
            control_->login_deadline.cancel();
        }
        fd_ = -1;
    }
    set_guard_ticket(nullptr);
}

void ConnSlot::shutdown_control() {
    std::lock_guard lock(io_mutex_);
    if (fd_ >= 0)
        ::shutdown(fd_, SHUT_RDWR);
}

void ConnSlot::set_transport(std::shared_ptr<ControlTransport> transport) {
    std::lock_guard lock(io_mutex_);
    read_transport_ = transport.get();
    transport_ = std::move(transport);
}

bool ConnSlot::control_open() const {
    std::lock_guard lock(io_mutex_);
    return fd_ >= 0;
}

int ConnSlot::control_fd() const {
    std::lock_guard lock(io_mutex_);
    return fd_;
}

} // namespace orv
