#include "telnetd/telnet_server.hpp"

#include "core/server.hpp"
#include "telnetd/shell_dispatch.hpp"
#include "telnetd/shell_listing.hpp"
#include "telnetd/telnet_conn.hpp"

namespace orv {

TelnetServer::TelnetServer(Server& server) : server_(server), listener_(server, "Telnet") {
    server_.shell.pending_line = [&server](const SlotPtr& slot) {
        telnet::process_pending_line(server, slot);
    };
    server_.shell.local_dir = [&server](const SlotPtr& slot, std::string arg) {
        telnet::start_command_thread(server, slot, std::move(arg),
                                     "**** Failed to create dir Thread ****", telnet::dir_thread);
    };
    server_.shell.local_pwd = [&server](const SlotPtr& slot) { telnet::pwd_command(server, slot); };
}

TelnetServer::~TelnetServer() {
    server_.shell = {};
}

bool TelnetServer::start() {
    return listener_.start(
        server_.settings.telnet_port, [this](asio::ip::tcp::socket socket, int socket_number) {
            telnet::accept_telnet_conn(server_, std::move(socket), socket_number);
        });
}

void TelnetServer::stop() {
    listener_.stop();
}

} // namespace orv
