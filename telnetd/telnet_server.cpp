#include "telnetd/telnet_server.hpp"

#include "core/server.hpp"

namespace orv {

TelnetServer::TelnetServer(Server& server) : server_(server), listener_(server, "Telnet") {}

TelnetServer::~TelnetServer() = default;

bool TelnetServer::start() {
    return listener_.start(server_.settings.telnet_port, [](asio::ip::tcp::socket socket, int) {
        asio::error_code ignored;
        socket.close(ignored);
    });
}

void TelnetServer::stop() {
    listener_.stop();
}

} // namespace orv
