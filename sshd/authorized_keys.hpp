#pragma once
// Public keys that may log in as an account: `authorized_keys/NAME` in the start directory, one
// file per account, one key per line in the usual format ("TYPE BASE64 [comment]"; blank
// lines and "#" comments are skipped; a line with options in front of the key is not used).
#include <libssh/libssh.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace orv::ssh {

struct KeyLine {
    std::string type;
    std::string base64;
};

std::vector<KeyLine> parse_authorized_keys(std::string_view text);

// The account's key file, or an empty path when the name cannot be a file name of its own
// (empty, "." or "..", a "/" or "\", a NUL, longer than 255 bytes).
std::filesystem::path authorized_keys_file(const std::filesystem::path& start_dir,
                                           std::string_view account);

// True when `key` (its public part) is listed for the account.
bool key_is_authorized(const std::filesystem::path& start_dir, std::string_view account,
                       ssh_key key);

} // namespace orv::ssh
