#pragma once
// The Telnet service: its listener, the sessions it accepts and their shell.
#include "core/listener.hpp"

namespace orv {

class Server;

class TelnetServer {
  public:
    // Also provides the shell's entry points to the code below it (server.shell).
    explicit TelnetServer(Server& server);
    ~TelnetServer();
    // start_telnet_service: logs "  Telnet - Ok.  port %i" or the failure line.
    bool start();
    // stop_telnet_service: logs "  Telnet - Disabled". Sessions already accepted go on.
    void stop();
    bool running() const { return listener_.running(); }

  private:
    Server& server_;
    Listener listener_;
};

} // namespace orv
