#pragma once
// Relative paths in settings.ini (serverhome) and in `mounts` are taken relative to the start
// directory, whatever the process's working directory is.
#include <filesystem>
#include <string_view>

namespace orv {

// `path` as the server uses it: an absolute path unchanged, a relative one below
// `start_dir` (an empty `start_dir` leaves it relative to the working directory).
inline std::filesystem::path in_start_dir(const std::filesystem::path& start_dir,
                                          std::string_view path) {
    std::filesystem::path p(path);
    if (p.empty() || p.is_absolute() || start_dir.empty())
        return p;
    return start_dir / p;
}

} // namespace orv
