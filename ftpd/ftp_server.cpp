#include "ftpd/ftp_server.hpp"

#include "core/server.hpp"
#include "ftpd/control_connection.hpp"
#include "ftpd/ftps.hpp"
#include "platform/text.hpp"
#include "platform/tls.hpp"

namespace orv {

FtpServer::FtpServer(Server& server)
    : server_(server), ctx_(std::make_shared<FtpContext>(server)), listener_(server, "FTP"),
      implicit_listener_(server, "FTPS") {}

FtpServer::~FtpServer() = default;

bool FtpServer::start() {
    FtpContextPtr ctx = ctx_;
    start_tls();
    bool ok = listener_.start(server_.settings.ftp_port,
                              [ctx](asio::ip::tcp::socket socket, int socket_number) {
                                  open_session(ctx, std::move(socket), socket_number);
                              });
    int implicit_port = server_.settings.ext.ftps_implicit_port;
    if (ok && ctx->tls && implicit_port != 0)
        implicit_listener_.start(implicit_port,
                                 [ctx](asio::ip::tcp::socket socket, int socket_number) {
                                     open_session(ctx, std::move(socket), socket_number, true);
                                 });
    return ok;
}

void FtpServer::start_tls() {
    const Extensions& ext = server_.settings.ext;
    ctx_->tls.reset();
    if (!ext.ftps)
        return;
    std::string error;
    ctx_->tls = make_ftps_context(ext, server_.start_dir.string(), error);
    if (!ctx_->tls) {
        server_.log.logf("FTPS - Disabled: %s", log_safe(error).c_str());
        return;
    }
    // Said once, so that an administrator knows which way downloads take.
    if (kernel_tls_available())
        server_.log_message("FTPS - downloads use kernel TLS and sendfile");
    else
        server_.log_message("FTPS - downloads use OpenSSL writes (no kernel TLS here)");
}

void FtpServer::stop() {
    listener_.stop();
    if (implicit_listener_.running())
        implicit_listener_.stop();
}

} // namespace orv
