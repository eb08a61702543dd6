#pragma once
// The life of the server: load the tables, start the services, run the event loop, and the
// orderly shutdown. Used by the headless main, the desktop window and the tests.
#include "core/server.hpp"
#include "ftpd/ftp_server.hpp"
#include "sshd/ssh_server.hpp"
#include "telnetd/telnet_server.hpp"

#include <asio/signal_set.hpp>
#include <filesystem>
#include <memory>

namespace orv {

class AdminSocket;
class TableSaver;

// Reads the settings and the tables and builds the tree; logs "Memory allocated - %li".
void load_server_tables(Server& server);

class ServerApp {
  public:
    // `sink` takes every log line (standard output when headless).
    ServerApp(std::filesystem::path start_dir, Log::Sink sink);
    ~ServerApp();

    Server& server() { return server_; }
    FtpServer& ftp() { return *ftp_; }
    TelnetServer& telnet() { return *telnet_; }

    // Reads the settings and the tables and builds the tree; logs "Memory allocated - %li".
    void load();
    // "Starting services...", then Telnet and FTP when enabled (and SSH when turned on).
    void start_services();
    // The title with the user count and "Ready...".
    void ready();
    // Everything above in order, with the table saver and the admin socket started before
    // "Ready...".
    void start();

    // Event thread: re-reads settings.ini and applies it as a Save of the Server Settings
    // dialog does: Max Users at once, services started, stopped or moved to a new port; a new
    // home directory only at the next start. Sessions stay.
    void reload_settings();
    // Makes `hangups` (SIGHUP) call reload_settings() on every hang-up until cancelled.
    void watch_hangups(asio::signal_set& hangups);

    // Runs the event loop on the calling thread until request_stop().
    void run();
    // Thread-safe: makes run() return.
    void request_stop();

    // Stops the listeners, frees every session, waits briefly for running commands, then writes
    // users, groups, mounts and fpl.txt in that order. Call after run() has returned (or
    // without it ever running).
    void shutdown();

  private:
    void stop_services();
    void save_tables();
    Server server_;
    std::unique_ptr<TelnetServer> telnet_;
    std::unique_ptr<FtpServer> ftp_;
    std::unique_ptr<SshServer> ssh_;
    std::unique_ptr<TableSaver> saver_;
    std::unique_ptr<AdminSocket> admin_socket_;
    bool shut_down_ = false;
};

} // namespace orv
