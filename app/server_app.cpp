#include "app/server_app.hpp"

#include "accounts/accounts.hpp"
#include "app/admin_settings.hpp"
#include "app/admin_socket.hpp"
#include "app/table_saver.hpp"
#include "client/outgoing.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <asio.hpp>

namespace orv {

void load_server_tables(Server& server) {
    server.settings = read_settings(server.table_path("settings.ini"));
    for (const std::string& problem : server.settings.ext.problems)
        server.log_message(problem);
    server.guard.configure(read_auth_settings(server.table_path("settings.ini"), &server.log));
    server.accounts = std::make_shared<Accounts>(&server.memory_allocated);
    server.accounts->read_groups(server.table_path("groups"), server.log);
    server.accounts->read_users(server.table_path("users"), server.log);
    server.accounts->link_groups(server.table_path("groups"), server.log);
    build_file_system(server);
    server.log.logf("Memory allocated - %li", server.memory_allocated.load());
}

ServerApp::ServerApp(std::filesystem::path start_dir, Log::Sink sink)
    : server_(std::move(start_dir)) {
    server_.log.set_sink(std::move(sink));
    server_.log.set_debug_file(server_.table_path("debug.txt"));
    telnet_ = std::make_unique<TelnetServer>(server_);
    ftp_ = std::make_unique<FtpServer>(server_);
    ssh_ = std::make_unique<SshServer>(server_);
    saver_ = std::make_unique<TableSaver>(server_);
    admin_socket_ = std::make_unique<AdminSocket>(*this);
}

ServerApp::~ServerApp() {
    if (!shut_down_)
        shutdown();
}

void ServerApp::load() {
    load_server_tables(server_);
    saver_->remember_current();
}

void ServerApp::start_services() {
    server_.log_message("Starting services...");
    if (server_.settings.telnet_enabled())
        telnet_->start();
    if (server_.settings.ftp_enabled())
        ftp_->start();
    if (server_.settings.ssh_enabled())
        ssh_->start();
}

void ServerApp::ready() {
    server_.update_title(false);
    server_.log_message("Ready...");
}

void ServerApp::start() {
    load();
    start_services();
    saver_->start();
    admin_socket_->start();
    ready();
}

void ServerApp::reload_settings() {
    Settings fresh = read_settings(server_.table_path("settings.ini"));
    SettingsForm form;
    form.serverhome = fresh.serverhome;
    form.maxusers = std::to_string(fresh.maxusers);
    form.telnet = fresh.telnet_enabled();
    form.telnet_port = std::to_string(fresh.telnet_port);
    form.ftp = fresh.ftp_enabled();
    form.ftp_port = std::to_string(fresh.ftp_port);
    form.tls = tls_settings_form(fresh.ext);
    server_.log_message("Settings reloaded");
    server_.guard.configure(read_auth_settings(server_.table_path("settings.ini"), &server_.log));
    server_.settings.maxusers = fresh.maxusers;
    // The passive-mode keys (and passive_address's name, resolved anew) apply from the next
    // PASV on; they are read on this thread only.
    for (const std::string& problem : fresh.ext.problems)
        server_.log_message(problem);
    server_.settings.ext.passive_low = fresh.ext.passive_low;
    server_.settings.ext.passive_high = fresh.ext.passive_high;
    server_.settings.ext.passive_address = fresh.ext.passive_address;
    server_.settings.ext.passive_ipv4 = fresh.ext.passive_ipv4;
    if (fresh.serverhome != server_.settings.serverhome)
        server_.log_message(
            "Server home directory change will take effect next time you start the server");
    apply_service_settings(*this, form);
}

void ServerApp::watch_hangups(asio::signal_set& hangups) {
    hangups.async_wait([this, &hangups](const asio::error_code& ec, int) {
        if (ec)
            return;
        reload_settings();
        watch_hangups(hangups);
    });
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
    if (ssh_->running())
        ssh_->stop();
    // Sessions end without a goodbye; their commands see the closed sockets and stop.
    server_.stopping = true;
    for (const SlotPtr& slot : server_.conns.take_all()) {
        slot->stop = 1;
        client::close_outgoing(server_, slot);
        slot->close_control();
    }
    // SSH threads may wait inside the protocol library: their connections are shut too.
    ssh_->end_sessions();
    // Every worker holds the server: it must not outlive it. Their waits (connects, look-ups,
    // sends) end on the stop flag within a moment, so the second wait is only a safety net.
    if (!server_.workers.wait_idle(std::chrono::seconds(10))) {
        server_.log.logf("Waiting for %i command threads to end", server_.workers.running());
        server_.workers.wait_idle(std::chrono::hours(24));
    }
}

void ServerApp::save_tables() {
    // users, groups, mounts, fpl.txt, each one atomically; one that cannot be written is
    // logged and keeps its old version.
    saver_->save_all();
}

void ServerApp::shutdown() {
    if (shut_down_)
        return;
    shut_down_ = true;
    // No administration request and no background write beside the shutdown's own writes.
    admin_socket_->stop();
    saver_->stop();
    stop_services();
    save_tables();
    // Handlers still queued refer to slots and listeners: drop them before the tree goes.
    server_.io().restart();
    server_.io().poll();
}

} // namespace orv
