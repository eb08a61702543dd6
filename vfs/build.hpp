#pragma once
// Building the tree from the disk at start-up, the mounts, and the permission list.
#include "vfs/node.hpp"

#include <filesystem>
#include <memory>
#include <string>

namespace orv {

class Server;
class VfsTree;

// Start-up (event thread, before any listener): logs "Initializing File System...", scans the
// server home, reads and mounts `mounts`, logs the counts, applies fpl.txt, logs "File System
// complete.". Fills server.vfs.
void build_file_system(Server& server);

// The mounts file.
void read_mounts(Server& server);
bool save_mounts(const Server& server);
std::string mounts_text(const VfsTree& tree);

// The permission list, written in pre-order from the root.
bool write_fpl(const Server& server);
std::string fpl_text(const VfsTree& tree);
void verify_files(Server& server);

// Mounting at run time: posts the single-mount event, whose handler starts the single-mount
// thread for `mount` (already in the mount list).
void post_single_mount(Server& server, std::shared_ptr<MountRec> mount);
// Starts the remove-mount thread: waits for busy nodes, unmounts `mount` (already taken out of
// the mount list by the caller), then mounts `replacement` when given.
bool start_remove_mount(Server& server, std::shared_ptr<MountRec> mount,
                        std::shared_ptr<MountRec> replacement);

} // namespace orv
