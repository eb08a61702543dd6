#pragma once
// The server context: one object owns the settings, the log, the accounts, the tree, the
// connection table, the workers and the event loop, and is passed by reference. Nothing of
// it is process-wide, so a test can run two servers in one process.
#include "core/conn_table.hpp"
#include "core/log.hpp"
#include "core/login_guard.hpp"
#include "core/settings.hpp"
#include "core/tree_mutex.hpp"
#include "core/workers.hpp"

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>

namespace asio {
class io_context;
}

namespace orv {

class Accounts;
class VfsTree;

class Server {
  public:
    explicit Server(std::filesystem::path start_dir);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The event loop; its thread is the "main thread" of the design.
    asio::io_context& io();
    // Runs `fn` on the event thread (the posted events that replace window messages).
    void post(std::function<void()> fn);
    // Runs the event loop on the calling thread until it is stopped; that thread is the
    // event thread meanwhile.
    void run_event_loop();
    // True on a thread that is running some server's event loop.
    static bool on_event_thread();

    const std::filesystem::path start_dir;
    std::filesystem::path table_path(const char* name) const { return start_dir / name; }

    Settings settings;
    Log log;
    void log_message(std::string_view text) { log.log_message(text); }

    ConnTable conns;
    WorkerRegistry workers;
    // Per-address limits, bans and pauses of the login services (off unless configured).
    LoginGuard guard{*this};

    // Guards the tree and the accounts: shared for look-ups and listings, exclusive for
    // changes. Never held across a network send, a host file copy or a sleep.
    mutable TreeMutex tree_mutex;
    std::shared_ptr<Accounts> accounts;
    std::shared_ptr<VfsTree> vfs;

    // Bytes of nodes, mounts, users and groups made (logged as "Memory allocated - %li").
    std::atomic<long> memory_allocated{0};

    // How long a connection may take to complete its login before it is closed, so that
    // sockets idling at the login cannot hold every place under maxusers. Tests shorten it.
    std::atomic<int> login_time_limit_ms{60000};

    // Set when the server stops: worker loops end early.
    std::atomic<bool> stopping{false};

    // The one 4096-byte receive buffer of the event thread.
    static constexpr size_t kReceiveSize = 4096;
    std::array<char, kReceiveSize> recv_buffer{};

    // "Orvane Server - %i Users", with " (Full)" when asked to test and the count has reached
    // maxusers. Event thread.
    void update_title(bool full_test = true);
    std::string title() const;
    void set_title_sink(std::function<void(const std::string&)> sink);

    // Entry points that the Telnet shell provides to code below it (the prompts here in core,
    // the outgoing clients). Set when the Telnet server is made; all run on the event thread
    // except where noted.
    struct ShellHooks {
        // Takes the next typed-ahead line of a slot (the pending-line event).
        std::function<void(const SlotPtr&)> pending_line;
        // The shell's `dir` listing and `pwd`, used as the outgoing FTP client's `ldir` and
        // `lpwd` (they end with the "ftp> " prompt when the slot's state is 11).
        std::function<void(const SlotPtr&, std::string arg)> local_dir; // starts a thread
        std::function<void(const SlotPtr&)> local_pwd;
    };
    ShellHooks shell;

  private:
    std::unique_ptr<asio::io_context> io_;
    mutable std::mutex title_mutex_;
    std::string title_ = "Orvane Server";
    std::function<void(const std::string&)> title_sink_;
};

} // namespace orv
