#pragma once
// The depth-first scan of a host directory into a node of the tree (used by the build and by
// the mounts). Runs without the tree lock on a subtree that is not linked yet.
#include "vfs/node.hpp"

#include <string>

namespace orv {

class Log;

struct ScanCounts {
    long directories = 0;
    long files = 0;
    long nodes() const { return directories + files; }
};

// Scans `host_dir` into `dir`: every entry but "." and ".." becomes a child, appended in the
// order the directory yields them, each directory scanned in full before the next sibling.
// New nodes take `dir`'s mount, owner, creator, group and flags. Symbolic links are followed
// only when they stay inside `host_dir` and do not loop; names the tree cannot hold and
// entries that are neither files nor directories are left out, each logged once, and so are
// entries whose virtual path would pass the tree's limit: `virtual_prefix` is the length of
// `dir`'s own virtual path (0 for the root, whose path is the separator alone).
ScanCounts scan_into(Log& log, const std::string& host_dir, const NodePtr& dir,
                     size_t virtual_prefix = 0);

} // namespace orv
