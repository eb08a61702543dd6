#include "support/test_server.hpp"

#include "accounts/password.hpp"
#include "platform/net.hpp"

#include <arpa/inet.h>
#include <asio.hpp>
#include <future>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orv::test {

int free_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    socklen_t len = sizeof sa;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
    ::close(fd);
    return ntohs(sa.sin_port);
}

TestServer::TestServer(TestServerConfig config, const std::function<void(TempDir&)>& prepare) {
    ftp_port_ = free_port();
    telnet_port_ = free_port();
    std::filesystem::create_directories(dir_.path() / "home");
    dir_.write("settings.ini", "[Server_Settings]\nserverhome=" + (dir_.path() / "home").string() +
                                   "\nmaxusers=" + std::to_string(config.maxusers) +
                                   "\n[Services]\ntelnet=" + (config.telnet ? "1" : "0") +
                                   "\nftp=" + (config.ftp ? "1" : "0") +
                                   "\ntelnet_port=" + std::to_string(telnet_port_) +
                                   "\nftp_port=" + std::to_string(ftp_port_) + "\n");
    std::string users;
    for (const TestAccount& a : config.accounts)
        users += a.name + ":" + std::to_string(a.uid) + ":" +
                 encode_password(a.name, a.password).value_or("") + ":" +
                 std::to_string(a.max_logins) + ":" + std::to_string(a.rights) + ":" + a.home +
                 "\n";
    dir_.write("users", users);
    if (!config.groups.empty())
        dir_.write("groups", config.groups);
    if (!config.fpl.empty())
        dir_.write("fpl.txt", config.fpl);
    if (!config.motd.empty())
        dir_.write("motd.txt", config.motd);
    if (prepare)
        prepare(dir_);
    app_ = std::make_unique<ServerApp>(dir_.path(), [this](std::string_view line) {
        std::lock_guard lock(log_mutex_);
        log_.emplace_back(line);
        log_cv_.notify_all();
    });
    app_->start();
    loop_ = std::thread([this] { app_->run(); });
}

TestServer::~TestServer() {
    stop();
}

void TestServer::stop() {
    if (stopped_)
        return;
    stopped_ = true;
    app_->request_stop();
    if (loop_.joinable())
        loop_.join();
    app_->shutdown();
}

std::vector<std::string> TestServer::log_lines() const {
    std::lock_guard lock(log_mutex_);
    return log_;
}

bool TestServer::wait_for_log(const std::string& line, std::chrono::milliseconds limit) const {
    std::unique_lock lock(log_mutex_);
    return log_cv_.wait_for(
        lock, limit, [&] { return std::find(log_.begin(), log_.end(), line) != log_.end(); });
}

void TestServer::on_event_thread(const std::function<void()>& fn) {
    std::promise<void> done;
    server().post([&] {
        fn();
        done.set_value();
    });
    done.get_future().wait();
}

TestClient::~TestClient() {
    close();
}

bool TestClient::connect(int port) {
    close();
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    uint32_t addr = htonl(INADDR_LOOPBACK);
    return connect_ipv4(fd_, addr, port, 5000) == 0;
}

bool TestClient::send(std::string_view bytes) {
    return send_all(fd_, bytes.data(), bytes.size(), nullptr, 5000);
}

static bool read_some(int fd, std::string& into, int timeout_ms, bool& closed) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, timeout_ms) <= 0)
        return false;
    char buf[65536];
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) {
        closed = true;
        return false;
    }
    into.append(buf, static_cast<size_t>(n));
    return true;
}

std::string TestClient::read_until(std::string_view text, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    bool closed = false;
    while (pending_.find(text) == std::string::npos && !closed) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        read_some(fd_, pending_, static_cast<int>(left.count()), closed);
    }
    size_t at = pending_.find(text);
    std::string out;
    if (at == std::string::npos) {
        out.swap(pending_);
    } else {
        out = pending_.substr(0, at + text.size());
        pending_.erase(0, at + text.size());
    }
    return out;
}

std::string TestClient::read_exact(size_t n, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    bool closed = false;
    while (pending_.size() < n && !closed) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        read_some(fd_, pending_, static_cast<int>(left.count()), closed);
    }
    std::string out = pending_.substr(0, std::min(n, pending_.size()));
    pending_.erase(0, out.size());
    return out;
}

std::string TestClient::read_quiet(std::chrono::milliseconds quiet) {
    bool closed = false;
    while (!closed && read_some(fd_, pending_, static_cast<int>(quiet.count()), closed)) {
    }
    std::string out;
    out.swap(pending_);
    return out;
}

bool TestClient::wait_closed(std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    bool closed = false;
    while (!closed) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        std::string sink;
        read_some(fd_, sink, static_cast<int>(left.count()), closed);
        pending_ += sink;
    }
    return true;
}

void TestClient::close() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    pending_.clear();
}

} // namespace orv::test
