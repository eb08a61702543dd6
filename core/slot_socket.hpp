#pragma once
// The asio side of a control socket: only code that waits on sockets includes this.
#include <asio.hpp>

namespace orv {

struct SlotSocket {
    explicit SlotSocket(asio::ip::tcp::socket s)
        : socket(std::move(s)), login_deadline(socket.get_executor()) {}
    asio::ip::tcp::socket socket;
    // Ends the connection when the login has not completed in time (see watch_control).
    asio::steady_timer login_deadline;
};

} // namespace orv
