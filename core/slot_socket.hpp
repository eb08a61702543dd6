#pragma once
// The asio side of a control socket: only code that waits on sockets includes this.
#include <asio.hpp>

namespace orv {

struct ControlEvents;

struct SlotSocket {
    explicit SlotSocket(asio::ip::tcp::socket s)
        : socket(std::move(s)), login_deadline(socket.get_executor()) {}
    asio::ip::tcp::socket socket;
    // Ends the connection when the login has not completed in time (see watch_control).
    asio::steady_timer login_deadline;
    // The handlers the socket's events go to, kept for resume_control().
    std::shared_ptr<ControlEvents> events;
};

} // namespace orv
