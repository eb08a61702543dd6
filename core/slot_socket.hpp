#pragma once
// The asio side of a control socket: only code that waits on sockets includes this.
#include <asio.hpp>

namespace orv {

struct SlotSocket {
    explicit SlotSocket(asio::ip::tcp::socket s) : socket(std::move(s)) {}
    asio::ip::tcp::socket socket;
};

} // namespace orv
