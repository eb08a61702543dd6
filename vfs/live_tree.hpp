#pragma once
// live_tree: directories changed on the host while the server runs are brought in step with
// it when a session uses them, so files copied into the home or a mount appear and files
// removed on the host disappear.
#include "vfs/node.hpp"

#include <string_view>

namespace orv {

class Server;

// Adds nodes for host entries the directory does not hold (with the owner, group and flags a
// scan gives them) and drops nodes whose host entry is gone, unless something below them is
// busy or they are a mount point. Does nothing while the host directory's modification time
// is the one last seen. Takes the tree lock itself: call without it.
void refresh_directory(Server& server, const NodePtr& dir);

// Refreshes the directories that `path` passes through from `cwd` (the root for an absolute
// path), the last one included when it is a directory.
void refresh_along(Server& server, const NodePtr& cwd, std::string_view path);

} // namespace orv
