#include "vfs/live_tree.hpp"

#include "core/server.hpp"
#include "platform/files.hpp"
#include "vfs/tree.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <shared_mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace orv {

namespace {

struct HostEntry {
    char kind;
    off_t size;
};

// Names the tree can hold (the scan leaves the others out as well).
bool holdable(std::string_view name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
           name.find_first_of("\\:\r\n") == std::string_view::npos;
}

bool busy_below(const VfsNode& node) {
    if (node.status.load() != kStatusNormal)
        return true;
    for (const NodePtr& child : node.children)
        if (busy_below(*child))
            return true;
    return false;
}

int64_t mtime_ns(const struct stat& st) {
    return static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

// The directory's entries, or false when it cannot be read. A symbolic link keeps the node the
// scan made for it, but a new one is left to the next start's scan, which knows where links
// may lead.
bool read_host_dir(int fd, std::unordered_map<std::string, HostEntry>& out) {
    DIR* d = ::fdopendir(fd);
    if (!d) {
        ::close(fd);
        return false;
    }
    while (dirent* e = ::readdir(d)) {
        std::string_view name = e->d_name;
        if (!holdable(name))
            continue;
        struct stat st {};
        if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISDIR(st.st_mode))
            out.emplace(std::string(name), HostEntry{'d', 0});
        else if (S_ISREG(st.st_mode))
            out.emplace(std::string(name), HostEntry{'-', st.st_size});
        else if (S_ISLNK(st.st_mode))
            out.emplace(std::string(name), HostEntry{'l', 0});
    }
    ::closedir(d);
    return true;
}

} // namespace

void refresh_directory(Server& server, const NodePtr& dir) {
    HostPath host;
    int64_t seen = 0;
    {
        std::shared_lock lock(server.tree_mutex);
        if (!server.vfs || !dir || !dir->is_dir() ||
            (dir != server.vfs->root && !dir->parent_node()))
            return;
        host = node_host_path(*server.vfs, *dir);
        seen = dir->host_mtime_ns;
    }
    if (host.empty())
        return;
    int fd = open_beneath(host.base, host.relative, O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || mtime_ns(st) == seen) {
        ::close(fd);
        return;
    }
    int64_t now_seen = mtime_ns(st);
    std::unordered_map<std::string, HostEntry> entries;
    if (!read_host_dir(fd, entries))
        return;

    std::vector<NodePtr> graveyard;
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs || (dir != server.vfs->root && !dir->parent_node()))
        return;
    std::vector<NodePtr> gone;
    for (const NodePtr& child : dir->children) {
        auto found = entries.find(child->name);
        // A mount point is no entry of the host directory it sits in.
        bool mount_point = child->mount && child->mount != dir->mount;
        if (found != entries.end()) {
            if (found->second.kind == '-' && child->kind == '-')
                child->size = static_cast<uint32_t>(found->second.size);
            entries.erase(found);
        } else if (!mount_point && !busy_below(*child)) {
            gone.push_back(child);
        }
    }
    for (const NodePtr& node : gone)
        free_subtree(node, &server.memory_allocated, graveyard);
    for (const auto& [name, entry] : entries) {
        if (entry.kind != 'l' && !find_child(*dir, name) && virtual_path_fits(*dir, name))
            add_node(*server.vfs, *server.accounts, dir, name, entry.kind,
                     static_cast<uint32_t>(entry.size), dir->owner, &server.memory_allocated);
    }
    dir->host_mtime_ns = now_seen;
    lock.unlock();
    graveyard.clear();
}

void refresh_along(Server& server, const NodePtr& cwd, std::string_view path) {
    NodePtr at;
    {
        std::shared_lock lock(server.tree_mutex);
        if (!server.vfs)
            return;
        bool absolute = !path.empty() && (path.front() == '/' || path.front() == '\\');
        at = absolute ? server.vfs->root : cwd;
    }
    if (!at)
        return;
    refresh_directory(server, at);
    while (!path.empty()) {
        size_t cut = path.find_first_of("\\/");
        std::string_view part = path.substr(0, cut);
        path = cut == std::string_view::npos ? std::string_view() : path.substr(cut + 1);
        if (part.empty() || part == ".")
            continue;
        NodePtr next;
        {
            std::shared_lock lock(server.tree_mutex);
            next = part == ".." ? at->parent_node() : find_child(*at, part);
            if (part == ".." && !next)
                next = at;
        }
        if (!next || !next->is_dir())
            return;
        refresh_directory(server, next);
        at = next;
    }
}

} // namespace orv
