#include "client/host_lookup.hpp"

#include "platform/net.hpp"
#include "platform/text.hpp"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace orv::client {

bool dotted_address(const std::string& host, uint32_t& addr_be) {
    return parse_ipv4(host, addr_be);
}

bool resolve_ipv4(const std::string& host, uint32_t& addr_be) {
    if (host.empty())
        return false;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found)
        return false;
    bool ok = false;
    for (addrinfo* a = found; a && !ok; a = a->ai_next) {
        if (a->ai_family == AF_INET && a->ai_addr) {
            addr_be = reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr.s_addr;
            ok = true;
        }
    }
    ::freeaddrinfo(found);
    return ok;
}

int port_number(std::string_view word, int default_port) {
    long port = to_long(word);
    if (port == 0)
        return default_port;
    return port > 0 && port <= 65535 ? static_cast<int>(port) : -1;
}

std::string open_argument(std::string_view arg) {
    std::string_view rest = trim_blanks(arg);
    size_t blank = rest.find(' ');
    std::string out(rest.substr(0, std::min<size_t>(blank, 80)));
    if (blank != std::string_view::npos) {
        rest = trim_blanks(rest.substr(blank));
        std::string_view port = rest.substr(0, std::min<size_t>(rest.find(' '), 64));
        if (!port.empty()) {
            out += ' ';
            out += port;
        }
    }
    return out;
}

} // namespace orv::client
