#pragma once
// The SSH service: its listener, the host key and the protocol settings shared by its
// connections, and the connections' threads.
#include "core/listener.hpp"

#include <memory>

struct ssh_bind_struct;

namespace orv {

class Server;

namespace ssh {
class LiveConnections;
}

class SshServer {
  public:
    explicit SshServer(Server& server);
    ~SshServer();
    SshServer(const SshServer&) = delete;
    SshServer& operator=(const SshServer&) = delete;

    // Loads (or makes) the host key, then listens on ssh_port: "  SSH - Ok.  port %i" or the
    // failure line.
    bool start();
    // Stops accepting: "  SSH - Disabled". Connections already accepted go on.
    void stop();
    // Ends every live connection (server stop); their threads then end promptly.
    void end_sessions();
    bool running() const { return listener_.running(); }

  private:
    void accept(asio::ip::tcp::socket socket, int socket_number);
    Server& server_;
    Listener listener_;
    ssh_bind_struct* bind_ = nullptr;
    std::shared_ptr<ssh::LiveConnections> live_;
};

} // namespace orv
