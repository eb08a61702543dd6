#pragma once
// Helpers for FTP protocol tests: a control connection that reads reply lines, and the
// client's side of an active-mode data connection.
#include "support/test_server.hpp"

#include <optional>
#include <string>

namespace orv::test {

// A listening socket on a loopback address for the server's data connection.
class DataListener {
  public:
    // On `port`, or on any free one when it is 0.
    explicit DataListener(const char* address = "127.0.0.1", int port = 0);
    ~DataListener();
    DataListener(const DataListener&) = delete;
    DataListener& operator=(const DataListener&) = delete;

    // False when the address and port could not be had.
    bool listening() const { return port_ != 0; }
    int port() const { return port_; }
    // "h1,h2,h3,h4,p1,p2" for PORT.
    std::string port_arg() const;
    // Accepts the server's connection; false when none came within the limit.
    bool accept(std::chrono::milliseconds limit = 5s);
    // After accept(): up to `limit` bytes, or everything until the server closes when 0
    // (nullopt on time-out).
    std::optional<std::string> read(size_t limit = 0, std::chrono::milliseconds wait = 20s);
    // After accept(): sends the bytes and closes the connection.
    bool send_and_close(std::string_view bytes);
    // After accept(): sends the bytes, then ends the connection with a reset (a client that
    // broke off).
    bool send_and_reset(std::string_view bytes);
    // The server's port of the accepted connection.
    int server_port() const { return server_port_; }

  private:
    int listen_fd_ = -1;
    int conn_ = -1;
    uint32_t addr_ = 0;
    int port_ = 0;
    int server_port_ = 0;
};

// The control socket number the server logs for a client: the newest "FTP Connect" line.
int last_ftp_socket(const TestServer& server);

class FtpClient : public TestClient {
  public:
    FtpClient() = default;
    explicit FtpClient(int port) { connect(port); }

    // How long a reply or a data connection may take.
    std::chrono::milliseconds wait = 5s;

    // Connects and reads the 220 greeting.
    std::string open(int port);
    // One reply line with its "\r\n".
    std::string line() { return read_until("\r\n", wait); }
    // Sends the command and returns the next reply line.
    std::string cmd(std::string_view command);
    // USER + PASS; returns everything up to and including the final 230 (or 550) line.
    std::string login(std::string_view name, std::string_view password);
    // A whole command with a data connection: PORT, the command, the data, the final reply.
    struct Transfer {
        std::string preliminary; // the 150 line (or the refusal)
        std::string data;
        std::string final_reply;
        int server_port = 0; // the local port the server connected from
    };
    Transfer download(std::string_view command) { return transfer(command, nullptr); }
    Transfer upload(std::string_view command, const std::string& bytes) {
        return transfer(command, &bytes);
    }

  private:
    Transfer transfer(std::string_view command, const std::string* upload_bytes);
};

} // namespace orv::test
