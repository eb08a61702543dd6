#include "core/extensions.hpp"

#include "platform/ini.hpp"
#include "platform/name_lookup.hpp"
#include "platform/text.hpp"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>

namespace orv {

namespace {

bool parse_int(std::string_view text, int& out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

constexpr const char* kSection = "Extensions";

void report(std::vector<std::string>& problems, const char* key, const std::string& text,
            const char* wanted) {
    problems.push_back(
        strf("Settings: [Extensions] %s=%s %s, ignored", key, log_safe(text).c_str(), wanted));
}

} // namespace

void read_extension_number(const IniFile& ini, const char* key, int most, int& value,
                           std::vector<std::string>& problems) {
    std::string text = ini.get_string(kSection, key, "");
    if (text.empty())
        return;
    int parsed = 0;
    if (!parse_int(text, parsed) || parsed < 0 || parsed > most) {
        report(problems, key, text, strf("is not a number from 0 to %i", most).c_str());
        return;
    }
    value = parsed;
}

void read_extension_switch(const IniFile& ini, const char* key, bool& value,
                           std::vector<std::string>& problems) {
    int number = value ? 1 : 0;
    read_extension_number(ini, key, 1, number, problems);
    value = number == 1;
}

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
    e.listen_address = ini.get_string(kSection, "listen_address", "");
    if (!e.listen_address.empty()) {
        in6_addr probe{};
        if (::inet_pton(AF_INET, e.listen_address.c_str(), &probe) != 1 &&
            ::inet_pton(AF_INET6, e.listen_address.c_str(), &probe) != 1) {
            report(e.problems, "listen_address", e.listen_address, "is no IPv4 or IPv6 address");
            e.listen_address.clear();
        }
    }
    read_extension_switch(ini, "ftp_modern", e.ftp_modern, e.problems);
    read_extension_switch(ini, "live_tree", e.live_tree, e.problems);
    read_extension_switch(ini, "ftps", e.ftps, e.problems);
    read_extension_number(ini, "ftps_implicit_port", 65535, e.ftps_implicit_port, e.problems);
    e.tls_certificate = ini.get_string(kSection, "tls_certificate", "");
    e.tls_private_key = ini.get_string(kSection, "tls_private_key", "");
    read_extension_switch(ini, "require_tls", e.require_tls, e.problems);
    read_extension_switch(ini, "tls_session_reuse", e.tls_session_reuse, e.problems);
    if (e.ftps)
        e.ftp_modern = true;
    std::string range = ini.get_string(kSection, "passive_ports", "");
    if (!range.empty() && !parse_port_range(range, e.passive_low, e.passive_high))
        report(e.problems, "passive_ports", range, "is not a port range LOW-HIGH");
    e.passive_address = ini.get_string(kSection, "passive_address", "");
    if (!e.passive_address.empty()) {
        uint32_t addr = 0;
        e.passive_ipv4 = resolve_ipv4(e.passive_address, addr, 5000) ? addr : 0;
        if (e.passive_ipv4 == 0)
            report(e.problems, "passive_address", e.passive_address, "cannot be resolved");
    }
    return e;
}

} // namespace orv
