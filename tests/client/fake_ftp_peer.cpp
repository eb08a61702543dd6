#include "client/fake_ftp_peer.hpp"

#include "support/test_server.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace orv::test {
namespace {

bool readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) > 0;
}

void send_everything(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (n <= 0)
            return;
        text.remove_prefix(static_cast<size_t>(n));
    }
}

} // namespace

FakeFtpPeer::FakeFtpPeer(std::vector<std::string> greeting, Script script)
    : script_(std::move(script)) {
    listen_fd_ = test::loopback_listener(4, port_);
    thread_ =
        std::thread([this, greeting = std::move(greeting)]() mutable { run(std::move(greeting)); });
}

FakeFtpPeer::~FakeFtpPeer() {
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (control_fd_ >= 0)
        ::close(control_fd_);
    ::close(listen_fd_);
}

void FakeFtpPeer::reply(std::string_view text) {
    send_everything(control_fd_, text);
}

bool FakeFtpPeer::send_data(std::string_view data, std::chrono::milliseconds pause_per_block) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(data_port_));
    ::inet_pton(AF_INET, data_host_.c_str(), &sa.sin_addr);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        ::close(fd);
        return false;
    }
    for (; !data.empty(); data.remove_prefix(std::min<size_t>(data.size(), 16384))) {
        send_everything(fd, data.substr(0, 16384));
        if (pause_per_block.count() > 0)
            std::this_thread::sleep_for(pause_per_block);
    }
    ::close(fd);
    return true;
}

std::string FakeFtpPeer::receive_data() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(data_port_));
    ::inet_pton(AF_INET, data_host_.c_str(), &sa.sin_addr);
    std::string out;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
        timeval limit{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char buf[16384];
        for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, 0)) > 0;)
            out.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return out;
}

std::vector<std::string> FakeFtpPeer::commands() const {
    std::lock_guard lock(mutex_);
    return commands_;
}

bool FakeFtpPeer::wait_closed(std::chrono::milliseconds limit) const {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [this] { return closed_; });
}

bool FakeFtpPeer::builtin(const std::string& verb, const std::string& arg) {
    if (verb == "USER") {
        reply("331 Password required.\r\n");
    } else if (verb == "PASS") {
        reply("230 Logged in.\r\n");
    } else if (verb == "TYPE") {
        reply("200 Type set to " + arg + ".\r\n");
    } else if (verb == "PORT") {
        unsigned h1, h2, h3, h4, p1, p2;
        if (std::sscanf(arg.c_str(), "%u,%u,%u,%u,%u,%u", &h1, &h2, &h3, &h4, &p1, &p2) != 6) {
            reply("501 Bad PORT.\r\n");
            return true;
        }
        data_host_ = std::to_string(h1) + "." + std::to_string(h2) + "." + std::to_string(h3) +
                     "." + std::to_string(h4);
        data_port_ = static_cast<int>(p1 * 256 + p2);
        reply("200 PORT ok.\r\n");
    } else if (verb == "QUIT") {
        reply("221 Bye.\r\n");
        return !ignore_quit_;
    } else {
        reply("502 Not here.\r\n");
    }
    return false;
}

void FakeFtpPeer::run(std::vector<std::string> greeting) {
    while (!stop_ && !readable(listen_fd_, 50)) {
    }
    if (stop_)
        return;
    control_fd_ = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    for (size_t i = 0; i < greeting.size(); ++i) {
        if (i > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
        reply(greeting[i]);
    }
    std::string pending;
    bool quit = false;
    while (!stop_ && !quit) {
        if (!readable(control_fd_, 50))
            continue;
        char buf[4096];
        ssize_t n = ::recv(control_fd_, buf, sizeof buf, 0);
        if (n <= 0)
            break;
        pending.append(buf, static_cast<size_t>(n));
        size_t end;
        while (!quit && (end = pending.find("\r\n")) != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 2);
            {
                std::lock_guard lock(mutex_);
                commands_.push_back(line);
            }
            size_t blank = line.find(' ');
            std::string verb = line.substr(0, blank);
            std::string arg = blank == std::string::npos ? "" : line.substr(blank + 1);
            if (!(script_ && script_(*this, verb, arg)))
                quit = builtin(verb, arg);
        }
    }
    if (quit) {
        ::shutdown(control_fd_, SHUT_RDWR);
    } else {
        // Wait for the client's close (or the end of the test).
        char buf[256];
        while (!stop_) {
            if (!readable(control_fd_, 50))
                continue;
            if (::recv(control_fd_, buf, sizeof buf, 0) <= 0)
                break;
        }
    }
    std::lock_guard lock(mutex_);
    closed_ = true;
    cv_.notify_all();
}

} // namespace orv::test
