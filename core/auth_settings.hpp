#pragma once
// The `[Extensions]` keys of settings.ini that guard logins and passwords. All are off unless
// set, and with all of them off logins behave exactly as they always have.
#include <filesystem>

namespace orv {

class IniFile;
class Log;

struct AuthSettings {
    int login_delay_ms = 0;     // pause before a failed login's reply
    int ban_after = 0;          // failed logins from one address that start a ban; 0 = no bans
    int ban_seconds = 600;      // the first ban's length; each repeat ban doubles it
    int max_per_address = 0;    // connections one address may hold at once; 0 = no limit
    bool auth_log = false;      // one log line per failed login naming the client's address
    bool password_hash = false; // new and changed passwords stored as a salted hash

    // True when connections need to be followed per address.
    bool guard_on() const {
        return login_delay_ms > 0 || ban_after > 0 || max_per_address > 0 || auth_log;
    }
};

// Reads the keys; a value that is not a number in range is logged (when `log` is given) and
// the key keeps its default.
AuthSettings read_auth_settings(const IniFile& ini, Log* log);
AuthSettings read_auth_settings(const std::filesystem::path& settings_path, Log* log);

} // namespace orv
