#include "core/auth_settings.hpp"

#include "core/log.hpp"
#include "platform/ini.hpp"
#include "platform/text.hpp"

#include <charconv>
#include <string>

namespace orv {
namespace {

constexpr const char* kSection = "Extensions";

// A whole non-negative decimal number no larger than `most`; anything else keeps `value`.
void read_number(const IniFile& ini, const char* key, int most, int& value, Log* log) {
    std::string text = ini.get_string(kSection, key, "");
    if (text.empty())
        return;
    int parsed = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (ec != std::errc() || end != text.data() + text.size() || parsed < 0 || parsed > most) {
        if (log)
            log->logf("Settings: [Extensions] %s=%s is not a number from 0 to %i, ignored", key,
                      log_safe(text).c_str(), most);
        return;
    }
    value = parsed;
}

void read_switch(const IniFile& ini, const char* key, bool& value, Log* log) {
    int number = value ? 1 : 0;
    read_number(ini, key, 1, number, log);
    value = number == 1;
}

} // namespace

AuthSettings read_auth_settings(const IniFile& ini, Log* log) {
    AuthSettings s;
    read_number(ini, "login_delay_ms", 60000, s.login_delay_ms, log);
    read_number(ini, "ban_after", 1000000, s.ban_after, log);
    read_number(ini, "ban_seconds", 86400 * 30, s.ban_seconds, log);
    if (s.ban_seconds == 0)
        s.ban_seconds = 1;
    read_number(ini, "max_per_address", 1000000, s.max_per_address, log);
    read_switch(ini, "auth_log", s.auth_log, log);
    read_switch(ini, "password_hash", s.password_hash, log);
    return s;
}

AuthSettings read_auth_settings(const std::filesystem::path& settings_path, Log* log) {
    return read_auth_settings(IniFile::load(settings_path), log);
}

} // namespace orv
