#pragma once
// The tree as a whole and the operations that the protocol code calls. Unless said
// otherwise, every function here expects the caller to hold the server's tree lock (shared
// for reading, exclusive for changes).
#include "vfs/node.hpp"

#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

class Accounts;

class VfsTree {
  public:
    std::string home;      // the server home (no trailing separator), relative ones resolved
    std::string start_dir; // what relative mount directories are taken from
    NodePtr root;
    std::deque<std::shared_ptr<MountRec>> mounts; // head (newest) first
    long directories = 0;                         // counted by the build and mounts
    long files = 0;

    static constexpr long kNodeRecordSize = 352;
    static constexpr long kMountRecordSize = 528;
};

// ---- Path resolution (vfs/path_resolve.cpp) ----

// The host directory a mount stands for: its real directory, a relative one taken from the
// start directory.
std::string mount_host_dir(const VfsTree& tree, const MountRec& mount);

// The node that a client path names, or null. "\" and "/" both separate; a leading one starts
// at the root; "." stays, ".." goes up (staying at the root); names match case-sensitively;
// an empty component matches nothing; a trailing separator is harmless.
NodePtr find_node(const VfsTree& tree, std::string_view path, const NodePtr& cwd);
// A child of `dir` with exactly this name, or null.
NodePtr find_child(const VfsNode& dir, std::string_view name);
// Removes the first word from `text` and returns it: a word starting with a double quote runs
// to the closing quote (quotes removed), otherwise it ends at the first blank. Leading blanks
// are skipped.
std::string next_word(std::string& text);
// The longest virtual path the tree holds; a command that would make a longer one is refused.
constexpr size_t kMaxVirtualPath = 4096;
// True when a new entry `name` in `dir` (or `dir` moved there with that name) keeps its
// virtual path within kMaxVirtualPath bytes; `depth_below` adds the longest path below a
// directory being moved or copied.
bool virtual_path_fits(const VfsNode& dir, std::string_view name, size_t depth_below = 0);
// "\data\pub" (sep '\\') or "/data/pub"; the root gives the separator alone.
std::string node_virtual_path(const VfsNode& node, char sep);
// The host path: the server home (or the mount's real directory) and the path below it,
// joined with "/". Empty when the node is no longer linked into the tree or its base
// directory is empty, so that host operations on it fail instead of reaching a wrong file.
std::string node_real_path(const VfsTree& tree, const VfsNode& node);
// The same host path in two parts: the base directory (the server home or the mount's real
// directory) and the path below it ("" for the base itself), for opening with open_beneath()
// so that a symbolic link made on the host after the scan cannot lead out of the base.
struct HostPath {
    std::string base;
    std::string relative;
    bool empty() const { return base.empty(); }
    std::string joined() const;
};
HostPath node_host_path(const VfsTree& tree, const VfsNode& node);

// ---- Permissions (vfs/permissions.cpp) ----

// `user` is the session's user after a completed login, or null (which is refused).
bool can_read(const User* user, const VfsNode& node);
bool can_write(const User* user, const VfsNode& node);
// The read check before a file is opened: the node's own read result decides (read permission
// on the directories above is not needed).
bool can_read_path(const User* user, const VfsNode& node);
// The ownership rule of chmod/chown/chgrp: the owner, or any user with ID below 100.
bool may_change_owner_fields(const User* user, const VfsNode& node);

// ---- Wildcards (vfs/wildcard.cpp) ----

// The base/extension match: "*" and "*.*" match every name; "a*.txt" matches "a.b.txt".
bool wildcard_match(std::string_view name, std::string_view pattern);
bool has_wildcard(std::string_view text); // contains "*" or "?"
// First child of `dir` (chain order) that matches, and the next matching sibling after `node`.
NodePtr match_first(const VfsNode& dir, std::string_view pattern);
NodePtr match_next(const VfsNode& node, std::string_view pattern);

// ---- Changing the tree (vfs/tree_edit.cpp); exclusive lock ----

// A name a client gives for something new must be one path component: not empty, not "." or
// "..", no "/", "\" or NUL, at most 255 bytes. Names with ":" or a line end are refused too:
// fpl.txt could not hold them and the next start would leave them out of the tree.
bool valid_new_name(std::string_view name);
// Appends a new node to `dir`: it takes the directory's mount, group and flags; owner and
// creator are `owner` (the made-up "root" when null). Counts it in the memory counter.
NodePtr add_node(VfsTree& tree, Accounts& accounts, const NodePtr& dir, std::string name, char kind,
                 uint32_t size, std::shared_ptr<User> owner, std::atomic<long>* memory_counter);
// Unlinks a node from its parent's children (its subtree goes with it) and subtracts the
// whole subtree from the memory counter. The node's `parent` is reset.
void unlink_node(const NodePtr& node, std::atomic<long>* memory_counter);
// Moves a node to the end of `dest`'s children, giving it (and its subtree) dest's mount.
// Refuses (false, nothing changed) when `dest` is the node itself or lies below it.
bool relink_node(const NodePtr& node, const NodePtr& dest);
// Unlinks a node like unlink_node and takes its subtree apart (every child list emptied,
// every parent link reset), so that a session still holding one of its nodes holds that
// node alone. The nodes are moved into `graveyard` so that the caller can drop them after
// releasing the tree lock.
void free_subtree(const NodePtr& node, std::atomic<long>* memory_counter,
                  std::vector<NodePtr>& graveyard);
// Nodes in the subtree, the node itself included.
long count_subtree(const VfsNode& node);

} // namespace orv
