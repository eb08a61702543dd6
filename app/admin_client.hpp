#pragma once
// The admin command line's process side: the password prompt, and the choice between the
// running server's admin socket and the tables of a stopped one.
#include <filesystem>
#include <string>
#include <vector>

namespace orv {

// Runs `orvane-server [-C DIR] admin ARGS...`; returns the exit status.
int run_admin_client(const std::filesystem::path& start_dir, const std::vector<std::string>& args);

} // namespace orv
