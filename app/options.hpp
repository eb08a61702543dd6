#pragma once
// Command-line options of the server binary.
#include <optional>
#include <string>
#include <vector>

namespace orv {

struct Options {
    bool headless = false;
    std::string start_dir; // empty: the current directory
    bool help = false;
    bool version = false;
    bool encode_password = false;
    std::string encode_name;
    std::string encode_password_text;
    bool admin = false;
    std::vector<std::string> admin_args; // everything after "admin"
};

// Parses argv; on an unknown or incomplete option returns nothing and fills `error`.
std::optional<Options> parse_options(const std::vector<std::string>& args, std::string& error);
std::string usage_text();

} // namespace orv
