#include "support/test_server.hpp"

#include "accounts/password.hpp"
#include "platform/net.hpp"

#include <arpa/inet.h>
#include <future>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orv::test {

int free_port() {
    // Below the kernel's ephemeral range, so that no outgoing connection of a test running
    // beside this one can take the port between this check and the server's bind; each
    // process starts at its own place.
    static int next = 20000 + static_cast<int>(::getpid() % 4000) * 3;
    for (int tries = 0; tries < 12000; ++tries) {
        int port = next++;
        if (next > 32000)
            next = 20000;
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        bool free = ::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
        ::close(fd);
        if (free)
            return port;
    }
    return 0;
}

int loopback_listener(int backlog, int& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0 ||
        ::listen(fd, backlog) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    port = ntohs(sa.sin_port);
    return fd;
}

bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    auto until = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
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
    for (auto [file, text] : {std::pair{"groups", &config.groups},
                              {"fpl.txt", &config.fpl},
                              {"motd.txt", &config.motd}})
        if (!text->empty())
            dir_.write(file, *text);
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

std::vector<std::string> TestServer::log_since(size_t mark) const {
    std::lock_guard lock(log_mutex_);
    return {log_.begin() + static_cast<long>(std::min(mark, log_.size())), log_.end()};
}

bool TestServer::logged(const std::string& line) const {
    std::lock_guard lock(log_mutex_);
    return std::find(log_.begin(), log_.end(), line) != log_.end();
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

bool TestClient::connect(int port) {
    close();
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return connect_ipv4(fd_, htonl(INADDR_LOOPBACK), port, 5000) == 0;
}

bool TestClient::send(std::string_view bytes) {
    return send_all(fd_, bytes.data(), bytes.size(), nullptr, 5000);
}

void TestClient::fill(const std::function<bool()>& enough, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!closed_ && !enough()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        pollfd p{fd_, POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0)
            return;
        char buf[65536];
        ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        if (n <= 0)
            closed_ = true;
        else
            pending_.append(buf, static_cast<size_t>(n));
    }
}

std::string TestClient::read_until(std::string_view text, std::chrono::milliseconds limit) {
    fill([&] { return pending_.find(text) != std::string::npos; }, limit);
    size_t at = pending_.find(text);
    size_t n = at == std::string::npos ? pending_.size() : at + text.size();
    std::string out = pending_.substr(0, n);
    pending_.erase(0, n);
    return out;
}

std::string TestClient::read_exact(size_t n, std::chrono::milliseconds limit) {
    fill([&] { return pending_.size() >= n; }, limit);
    std::string out = pending_.substr(0, std::min(n, pending_.size()));
    pending_.erase(0, out.size());
    return out;
}

std::string TestClient::read_quiet(std::chrono::milliseconds quiet) {
    for (size_t before = SIZE_MAX; before != pending_.size() && !closed_;) {
        before = pending_.size();
        fill([&] { return pending_.size() != before; }, quiet);
    }
    std::string out;
    out.swap(pending_);
    return out;
}

bool TestClient::wait_closed(std::chrono::milliseconds limit) {
    fill([] { return false; }, limit);
    return closed_;
}

void TestClient::close() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    closed_ = false;
    pending_.clear();
}

} // namespace orv::test
