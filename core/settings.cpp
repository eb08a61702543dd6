#include "core/settings.hpp"

#include "platform/ini.hpp"

#include <string>

namespace orv {

std::string strip_one_trailing_separator(std::string path) {
    if (!path.empty() && (path.back() == '\\' || path.back() == '/'))
        path.pop_back();
    return path;
}

std::string resolve_configured_path(const std::filesystem::path& start_dir,
                                    const std::string& configured) {
    if (configured.empty() || configured.front() == '/' || start_dir.empty())
        return configured;
    std::string out = start_dir.string();
    if (!out.ends_with('/'))
        out += '/';
    return out + configured;
}

Settings read_settings(const std::filesystem::path& settings_path) {
    IniFile ini = IniFile::load(settings_path);
    Settings s;
    std::string home = ini.get_string("Server_Settings", "serverhome", "");
    if (home.size() > 259)
        home.resize(259);
    s.serverhome = strip_one_trailing_separator(home);
    s.maxusers = static_cast<int16_t>(ini.get_int("Server_Settings", "maxusers", 0));
    s.telnet = ini.get_int("Services", "telnet", 0);
    s.ftp = ini.get_int("Services", "ftp", 0);
    s.telnet_port = ini.get_int("Services", "telnet_port", 23);
    s.ftp_port = ini.get_int("Services", "ftp_port", 21);
    s.ssh = ini.get_int("Services", "ssh", 0);
    s.ssh_port = ini.get_int("Services", "ssh_port", 2222);
    s.ext = read_extensions(ini);
    return s;
}

bool write_settings(const std::filesystem::path& settings_path, const Settings& s) {
    IniFile ini = IniFile::load(settings_path);
    ini.set("Server_Settings", "serverhome", s.serverhome);
    ini.set("Server_Settings", "maxusers", std::to_string(s.maxusers));
    ini.set("Services", "telnet", std::to_string(s.telnet));
    ini.set("Services", "ftp", std::to_string(s.ftp));
    ini.set("Services", "telnet_port", std::to_string(s.telnet_port));
    ini.set("Services", "ftp_port", std::to_string(s.ftp_port));
    return ini.save(settings_path);
}

} // namespace orv
