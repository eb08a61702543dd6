#include "core/reactor.hpp"

#include "core/server.hpp"
#include "core/slot_socket.hpp"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace orv {
namespace {

// One receive from the control socket, through the slot's transport when it has one.
ssize_t receive_control(Server& server, ConnSlot& slot) {
    ssize_t n;
    if (ControlTransport* transport = slot.reading_transport()) {
        n = transport->receive(server.recv_buffer.data(), Server::kReceiveSize);
        return n;
    }
    int fd = slot.control_fd();
    do {
        n = ::recv(fd, server.recv_buffer.data(), Server::kReceiveSize, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    return n;
}

void arm(Server& server, const SlotPtr& slot, std::shared_ptr<ControlEvents> events) {
    SlotSocket* s = slot->control();
    if (!s || !slot->control_open() || slot->reading_paused)
        return;
    s->socket.async_wait(
        asio::socket_base::wait_read, [&server, slot, events](const asio::error_code& ec) {
            if (ec || !slot->control_open() || slot->reading_paused)
                return; // closed or handed over meanwhile
            for (;;) {
                ssize_t n = receive_control(server, *slot);
                if (n > 0) {
                    events->on_read(slot, server.recv_buffer.data(), static_cast<size_t>(n));
                    std::memset(server.recv_buffer.data(), 0, Server::kReceiveSize);
                    // A transport may hold more than one read took, which no readiness of
                    // the socket would announce.
                    ControlTransport* transport = slot->reading_transport();
                    if (transport && slot->control_open() && !slot->reading_paused &&
                        transport->pending())
                        continue;
                    arm(server, slot, events);
                } else if (n == 0) {
                    events->on_close(slot);
                } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    arm(server, slot, events);
                } else {
                    events->on_error(slot, errno);
                }
                return;
            }
        });
}

// Sessions still at the login count toward maxusers, so each gets only so long to finish it.
void start_login_deadline(Server& server, const SlotPtr& slot) {
    SlotSocket* s = slot->control();
    if (!s)
        return;
    s->login_deadline.expires_after(std::chrono::milliseconds(server.login_time_limit_ms.load()));
    std::weak_ptr<ConnSlot> weak = slot;
    s->login_deadline.async_wait([weak](const asio::error_code& ec) {
        if (ec)
            return;
        SlotPtr late = weak.lock();
        if (late && !late->logged_in)
            late->shutdown_control();
    });
}

} // namespace

void watch_control(Server& server, const SlotPtr& slot, ControlEvents events) {
    start_login_deadline(server, slot);
    auto shared = std::make_shared<ControlEvents>(std::move(events));
    if (SlotSocket* s = slot->control())
        s->events = shared;
    arm(server, slot, std::move(shared));
}

void resume_control(Server& server, const SlotPtr& slot) {
    slot->reading_paused = false;
    SlotSocket* s = slot->control();
    if (s && s->events)
        arm(server, slot, s->events);
}

} // namespace orv
