#pragma once
// A Telnet test client that knows the server's login dialogue and prompt.
#include "support/test_server.hpp"

#include <memory>
#include <string>

namespace orv::test {

class ShellClient {
  public:
    explicit ShellClient(int port) : client_(std::make_unique<TestClient>(port)) {}

    TestClient& raw() { return *client_; }

    // Reads the banner and logs in; returns everything after the password line up to and
    // including the first prompt (or what arrived).
    std::string login(const std::string& name, const std::string& password) {
        client_->read_until("login: ");
        client_->send(name + "\r\n");
        client_->read_until("Password: ");
        client_->send(password + "\r\n");
        return client_->read_until("# ");
    }
    // Sends a command line; returns what followed its echo up to the next prompt.
    std::string run(const std::string& line) {
        client_->send(line + "\r\n");
        std::string echoed = client_->read_until(line + "\r\n");
        (void)echoed;
        return client_->read_until("# ");
    }
    void send(const std::string& bytes) { client_->send(bytes); }
    std::string read_until(const std::string& text) { return client_->read_until(text); }

  private:
    std::unique_ptr<TestClient> client_;
};

} // namespace orv::test
