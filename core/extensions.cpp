#include "core/extensions.hpp"

#include "platform/ini.hpp"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <netdb.h>

namespace orv {

namespace {

bool parse_int(std::string_view text, int& out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

// 0/1 keys: anything else is reported and leaves the default (off).
bool read_switch(const IniFile& ini, const char* key, std::vector<std::string>& problems) {
    std::string text = ini.get_string("Extensions", key, "");
    if (text.empty() || text == "0")
        return false;
    if (text == "1")
        return true;
    problems.push_back(std::string("Extensions: ") + key + " has an unusable value");
    return false;
}

uint32_t resolve_ipv4(const std::string& host) {
    in_addr addr{};
    if (::inet_pton(AF_INET, host.c_str(), &addr) == 1)
        return addr.s_addr;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found)
        return 0;
    uint32_t out = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    ::freeaddrinfo(found);
    return out;
}

} // namespace

bool parse_port_range(const std::string& text, int& low, int& high) {
    size_t dash = text.find('-');
    if (dash == std::string::npos)
        return false;
    int a = 0, b = 0;
    if (!parse_int(std::string_view(text).substr(0, dash), a) ||
        !parse_int(std::string_view(text).substr(dash + 1), b))
        return false;
    if (a < 1 || b > 65535 || a > b)
        return false;
    low = a;
    high = b;
    return true;
}

Extensions read_extensions(const IniFile& ini) {
    Extensions e;
    e.listen_address = ini.get_string("Extensions", "listen_address", "");
    if (!e.listen_address.empty()) {
        in6_addr probe{};
        if (::inet_pton(AF_INET, e.listen_address.c_str(), &probe) != 1 &&
            ::inet_pton(AF_INET6, e.listen_address.c_str(), &probe) != 1) {
            e.problems.push_back("Extensions: listen_address has an unusable value");
            e.listen_address.clear();
        }
    }
    e.ftp_modern = read_switch(ini, "ftp_modern", e.problems);
    e.live_tree = read_switch(ini, "live_tree", e.problems);
    std::string range = ini.get_string("Extensions", "passive_ports", "");
    if (!range.empty() && !parse_port_range(range, e.passive_low, e.passive_high))
        e.problems.push_back("Extensions: passive_ports has an unusable value");
    e.passive_address = ini.get_string("Extensions", "passive_address", "");
    if (!e.passive_address.empty()) {
        e.passive_ipv4 = resolve_ipv4(e.passive_address);
        if (e.passive_ipv4 == 0)
            e.problems.push_back("Extensions: passive_address cannot be resolved");
    }
    return e;
}

} // namespace orv
