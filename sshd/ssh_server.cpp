#include "sshd/ssh_server.hpp"

#include "core/server.hpp"
#include "core/slot_socket.hpp"
#include "platform/net.hpp"
#include "sshd/ssh_algorithms.hpp"
#include "sshd/ssh_host_key.hpp"
#include "sshd/ssh_session.hpp"

#include <libssh/libssh.h>
#include <libssh/server.h>

#include <sys/socket.h>
#include <unistd.h>

namespace orv {

SshServer::SshServer(Server& server)
    : server_(server), listener_(server, "SSH"), live_(std::make_shared<ssh::LiveConnections>()) {}

SshServer::~SshServer() {
    if (bind_)
        ssh_bind_free(bind_);
}

bool SshServer::start() {
    if (!bind_) {
        std::string error;
        ssh_key key = ssh::load_or_create_host_key(server_.table_path(ssh::kHostKeyFile), error);
        if (!key) {
            server_.log.logf("  SSH - Host key error (%s)", error.c_str());
            return false;
        }
        bind_ = ssh_bind_new();
        // The algorithm lists below are the whole story: no system-wide library file changes
        // them behind the administrator's back.
        bool no_config = false;
        if (bind_)
            ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_PROCESS_CONFIG, &no_config);
        // The bind takes the key over.
        bool ok = bind_ && ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_IMPORT_KEY, key) == 0;
        if (!ok) {
            ssh_key_free(key);
        } else {
            ok = ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_KEY_EXCHANGE, ssh::kKeyExchange) ==
                     0 &&
                 ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_HOSTKEY_ALGORITHMS, ssh::kHostKeys) ==
                     0 &&
                 ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_CIPHERS_C_S, ssh::kCiphers) == 0 &&
                 ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_CIPHERS_S_C, ssh::kCiphers) == 0 &&
                 ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_HMAC_C_S, ssh::kMacs) == 0 &&
                 ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_HMAC_S_C, ssh::kMacs) == 0 &&
                 ssh_bind_options_set(bind_, SSH_BIND_OPTIONS_BANNER, ssh::kVersionBanner) == 0;
        }
        if (!ok) {
            server_.log_message("  SSH - Setup error");
            if (bind_)
                ssh_bind_free(bind_);
            bind_ = nullptr;
            return false;
        }
    }
    return listener_.start(server_.settings.ssh_port,
                           [this](asio::ip::tcp::socket socket, int socket_number) {
                               accept(std::move(socket), socket_number);
                           });
}

void SshServer::stop() {
    listener_.stop();
}

void SshServer::end_sessions() {
    live_->shut_all();
}

void SshServer::accept(asio::ip::tcp::socket socket, int socket_number) {
    if (server_.conns.user_count() >= server_.settings.maxusers) {
        server_.log.logf("SSH Close port %i (Server Full)", socket_number);
        asio::error_code ignored;
        socket.close(ignored);
        return;
    }
    // The shell reads its control socket as it reads a Telnet connection; this pair's other
    // end is relayed to and from the SSH channel by the connection's thread.
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) {
        server_.log.logf("SSH Close port %i (no socket)", socket_number);
        asio::error_code ignored;
        socket.close(ignored);
        return;
    }
    auto slot = std::make_shared<ConnSlot>(Service::Ssh, socket_number);
    slot->take_peer_address(socket_number);

    asio::error_code ec;
    asio::ip::tcp::socket shell_end(server_.io());
    shell_end.assign(asio::ip::tcp::v4(), pair[0], ec);
    if (ec) {
        ::close(pair[0]);
        ::close(pair[1]);
        server_.log.logf("SSH Close port %i (no socket)", socket_number);
        socket.close(ec);
        return;
    }
    slot->attach_control(std::make_unique<SlotSocket>(std::move(shell_end)));

    ssh_session session = ssh_new();
    int tcp_fd = socket.release(ec);
    if (!session || ec || ssh_bind_accept_fd(bind_, session, tcp_fd) != SSH_OK) {
        if (session)
            ssh_free(session);
        if (!ec)
            ::close(tcp_fd);
        slot->close_control();
        ::close(pair[1]);
        server_.log.logf("SSH Close port %i", socket_number);
        return;
    }
    // Bounds every blocking step of the protocol (the key exchange above all).
    long timeout_s = 30;
    ssh_options_set(session, SSH_OPTIONS_TIMEOUT, &timeout_s);
    server_.conns.add(slot);
    server_.update_title(true);
    live_->add(tcp_fd);

    ssh::SessionStart start{&server_, slot, session, tcp_fd, pair[1], live_};
    if (!server_.workers.spawn([start]() mutable { ssh::run_ssh_session(std::move(start)); })) {
        server_.log_message("**** Failed to create SSH Thread ****");
        live_->remove(tcp_fd);
        ssh_free(session);
        ::close(pair[1]);
        server_.conns.remove(slot);
        slot->close_control();
        server_.update_title(false);
        server_.log.logf("SSH Close port %i", socket_number);
    }
}

} // namespace orv
