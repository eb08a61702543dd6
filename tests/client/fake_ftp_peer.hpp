#pragma once
// A scripted remote FTP server on loopback for the client's protocol tests: it answers the
// login, TYPE, PORT and QUIT by itself and hands every other command to the test's script,
// which can send replies in any pieces and open the active-mode data connection.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace orv::test {

class FakeFtpPeer {
  public:
    // Returns true when it handled the command; false leaves it to the built-in answers.
    using Script =
        std::function<bool(FakeFtpPeer&, const std::string& verb, const std::string& arg)>;

    // `greeting` is sent in these pieces, 150 ms apart.
    FakeFtpPeer(std::vector<std::string> greeting, Script script);
    ~FakeFtpPeer();
    FakeFtpPeer(const FakeFtpPeer&) = delete;
    FakeFtpPeer& operator=(const FakeFtpPeer&) = delete;

    int port() const { return port_; }
    // Sends bytes on the control connection (script thread).
    void reply(std::string_view text);
    // Sends `data` on a new data connection to the last PORT's address and closes it, pausing
    // after every 16 KiB block (script thread).
    bool send_data(std::string_view data, std::chrono::milliseconds pause_per_block = {});

    // Connects a data connection to the last PORT's address and reads it to its end (script
    // thread; gives up after 5 s of silence).
    std::string receive_data();

    std::vector<std::string> commands() const;
    // True once the client closed the control connection.
    bool wait_closed(std::chrono::milliseconds limit) const;
    // QUIT is answered but the connection is kept open.
    void ignore_quit() { ignore_quit_ = true; }

  private:
    void run(std::vector<std::string> greeting);
    bool builtin(const std::string& verb, const std::string& arg);

    int listen_fd_ = -1;
    int control_fd_ = -1;
    int port_ = 0;
    std::string data_host_;
    int data_port_ = 0;
    Script script_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> ignore_quit_{false};
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::vector<std::string> commands_;
    bool closed_ = false;
    std::thread thread_;
};

} // namespace orv::test
