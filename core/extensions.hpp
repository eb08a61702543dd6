#pragma once
// The opt-in keys of the [Extensions] section. With none of them the server behaves exactly
// as it always has; each key switches on one thing that today's clients and networks expect.
#include <cstdint>
#include <string>
#include <vector>

namespace orv {

class IniFile;

struct Extensions {
    // Empty: every IPv4 address (the classic listener). "::" = IPv6 and IPv4; otherwise one
    // literal address.
    std::string listen_address;
    // Passive mode, EPRT/EPSV, FEAT and the newer command set, full paths, "ls -l" listings.
    bool ftp_modern = false;
    int passive_low = 50000;
    int passive_high = 50100;
    // Announced in the 227 reply to clients outside loopback and private networks; a host name
    // is resolved when the settings are read.
    std::string passive_address;
    uint32_t passive_ipv4 = 0; // network order; 0 when none or not resolvable
    // Directories changed on the host are rescanned when a session uses them.
    bool live_tree = false;
    // FTP over TLS: AUTH TLS on the FTP port, and a port that speaks TLS from the first byte
    // (0 = none). Sessions then use the newer command set, which the TLS commands belong to.
    bool ftps = false;
    int ftps_implicit_port = 0;
    std::string tls_certificate; // PEM files, relative to the start directory
    std::string tls_private_key;
    // Clear-text logins and data connections refused.
    bool require_tls = false;
    // A protected data connection must resume the TLS session of its control connection.
    bool tls_session_reuse = true;
    // Values that could not be parsed, each for one log line (the key keeps its default).
    std::vector<std::string> problems;
};

Extensions read_extensions(const IniFile& ini);

// The readers every [Extensions] key goes through. An absent key keeps `value`; a value that
// cannot be used is described in `problems` (one log line each) and keeps it too.
void read_extension_number(const IniFile& ini, const char* key, int most, int& value,
                           std::vector<std::string>& problems);
void read_extension_switch(const IniFile& ini, const char* key, bool& value,
                           std::vector<std::string>& problems);

// "LOW-HIGH" with 1 <= LOW <= HIGH <= 65535.
bool parse_port_range(const std::string& text, int& low, int& high);

} // namespace orv
