#include "ftpd/data_connection.hpp"

#include "core/server.hpp"
#include "ftpd/passive.hpp"
#include "ftpd/replies.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orv {

PortTarget decode_port_arg(std::string_view arg) {
    PortTarget out;
    int commas = 0;
    unsigned long long gathered = 0;
    long high = 0;
    for (char c : arg) {
        if (commas < 4) {
            if (c == ',') {
                if (++commas < 4)
                    out.address += '.';
            } else {
                out.address += c;
            }
        } else if (c == ',') {
            if (++commas == 5) {
                high = static_cast<long>(gathered % 256) * 256;
                gathered = 0;
            }
        } else if (c >= '0' && c <= '9') {
            // The argument is shorter than 24 characters, so this cannot overflow.
            gathered = gathered * 10 + static_cast<unsigned>(c - '0');
        }
    }
    if (commas >= 4)
        out.port = high + static_cast<long>(std::min<unsigned long long>(gathered, 1u << 30));
    return out;
}

std::string port_reply(std::string_view arg, std::string& stored) {
    if (arg.size() >= 24)
        return ftp_text::kPortSyntax;
    stored = std::string(arg);
    return ftp_text::kPortOk;
}

std::string type_reply(std::string_view arg, char& type) {
    std::string text(arg);
    if (text == "I" || text == "a")
        type = 'I'; // a lower-case "a" has always meant binary here
    else if (text == "A")
        type = 'A';
    else
        return strf(ftp_text::kTypeBadFmt, text.c_str());
    return strf(ftp_text::kTypeSetFmt, text.c_str());
}

std::string opening_reply(char type, long long size) {
    std::string reply = type != 'A' ? ftp_text::kOpeningBinary : ftp_text::kOpeningAscii;
    if (size >= 0)
        reply += strf(" (%lld bytes)\r\n", size);
    else
        reply += "\r\n";
    return reply;
}

namespace {

constexpr int kDataPort = 20;
constexpr uint16_t kLowestDataPort = 1024; // the ports below belong to the host's services
constexpr int kConnectTimeoutMs = 8000;    // inside the shutdown wait for running commands

// A socket bound to the data port, or to any port when the process may not use port 20.
// Returns -1 after logging the failure.
int bound_data_socket(Server& server, bool allow_port_20) {
    int fd = tcp_socket();
    if (fd < 0) {
        server.log_message("Data Connection socket failed!");
        return -1;
    }
    if (!set_reuseaddr(fd)) {
        server.log_message("Data Connection setsockopt failed!");
        close_fd(fd);
        return -1;
    }
    int rc = allow_port_20 ? bind_any(fd, kDataPort) : EACCES;
    if (rc == EACCES || rc == EPERM)
        rc = bind_any(fd, 0);
    if (rc != 0) {
        server.log_message("Data Connection bind failed!");
        close_fd(fd);
        return -1;
    }
    return fd;
}

bool peer_matches(const ConnSlot& slot, const std::string& address, uint32_t& addr_be) {
    if (!slot.peer_known || !parse_ipv4_classic(address, addr_be))
        return false;
    return std::memcmp(&addr_be, slot.peer.data(), sizeof addr_be) == 0;
}

} // namespace

int open_data_connection(Server& server, ConnSlot& slot, const std::string& port_arg, char type,
                         long long size) {
    if (slot.ftp_extras) // passive mode, EPRT and the 425 reply
        return open_modern_data_connection(server, slot, port_arg, type, size);
    int fd = bound_data_socket(server, true);
    if (fd < 0)
        return -1;
    // The 150 line goes out before the connect, so the client sees it even when that fails.
    slot.send_text(opening_reply(type, size));

    PortTarget target = decode_port_arg(port_arg);
    uint32_t addr_be = 0;
    // Only the control connection's own peer is ever connected to, and never on a port of its
    // privileged services (no bounces to third hosts or to the client's own servers).
    auto port = static_cast<uint16_t>(target.port);
    int rc = peer_matches(slot, target.address, addr_be) && port >= kLowestDataPort
                 ? connect_ipv4(fd, addr_be, port, kConnectTimeoutMs)
                 : ECONNREFUSED;
    if (rc == EADDRNOTAVAIL || rc == EADDRINUSE) {
        // Port 20 to this client port is still in TIME_WAIT from an earlier transfer: take
        // another local port rather than fail the command.
        close_fd(fd);
        fd = bound_data_socket(server, false);
        if (fd < 0)
            return -1;
        rc = connect_ipv4(fd, addr_be, port, kConnectTimeoutMs);
    }
    if (rc != 0) {
        server.log_message("Data Connection failed!");
        close_fd(fd);
        return -1;
    }
    return fd;
}

} // namespace orv
