#include "client/host_lookup.hpp"

#include "platform/net.hpp"
#include "platform/text.hpp"

namespace orv::client {

bool dotted_address(const std::string& host, uint32_t& addr_be) {
    return parse_ipv4(host, addr_be);
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
