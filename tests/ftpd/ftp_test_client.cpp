#include "ftp_test_client.hpp"

#include "platform/net.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orv::test {

DataListener::DataListener(const char* address, int port) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    ::inet_pton(AF_INET, address, &sa.sin_addr);
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0)
        return;
    ::listen(listen_fd_, 4);
    socklen_t len = sizeof sa;
    ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&sa), &len);
    addr_ = sa.sin_addr.s_addr;
    port_ = ntohs(sa.sin_port);
}

DataListener::~DataListener() {
    close_fd(conn_);
    close_fd(listen_fd_);
}

std::string DataListener::port_arg() const {
    const auto* b = reinterpret_cast<const unsigned char*>(&addr_);
    return std::to_string(b[0]) + "," + std::to_string(b[1]) + "," + std::to_string(b[2]) + "," +
           std::to_string(b[3]) + "," + std::to_string(port_ / 256) + "," +
           std::to_string(port_ % 256);
}

bool DataListener::accept(std::chrono::milliseconds limit) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(limit.count())) <= 0)
        return false;
    conn_ = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    uint32_t addr = 0;
    if (conn_ >= 0)
        peer_ipv4(conn_, addr, server_port_);
    return conn_ >= 0;
}

std::optional<std::string> DataListener::read(size_t limit, std::chrono::milliseconds wait) {
    std::string out;
    auto deadline = std::chrono::steady_clock::now() + wait;
    char buf[65536];
    while (limit == 0 || out.size() < limit) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        pollfd p{conn_, POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0)
            return std::nullopt;
        size_t want = limit ? std::min(sizeof buf, limit - out.size()) : sizeof buf;
        ssize_t n = ::recv(conn_, buf, want, 0);
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

bool DataListener::send_and_close(std::string_view bytes) {
    bool ok = send_all(conn_, bytes.data(), bytes.size(), nullptr, 10000);
    close_fd(conn_);
    conn_ = -1;
    return ok;
}

bool DataListener::send_and_reset(std::string_view bytes) {
    bool ok = send_all(conn_, bytes.data(), bytes.size(), nullptr, 10000);
    linger l{1, 0};
    ::setsockopt(conn_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    close_fd(conn_);
    conn_ = -1;
    return ok;
}

int last_ftp_socket(const TestServer& server) {
    int socket = -1;
    for (const std::string& l : server.log_lines())
        if (l.rfind("FTP Connect from 127.0.0.1 port ", 0) == 0)
            socket = std::stoi(l.substr(32));
    return socket;
}

std::string FtpClient::open(int port) {
    connect(port);
    return line();
}

std::string FtpClient::cmd(std::string_view command) {
    send(std::string(command) + "\r\n");
    return line();
}

std::string FtpClient::login(std::string_view name, std::string_view password) {
    std::string out = cmd("USER " + std::string(name));
    send("PASS " + std::string(password) + "\r\n");
    for (int i = 0; i < 100; ++i) {
        std::string l = line();
        out += l;
        if (l.empty() || l.rfind("230 ", 0) == 0 || l.rfind("550", 0) == 0)
            break;
    }
    return out;
}

FtpClient::Transfer FtpClient::transfer(std::string_view command, const std::string* upload_bytes) {
    Transfer t;
    DataListener data;
    std::string port = cmd("PORT " + data.port_arg());
    t.preliminary = port == "200 Port Command OK.\r\n" ? cmd(command) : port;
    if (t.preliminary.rfind("150 ", 0) != 0)
        return t;
    if (data.accept(wait)) {
        t.server_port = data.server_port();
        if (upload_bytes)
            data.send_and_close(*upload_bytes);
        else
            t.data = data.read(0, wait * 4).value_or("<time-out>");
    }
    t.final_reply = line();
    return t;
}

} // namespace orv::test
