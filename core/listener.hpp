#pragma once
// A listening service socket: opens, binds to every local address, listens, and accepts on
// the event thread, logging the service's lines ("  FTP - Ok.  port %i", "  FTP - Bind error
// (%i)", "FTP Connect from ...", ...). The service name is "FTP" or "Telnet".
#include <asio.hpp>
#include <functional>
#include <memory>
#include <string>

namespace orv {

class Server;

class Listener {
  public:
    using AcceptFn = std::function<void(asio::ip::tcp::socket socket, int socket_number)>;

    Listener(Server& server, std::string service_name);
    ~Listener();

    // Logs the success or failure line; false on failure (the service stays off).
    bool start(int port, AcceptFn on_accept);
    // Stops accepting, closes the socket and logs "  <service> - Disabled".
    void stop();
    bool running() const { return acceptor_ && acceptor_->is_open(); }
    int port() const { return port_; }

  private:
    void accept_next();
    Server& server_;
    std::string name_;
    int port_ = 0;
    AcceptFn on_accept_;
    std::unique_ptr<asio::ip::tcp::acceptor> acceptor_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace orv
