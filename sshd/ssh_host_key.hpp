#pragma once
// The listener's host key: `ssh_host_ed25519_key` in the start directory. Made at the first
// start (OpenSSH private-key format, mode 0600); a key already there, of whatever type, is
// used as it is.
#include <libssh/libssh.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace orv::ssh {

inline constexpr const char kHostKeyFile[] = "ssh_host_ed25519_key";

// Writes `text` to a new file that only the owner may read; false when the file exists
// already or cannot be written (nothing is left behind then).
bool write_private_file(const std::filesystem::path& path, std::string_view text);

// Loads the key at `path`, making a new Ed25519 key there first when there is none. Returns
// null and describes the problem in `error` when neither works. The caller frees the key.
ssh_key load_or_create_host_key(const std::filesystem::path& path, std::string& error);

} // namespace orv::ssh
