#pragma once
// The FTP service: its listener and the sessions it accepts.
#include "core/listener.hpp"
#include "ftpd/ftp_context.hpp"

namespace orv {

class Server;

class FtpServer {
  public:
    explicit FtpServer(Server& server);
    ~FtpServer();
    // ftp_listen_start: logs "  FTP - Ok.  port %i" or the failure line; false on failure.
    bool start();
    // ftp_listen_stop: logs "  FTP - Disabled".
    void stop();
    bool running() const { return listener_.running(); }

  private:
    // The TLS context from the settings; FTPS stays off (and the log says why) without one.
    void start_tls();
    Server& server_;
    FtpContextPtr ctx_;
    Listener listener_;
    Listener implicit_listener_; // FTPS from the first byte, when configured
};

} // namespace orv
