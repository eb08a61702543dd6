#pragma once
// An in-process server for protocol tests: a temporary start directory with settings.ini on
// free loopback ports, a `home/` server home, accounts, and the event loop on a thread of its
// own. Every log line is kept for inspection. Also a blocking loopback client with time-outs.
#include "app/server_app.hpp"
#include "support/temp_dir.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orv::test {

using namespace std::chrono_literals;

struct TestAccount {
    std::string name;
    std::string password;
    int uid = 101;
    int max_logins = 5;
    int rights = 15;
    std::string home = "\\";
};

struct TestServerConfig {
    int maxusers = 10;
    bool ftp = true;
    bool telnet = true;
    std::vector<TestAccount> accounts{{"demo", "demo-pass", 101, 5, 15, "\\"},
                                      {"admin", "admin-pass", 10, 5, 15, "\\"}};
    std::string groups; // contents of `groups`
    std::string fpl;    // contents of fpl.txt (empty: none)
    std::string motd;   // contents of motd.txt (empty: none)
};

// A TCP port that is free on every address, from 20000 to 32000 (bound and released).
int free_port();

// A socket listening on 127.0.0.1 at a port the kernel picks (written to `port`), or -1.
int loopback_listener(int backlog, int& port);

// Polls `done` until it holds or the limit passes.
bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s);

class TestServer {
  public:
    // `prepare` may add files to dir() (for example under "home/") before the server starts.
    explicit TestServer(TestServerConfig config = {},
                        const std::function<void(TempDir&)>& prepare = nullptr);
    ~TestServer();

    ServerApp& app() { return *app_; }
    Server& server() { return app_->server(); }
    TempDir& dir() { return dir_; }
    std::filesystem::path home() const { return dir_.path() / "home"; }
    int ftp_port() const { return ftp_port_; }
    int telnet_port() const { return telnet_port_; }

    std::vector<std::string> log_lines() const;
    // The lines logged from `mark` (an earlier log_lines().size()) on.
    std::vector<std::string> log_since(size_t mark) const;
    bool logged(const std::string& line) const;
    // Waits until a line equal to `line` has been logged (counting from the start).
    bool wait_for_log(const std::string& line, std::chrono::milliseconds limit = 5s) const;
    // Runs `fn` on the event thread and waits for it.
    void on_event_thread(const std::function<void()>& fn);
    // Stops the loop and runs the orderly shutdown (the destructor does it too).
    void stop();

  private:
    TempDir dir_;
    int ftp_port_ = 0;
    int telnet_port_ = 0;
    mutable std::mutex log_mutex_;
    mutable std::condition_variable log_cv_;
    std::vector<std::string> log_;
    std::unique_ptr<ServerApp> app_;
    std::thread loop_;
    bool stopped_ = false;
};

// A blocking loopback client with time-outs, for byte-exact protocol tests.
class TestClient {
  public:
    TestClient() = default;
    explicit TestClient(int port) { connect(port); }
    ~TestClient() { close(); }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool connect(int port);
    bool send(std::string_view bytes);
    // Reads until `text` has arrived; returns everything read (including it) or, on time-out,
    // what had arrived (so a failed expectation shows it).
    std::string read_until(std::string_view text, std::chrono::milliseconds limit = 5s);
    // Reads exactly n bytes (or what arrived before the time-out).
    std::string read_exact(size_t n, std::chrono::milliseconds limit = 5s);
    // Reads whatever arrives until the connection is quiet for `quiet`.
    std::string read_quiet(std::chrono::milliseconds quiet = 300ms);
    // True when the server closed the connection within the limit.
    bool wait_closed(std::chrono::milliseconds limit = 5s);
    void close();
    int fd() const { return fd_; }

  private:
    // Reads into pending_ until `enough` holds, the peer closes or the limit passes.
    void fill(const std::function<bool()>& enough, std::chrono::milliseconds limit);
    int fd_ = -1;
    bool closed_ = false;
    std::string pending_;
};

} // namespace orv::test
