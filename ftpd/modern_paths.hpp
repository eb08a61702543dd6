#pragma once
// Paths and host facts for the newer command set: every command that takes a path accepts an
// absolute or multi-part one, resolved with the same permission rules as everything else.
#include "vfs/tree.hpp"

#include <ctime>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace orv {

class Server;
class ConnSlot;
struct User;

// The node a session's path names; nothing resolves before a completed login. Tree lock held.
NodePtr resolve_path(const Server& server, const User* user, const NodePtr& cwd,
                     std::string_view path);

// With live_tree on, brings the directories `path` passes through in step with the host first.
// Call without the tree lock.
void live_refresh(Server& server, const ConnSlot& slot, std::string_view path);

// A path for something new, split into the directory that must hold it and the new name.
// Tree lock held. `dir` is null when the directory does not exist; `name` is the last
// component as given (the caller checks it with valid_new_name).
struct NewEntry {
    NodePtr dir;
    std::string name;
};
NewEntry resolve_new_entry(const Server& server, const User* user, const NodePtr& cwd,
                           std::string_view path);

// A mount point is moved or removed only by unmounting.
bool is_mount_root(const VfsNode& node);

// The host file's status without following a link. Takes the tree lock itself.
bool node_stat(const Server& server, const VfsNode& node, struct stat& st);
// Call with the tree lock held: the host path, for node_stat_at() after the lock is released.
bool host_stat(const HostPath& path, struct stat& st);

// "YYYYMMDDHHMMSS" in UTC, as MDTM and the MLSx "modify" fact give it.
std::string utc_stamp(std::time_t t);
// The inverse; false when the text is not 14 digits of a valid time.
bool parse_utc_stamp(std::string_view text, std::time_t& out);

// The listing's date column: "Mon dd hh:mm" within six months of `now`, else "Mon dd  yyyy".
std::string ls_date(std::time_t t, std::time_t now);

// The owner/group/other flags as a mode number (0754...).
unsigned node_mode(const VfsNode& node);

} // namespace orv
