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
    Extensions ext; // the opt-in [Extensions] keys

    bool telnet_enabled() const { return telnet == 1; }
    bool ftp_enabled() const { return ftp == 1; }
};

// A missing file gives every default. Nothing is validated.
Settings read_settings(const std::filesystem::path& settings_path);
// Writes the six values back, keeping other lines of the file.
bool write_settings(const std::filesystem::path& settings_path, const Settings& settings);

// Removes one trailing "/" or "\" (so "/srv/ftp/" becomes "/srv/ftp" and "/" becomes empty).
std::string strip_one_trailing_separator(std::string path);

} // namespace orv
