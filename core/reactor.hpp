#pragma once
// Readiness of a control socket delivered as the read, close and error events of the design:
// the event thread waits for the socket to become readable, then receives up to 4096 bytes
// into the server's one receive buffer and hands them on.
#include "core/conn_slot.hpp"

#include <functional>

namespace orv {

class Server;

struct ControlEvents {
    // Bytes received (in server.recv_buffer, `size` of them). The buffer is cleared afterwards.
    std::function<void(const SlotPtr&, const char* data, size_t size)> on_read;
    // The peer closed the connection (a receive returned 0).
    std::function<void(const SlotPtr&)> on_close;
    // The socket reported an error (the "unknown event" path); `error` is the errno value.
    std::function<void(const SlotPtr&, int error)> on_error;
};

// Starts waiting on the slot's control socket; re-arms itself after every read event as long
// as the control socket is open. Event thread. A connection that has not completed its login
// (FTP USER + PASS, Telnet name + password) within server.login_time_limit_ms is shut down,
// and its close event ends the session as any close does.
void watch_control(Server& server, const SlotPtr& slot, ControlEvents events);

// Reading again after slot->reading_paused was set (event thread).
void resume_control(Server& server, const SlotPtr& slot);

} // namespace orv
