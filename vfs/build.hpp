#pragma once
// Building the tree from the disk at start-up, the mounts, and the permission list.
#include "vfs/node.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace orv {

class Server;
class VfsTree;

// The functions below that take a Server take the tree lock themselves: call them without
// holding it. Those that take a VfsTree expect the caller to hold it.

// Start-up (event thread, before any listener): logs "Initializing File System...", scans the
// server home, reads and mounts `mounts`, logs the counts, applies fpl.txt, logs "File System
// complete.". Fills server.vfs (made when null) and server.accounts (made when null).
void build_file_system(Server& server);

// The mounts file: reads it into the tree's mount list (each record counted in the memory
// counter), skipping lines whose real directory or mount-point parent does not exist.
void read_mounts(Server& server);
bool save_mounts(const Server& server); // false (file untouched) when there is no tree
std::string mounts_text(const VfsTree& tree);
// Checks one mounts line (already cut at its line end) and makes its record, or null. `home`
// is the server home as the tree has it; a relative real directory is checked from
// `start_dir` (the record keeps it as written).
std::shared_ptr<MountRec> parse_mount_line(std::string_view line, const std::string& home,
                                           const std::filesystem::path& start_dir = {});
// A mount point with one leading "\" and no trailing separator.
std::string normalize_mount_point(std::string_view mount_point);

// The permission list, written in pre-order from the root.
bool write_fpl(const Server& server); // false when there is no tree or the write failed
std::string fpl_text(const VfsTree& tree);
// A digest of the list's text, taken line by line (the text is never held whole), so that a
// writer can tell whether the list changed since it last wrote it.
uint64_t fpl_digest(const VfsTree& tree);
// Applies fpl.txt. Afterwards every node that no line named takes its parent's owner,
// creator, group and flags.
void verify_files(Server& server);

// Mounting at run time: counts the record in the memory counter (callers do not), then posts
// the single-mount event, whose handler starts the single-mount thread for `mount` (already in
// the mount list) or logs "**** Failed to create single mount Thread ****". The caller logs
// its own "Single Mount thread started" line.
void post_single_mount(Server& server, std::shared_ptr<MountRec> mount);
// Starts the remove-mount thread: waits for busy nodes, unmounts `mount` (already taken out of
// the mount list by the caller), then mounts `replacement` when given (the caller puts it in
// the mount list; it is counted and mounted through post_single_mount). False when the thread
// cannot be created (the caller logs "**** Failed to create remove mount Thread ****").
bool start_remove_mount(Server& server, std::shared_ptr<MountRec> mount,
                        std::shared_ptr<MountRec> replacement);

} // namespace orv
