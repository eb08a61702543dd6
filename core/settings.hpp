#pragma once
// The server's global settings, read once from settings.ini at start-up.
#include "core/extensions.hpp"

#include <cstdint>
#include <filesystem>
#include <string>

namespace orv {

struct Settings {
    std::string serverhome; // host directory that is the root of the tree; no trailing separator
    int16_t maxusers = 0;
    int telnet = 0; // exactly 1 enables the service
    int ftp = 0;
    int telnet_port = 23;
    int ftp_port = 21;
    // The SSH listener (shell and SFTP); off unless `[Services] ssh=1`. Never written back.
    int ssh = 0;
    int ssh_port = 2222;
    Extensions ext; // the opt-in [Extensions] keys

    bool telnet_enabled() const { return telnet == 1; }
    bool ftp_enabled() const { return ftp == 1; }
    bool ssh_enabled() const { return ssh == 1; }
};

// A missing file gives every default. Nothing is validated.
Settings read_settings(const std::filesystem::path& settings_path);
// Writes the six values back, keeping other lines of the file.
bool write_settings(const std::filesystem::path& settings_path, const Settings& settings);

// A directory as settings.ini (serverhome) or `mounts` names it, as the server uses it: a
// relative one is taken from the start directory, whatever the process's working directory
// is; an absolute or empty one is returned as it is.
std::string resolve_configured_path(const std::filesystem::path& start_dir,
                                    const std::string& configured);

// Removes one trailing "/" or "\" (so "/srv/ftp/" becomes "/srv/ftp" and "/" becomes empty).
std::string strip_one_trailing_separator(std::string path);

} // namespace orv
