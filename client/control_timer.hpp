#pragma once
// The watchdog timer of an FTP control connection; created, armed and cancelled only on the
// event thread.
#include <asio.hpp>

namespace orv::client {

struct ControlTimer {
    explicit ControlTimer(asio::io_context& io) : timer(io) {}
    asio::steady_timer timer;
};

} // namespace orv::client
