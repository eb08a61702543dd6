#pragma once
// Rules for taking an entry out of a directory, shared by the commands that remove or move.
// Tree lock held.
#include "vfs/node.hpp"

#include <cstddef>

namespace orv {

struct User;

// An entry may leave its directory only for a user who may write that directory (as DELE
// needs); the root, which has none, never leaves.
bool may_take_out(const User* user, const VfsNode& node);
// The root of a mount: host operations on it would act on the mounted directory itself.
bool is_mount_point(const VfsNode& node);
// True when a mount point lies anywhere below `node` (not counting `node` itself): moving it
// would leave that mount pointing at a home path that no longer exists.
bool holds_mount_point(const VfsNode& node);
// The longest virtual path below `node`, in bytes ("\" and name per level), for
// virtual_path_fits() when a whole directory moves or is copied.
size_t depth_below(const VfsNode& node);

} // namespace orv
