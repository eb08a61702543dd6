#include "ftpd/ftp_server.hpp"

#include "core/server.hpp"

namespace orv {

FtpServer::FtpServer(Server& server) : server_(server), listener_(server, "FTP") {}

FtpServer::~FtpServer() = default;

bool FtpServer::start() {
    return listener_.start(server_.settings.ftp_port, [](asio::ip::tcp::socket socket, int) {
        asio::error_code ignored;
        socket.close(ignored);
    });
}

void FtpServer::stop() {
    listener_.stop();
}

} // namespace orv
