#include "core/listener.hpp"

#include "core/server.hpp"
#include "platform/net.hpp"

#include <sys/socket.h>

namespace orv {

Listener::Listener(Server& server, std::string service_name)
    : server_(server), name_(std::move(service_name)) {}

Listener::~Listener() {
    *alive_ = false;
    if (acceptor_) {
        asio::error_code ignored;
        acceptor_->close(ignored);
    }
}

bool Listener::start(int port, AcceptFn on_accept) {
    port_ = port;
    on_accept_ = std::move(on_accept);
    server_.recv_buffer.fill(0);
    acceptor_ = std::make_unique<asio::ip::tcp::acceptor>(server_.io());
    asio::error_code ec;
    // Every IPv4 address unless listen_address names one address, or "::" for both families.
    asio::ip::tcp::endpoint where(asio::ip::tcp::v4(), static_cast<uint16_t>(port));
    const std::string& configured = server_.settings.ext.listen_address;
    if (!configured.empty()) {
        asio::ip::address address = asio::ip::make_address(configured, ec);
        if (!ec)
            where = asio::ip::tcp::endpoint(address, static_cast<uint16_t>(port));
        ec.clear();
    }
    acceptor_->open(where.protocol(), ec);
    if (ec) {
        server_.log.logf("  %s - Socket error (%i)", name_.c_str(), ec.value());
        acceptor_.reset();
        return false;
    }
    // Lets a restarted server take its port back at once; a port in use is still refused.
    acceptor_->set_option(asio::socket_base::reuse_address(true), ec);
    if (where.address().is_v6() && where.address().is_unspecified())
        acceptor_->set_option(asio::ip::v6_only(false), ec);
    acceptor_->bind(where, ec);
    if (ec) {
        server_.log.logf("  %s - Bind error (%i)", name_.c_str(), ec.value());
        acceptor_.reset();
        return false;
    }
    // A deeper backlog than the classic 5, so that bursts of clients are not made to retry.
    acceptor_->listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        server_.log.logf("  %s - Listen error (%i)", name_.c_str(), ec.value());
        acceptor_.reset();
        return false;
    }
    acceptor_->non_blocking(true, ec);
    server_.log.logf("  %s - Ok.  port %i", name_.c_str(), port);
    accept_next();
    return true;
}

void Listener::stop() {
    if (acceptor_) {
        asio::error_code ignored;
        acceptor_->close(ignored);
        acceptor_.reset();
    }
    server_.log.logf("  %s - Disabled", name_.c_str());
}

void Listener::accept_next() {
    if (!acceptor_)
        return;
    auto alive = alive_;
    asio::ip::tcp::acceptor* acceptor = acceptor_.get();
    acceptor->async_accept(
        [this, alive, acceptor](const asio::error_code& ec, asio::ip::tcp::socket socket) {
            if (!*alive || !acceptor_ || acceptor_.get() != acceptor ||
                ec == asio::error::operation_aborted)
                return;
            if (ec) {
                server_.log_message("Error on (accept)");
                if (ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space) {
                    // Out of descriptors: wait a moment instead of spinning on the error.
                    auto timer = std::make_shared<asio::steady_timer>(server_.io());
                    timer->expires_after(std::chrono::milliseconds(100));
                    timer->async_wait([this, alive, timer](const asio::error_code&) {
                        if (*alive)
                            accept_next();
                    });
                    return;
                }
                accept_next();
                return;
            }
            int fd = socket.native_handle();
            std::string peer = peer_address_text(fd);
            bool have_peer = !peer.empty();
            server_.log.logf("%s Connect from %s port %i", name_.c_str(),
                             have_peer ? peer.c_str() : "0.0.0.0", fd);
            if (!have_peer) {
                asio::error_code ignored;
                socket.close(ignored);
                server_.log_message("Socket Error on FD_Accept->getpeername...");
            } else {
                int type = 0;
                socklen_t len = sizeof type;
                if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0) {
                    asio::error_code ignored;
                    socket.close(ignored);
                    server_.log_message("Socket Error on FD_Accept->getsockopt...");
                } else if (type != SOCK_STREAM) {
                    asio::error_code ignored;
                    socket.close(ignored);
                    server_.log_message("FD_Accept unsupported connection type...");
                } else {
                    asio::error_code ignored;
                    socket.non_blocking(true, ignored);
                    set_nodelay(fd);
                    on_accept_(std::move(socket), fd);
                }
            }
            accept_next();
        });
}

} // namespace orv
