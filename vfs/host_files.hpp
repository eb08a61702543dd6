#pragma once
// Host file operations on tree nodes that stay below the node's base directory (the server
// home or the mount's real directory) at the moment of use: a file or directory replaced by a
// symbolic link after the scan is not followed, and only regular files are opened as files.
#include "vfs/tree.hpp"

#include <string>
#include <string_view>

namespace orv {

// The host path of `name` inside the directory `dir` (which need not exist yet).
HostPath child_host_path(const HostPath& dir, std::string_view name);
// Splits a path into its directory and its last component; false for a base itself (nothing
// to take out of a directory).
bool split_host_path(const HostPath& path, HostPath& dir, std::string& name);

// An existing regular file opened for reading (or read-write with `write`); -1 for anything
// else, a FIFO or device included (it is never waited for).
int open_host_file(const HostPath& path, bool write = false);
// A directory handle for the *at() calls, or -1 when it is no directory below the base.
int open_host_dir(const HostPath& path);

// Creation, removal and renaming inside directories opened as above. Each returns false with
// errno set.
bool make_host_dir(const HostPath& path, unsigned mode = 0755);
bool remove_host_file(const HostPath& path);
bool remove_host_dir(const HostPath& path);
// Never replaces something already at `to`.
bool rename_host(const HostPath& from, const HostPath& to);

} // namespace orv
