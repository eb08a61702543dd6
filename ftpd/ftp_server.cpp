#include "ftpd/ftp_server.hpp"

#include "core/server.hpp"
#include "ftpd/control_connection.hpp"

namespace orv {

FtpServer::FtpServer(Server& server)
    : server_(server), ctx_(std::make_shared<FtpContext>(server)), listener_(server, "FTP") {}

FtpServer::~FtpServer() = default;

bool FtpServer::start() {
    FtpContextPtr ctx = ctx_;
    return listener_.start(server_.settings.ftp_port,
                           [ctx](asio::ip::tcp::socket socket, int socket_number) {
                               open_session(ctx, std::move(socket), socket_number);
                           });
}

void FtpServer::stop() {
    listener_.stop();
}

} // namespace orv
