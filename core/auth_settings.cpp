#include "core/auth_settings.hpp"

#include "core/extensions.hpp"
#include "core/log.hpp"
#include "platform/ini.hpp"

#include <string>

namespace orv {

AuthSettings read_auth_settings(const IniFile& ini, Log* log) {
    AuthSettings s;
    std::vector<std::string> problems;
    read_extension_number(ini, "login_delay_ms", 60000, s.login_delay_ms, problems);
    read_extension_number(ini, "ban_after", 1000000, s.ban_after, problems);
    read_extension_number(ini, "ban_seconds", 86400 * 30, s.ban_seconds, problems);
    if (s.ban_seconds == 0)
        s.ban_seconds = 1;
    read_extension_number(ini, "max_per_address", 1000000, s.max_per_address, problems);
    read_extension_switch(ini, "auth_log", s.auth_log, problems);
    read_extension_switch(ini, "password_hash", s.password_hash, problems);
    if (log)
        for (const std::string& problem : problems)
            log->log_message(problem);
    return s;
}

AuthSettings read_auth_settings(const std::filesystem::path& settings_path, Log* log) {
    return read_auth_settings(IniFile::load(settings_path), log);
}

} // namespace orv
