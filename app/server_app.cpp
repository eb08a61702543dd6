#include "app/server_app.hpp"

#include "accounts/accounts.hpp"
#include "client/outgoing.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <asio.hpp>

namespace orv {

ServerApp::ServerApp(std::filesystem::path start_dir, Log::Sink sink)
    : server_(std::move(start_dir)) {
    server_.log.set_sink(std::move(sink));
    server_.log.set_debug_file(server_.table_path("debug.txt"));
    telnet_ = std::make_unique<TelnetServer>(server_);
    ftp_ = std::make_unique<FtpServer>(server_);
}

ServerApp::~ServerApp() {
    if (!shut_down_)
        shutdown();
}

void ServerApp::load() {
    server_.settings = read_settings(server_.table_path("settings.ini"));
    server_.guard.configure(read_auth_settings(server_.table_path("settings.ini"), &server_.log));
    server_.accounts = std::make_shared<Accounts>(&server_.memory_allocated);
    server_.accounts->read_groups(server_.table_path("groups"), server_.log);
    server_.accounts->read_users(server_.table_path("users"), server_.log);
    server_.accounts->link_groups(server_.table_path("groups"), server_.log);
    build_file_system(server_);
    server_.log.logf("Memory allocated - %li", server_.memory_allocated.load());
}

void ServerApp::start_services() {
    server_.log_message("Starting services...");
    if (server_.settings.telnet_enabled())
        telnet_->start();
    if (server_.settings.ftp_enabled())
        ftp_->start();
}

void ServerApp::ready() {
    server_.update_title(false);
    server_.log_message("Ready...");
}

void ServerApp::start() {
    load();
    start_services();
    ready();
}

void ServerApp::run() {
    server_.run_event_loop();
}

void ServerApp::request_stop() {
    server_.io().stop();
}

void ServerApp::stop_services() {
    if (server_.settings.telnet_enabled())
        telnet_->stop();
    if (server_.settings.ftp_enabled())
        ftp_->stop();
    // Sessions end without a goodbye; their commands see the closed sockets and stop.
    server_.stopping = true;
    for (const SlotPtr& slot : server_.conns.take_all()) {
        slot->stop = 1;
        client::close_outgoing(server_, slot);
        slot->close_control();
    }
    server_.workers.wait_idle(std::chrono::seconds(10));
}

void ServerApp::save_tables() {
    if (server_.accounts) {
        std::shared_lock lock(server_.tree_mutex);
        server_.accounts->save_users(server_.table_path("users"));
        server_.accounts->save_groups(server_.table_path("groups"));
    }
    // The workers have stopped by now; the tree writers take the lock themselves if needed.
    if (server_.vfs) {
        save_mounts(server_);
        write_fpl(server_);
    }
}

void ServerApp::shutdown() {
    if (shut_down_)
        return;
    shut_down_ = true;
    stop_services();
    save_tables();
    // Handlers still queued refer to slots and listeners: drop them before the tree goes.
    server_.io().restart();
    server_.io().poll();
}

} // namespace orv
