#pragma once
// The admin socket: `orvane.sock` in the start directory, a Unix-domain socket that only the
// server's own user may use (mode 0600, and the peer's user is checked). Each connection
// carries one request of the admin command line and gets its outcome back. Requests are read
// on a thread of their own and run on the event thread, as the desktop's steps are; a request
// that cannot be read or makes no sense gets an error, never more.
#include "app/admin_cli.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace orv {

class ServerApp;

inline constexpr const char* kAdminSocketName = "orvane.sock";
inline constexpr size_t kMaxAdminMessage = 64 * 1024;

// The bytes of one request or reply after the length prefix.
std::string encode_admin_request(const AdminRequest& request);
std::optional<AdminRequest> decode_admin_request(std::string_view payload);
std::string encode_admin_outcome(const AdminOutcome& outcome);
std::optional<AdminOutcome> decode_admin_outcome(std::string_view payload);

class AdminSocket {
  public:
    explicit AdminSocket(ServerApp& app);
    ~AdminSocket();
    AdminSocket(const AdminSocket&) = delete;
    AdminSocket& operator=(const AdminSocket&) = delete;

    // Creates the socket (replacing one a killed server left behind) and starts serving. A
    // failure is logged; the server runs on without it.
    void start();
    // Stops serving, waits for a request in progress and removes the socket.
    void stop();

  private:
    void serve();
    void serve_one(int fd);
    ServerApp& app_;
    int listen_fd_ = -1;
    int wake_fd_ = -1;
    std::filesystem::path path_;
    std::thread thread_;
};

// The command line's side: sends the request to the server running in `start_dir`. Nothing
// when no server answers there; `connected` tells whether the connection was made at all.
std::optional<AdminOutcome> send_admin_request(const std::filesystem::path& start_dir,
                                               const AdminRequest& request,
                                               bool* connected = nullptr);

// Time a connection may take to send its request.
inline constexpr int kAdminReadTimeoutMs = 5000;

} // namespace orv
