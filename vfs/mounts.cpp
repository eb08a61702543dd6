#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"
#include "vfs/build.hpp"
#include "vfs/mount_work.hpp"
#include "vfs/table_lines.hpp"
#include "vfs/tree.hpp"

#include <chrono>
#include <mutex>
#include <shared_mutex>
#include <sys/stat.h>
#include <thread>

namespace orv {

namespace {

constexpr size_t kMaxPathField = 259;

bool is_host_dir(const std::string& path) {
    struct stat st;
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A trailing separator goes, as with the server home; "/" alone stays the host's root.
std::string normalize_real_dir(std::string_view dir) {
    std::string out(dir);
    if (out.size() > 1 && (out.back() == '/' || out.back() == '\\'))
        out.pop_back();
    return out;
}

bool is_separator(char c) {
    return c == '\\' || c == '/';
}

struct MountPointParts {
    std::string parent; // virtual path of the parent directory ("" for the root)
    std::string name;   // last component
};

MountPointParts split_mount_point(const std::string& point) {
    size_t cut = point.find_last_of("\\/");
    if (cut == std::string::npos)
        return {"", point};
    return {point.substr(0, cut), point.substr(cut + 1)};
}

// A node is in the tree when its parent links reach the root.
bool attached(const VfsTree& tree, NodePtr node) {
    while (node && node != tree.root)
        node = node->parent_node();
    return node != nullptr;
}

void sleep_unless_stopping(Server& server, std::chrono::milliseconds total) {
    using namespace std::chrono;
    auto until = steady_clock::now() + total;
    while (!server.stopping.load() && steady_clock::now() < until)
        std::this_thread::sleep_for(
            std::min<steady_clock::duration>(milliseconds(50), until - steady_clock::now()));
}

void single_mount_thread(Server& server, const std::shared_ptr<MountRec>& mount) {
    MountOutcome outcome = mount_record(server, mount, true);
    if (outcome.mounted) {
        server.log.logf("Directories = %li", outcome.counts.directories);
        server.log.logf("Files = %li", outcome.counts.files);
        server.log.logf("  Memory usage now - %li", server.memory_allocated.load());
    }
    server.log_message("Single mount thread complete!");
}

// Puts every node of the mount on the busy list (status 2) or marks it unmount pending. A
// transfer may flip a node from 1 to 2 at the same moment: the exchange settles who won.
std::vector<NodePtr> mark_unmounting(const NodePtr& top) {
    std::vector<NodePtr> busy;
    std::vector<NodePtr> todo{top};
    while (!todo.empty()) {
        NodePtr node = std::move(todo.back());
        todo.pop_back();
        uint8_t seen = node->status.load();
        while (seen != kStatusBusy &&
               !node->status.compare_exchange_weak(seen, kStatusUnmounting)) {
        }
        if (seen == kStatusBusy)
            busy.push_back(node);
        for (const NodePtr& child : node->children)
            todo.push_back(child);
    }
    return busy;
}

void move_sessions_out(Server& server, const VfsTree& tree, const VfsNode& mount_point) {
    for (const SlotPtr& slot : server.conns.snapshot()) {
        NodePtr cwd = slot->cwd();
        // By name, not by node: a directory elsewhere with the same name moves too.
        if (!cwd || cwd->name != mount_point.name)
            continue;
        std::shared_ptr<User> user = slot->user();
        NodePtr home = user ? find_node(tree, user->home_dir, tree.root) : nullptr;
        slot->set_cwd(home ? home : tree.root);
    }
}

void remove_mount_thread(Server& server, const std::shared_ptr<MountRec>& mount,
                         const std::shared_ptr<MountRec>& replacement) {
    static const VfsTree no_tree; // before any build there is nothing to unmount
    const VfsTree& tree = server.vfs ? *server.vfs : no_tree;
    std::vector<NodePtr> busy;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr top = find_node(tree, mount->mount_point, tree.root);
        // Only the node that this mount made: never a home directory of the same path.
        if (top && top->mount == mount) {
            move_sessions_out(server, tree, *top);
            busy = mark_unmounting(top);
        }
    }
    server.log_message("Busy files...Unmount pending");
    while (!busy.empty() && !server.stopping.load()) {
        sleep_unless_stopping(server, std::chrono::milliseconds(1000));
        server.log_message("Checking on busy files...");
        std::vector<std::string> still_busy;
        {
            std::shared_lock lock(server.tree_mutex);
            std::erase_if(busy, [&](const NodePtr& node) {
                uint8_t seen = kStatusNormal;
                if (node->status.compare_exchange_strong(seen, kStatusUnmounting))
                    return true;
                if (seen != kStatusBusy)
                    return true;
                still_busy.push_back(node->name);
                return false;
            });
        }
        for (const std::string& name : still_busy)
            server.log_message(log_safe(name));
    }
    server.log_message("Unmounting Now!");

    std::vector<NodePtr> graveyard;
    {
        std::unique_lock lock(server.tree_mutex);
        NodePtr top = find_node(tree, mount->mount_point, tree.root);
        if (top && top->mount == mount)
            free_subtree(top, &server.memory_allocated, graveyard);
    }
    graveyard.clear(); // the nodes go without the lock held

    if (replacement)
        post_single_mount(server, replacement);
    else
        server.memory_allocated -= VfsTree::kMountRecordSize;
    server.log_message("Remove mount thread Complete.");
    server.log.logf("  Memory usage now - %li", server.memory_allocated.load());
}

} // namespace

std::string normalize_mount_point(std::string_view mount_point) {
    std::string out(mount_point);
    if (out.empty() || out.front() != '\\')
        out.insert(out.begin(), '\\');
    if (out.size() > 1 && is_separator(out.back()))
        out.pop_back();
    return out;
}

std::shared_ptr<MountRec> parse_mount_line(std::string_view line, const std::string& home,
                                           const std::filesystem::path& start_dir) {
    size_t bar = line.find('|');
    if (bar == std::string_view::npos)
        return nullptr;
    auto mount = std::make_shared<MountRec>();
    mount->real_dir = normalize_real_dir(line.substr(0, bar));
    mount->mount_point = normalize_mount_point(line.substr(bar + 1));
    if (mount->real_dir.size() > kMaxPathField || mount->mount_point.size() > kMaxPathField)
        return nullptr;
    if (!is_host_dir(resolve_configured_path(start_dir, mount->real_dir)))
        return nullptr;
    // The mount point's parent must exist below the home on the disk.
    std::string host = home + mount->mount_point;
    for (char& c : host)
        if (c == '\\')
            c = '/';
    host.resize(host.rfind('/'));
    if (!is_host_dir(host))
        return nullptr;
    return mount;
}

void read_mounts(Server& server) {
    auto lines = read_table_lines(server.table_path("mounts"));
    if (!lines)
        return; // no file: no mounts
    std::vector<std::shared_ptr<MountRec>> found;
    for (const std::string& line : *lines)
        if (auto mount = parse_mount_line(line, server.vfs->home, server.start_dir))
            found.push_back(std::move(mount));
    std::unique_lock lock(server.tree_mutex);
    for (auto& mount : found) {
        server.vfs->mounts.push_front(std::move(mount));
        server.memory_allocated += VfsTree::kMountRecordSize;
    }
}

std::string mounts_text(const VfsTree& tree) {
    std::string out;
    for (const auto& mount : tree.mounts)
        out += mount->real_dir + "|" + mount->mount_point + "\n";
    return out;
}

bool save_mounts(const Server& server) {
    if (!server.vfs)
        return false;
    std::string text;
    {
        std::shared_lock lock(server.tree_mutex);
        text = mounts_text(*server.vfs);
    }
    return write_file_atomic(server.table_path("mounts"), text);
}

MountOutcome mount_record(Server& server, const std::shared_ptr<MountRec>& mount,
                          bool at_run_time) {
    server.log.logf("  Mounting %s  - > %s", mount->real_dir.c_str(), mount->mount_point.c_str());
    // The log lines come after the lock is released.
    enum class Refusal { None, NoParent, Exists };
    auto refuse = [&](Refusal why) {
        if (why == Refusal::Exists)
            server.log.logf("Unable to mount, %s already exists", mount->mount_point.c_str());
        else
            server.log_message(at_run_time
                                   ? "**** Error finding dest. dir (single_main_mount_routine) ****"
                                   : "**** Error finding file (main_mount_routine) ****");
        return MountOutcome{};
    };
    if (!server.vfs)
        return refuse(Refusal::NoParent);
    VfsTree& tree = *server.vfs;
    MountPointParts parts = split_mount_point(mount->mount_point);
    // A mount point right under the root ("\pub") has an empty parent path: the root.
    auto find_parent = [&]() -> NodePtr {
        NodePtr parent =
            parts.parent.empty() ? tree.root : find_node(tree, parts.parent, tree.root);
        return parent && parent->is_dir() && attached(tree, parent) ? parent : nullptr;
    };
    auto point = std::make_shared<VfsNode>();
    Refusal why = Refusal::None;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr parent = find_parent();
        if (!parent)
            why = Refusal::NoParent;
        else if (find_node(tree, mount->mount_point, tree.root))
            why = Refusal::Exists;
        else if (!valid_new_name(parts.name))
            why = Refusal::NoParent;
        if (why == Refusal::None) {
            // The mount point looks like a directory made in its parent.
            point->name = parts.name;
            point->kind = 'd';
            point->mount = mount;
            point->creator = parent->creator;
            point->owner = parent->owner;
            point->flags = parent->flags;
            point->group = parent->group;
        }
    }
    if (why != Refusal::None)
        return refuse(why);

    MountOutcome outcome;
    outcome.counts =
        scan_into(server.log, mount_host_dir(tree, *mount), point, mount->mount_point.size());
    outcome.counts.directories += 1; // the mount point itself
    {
        // The tree may have changed during the scan.
        std::unique_lock lock(server.tree_mutex);
        NodePtr parent = find_parent();
        if (!parent)
            why = Refusal::NoParent;
        else if (find_child(*parent, parts.name))
            why = Refusal::Exists;
        if (why == Refusal::None) {
            point->parent = parent;
            parent->children.push_back(point);
            tree.directories += outcome.counts.directories;
            tree.files += outcome.counts.files;
            server.memory_allocated += outcome.counts.nodes() * VfsTree::kNodeRecordSize;
        }
    }
    if (why != Refusal::None)
        return refuse(why);
    outcome.mounted = true;
    return outcome;
}

void mount_all(Server& server) {
    std::vector<std::shared_ptr<MountRec>> mounts;
    {
        std::shared_lock lock(server.tree_mutex);
        mounts.assign(server.vfs->mounts.begin(), server.vfs->mounts.end());
    }
    for (const auto& mount : mounts)
        mount_record(server, mount, false);
}

void post_single_mount(Server& server, std::shared_ptr<MountRec> mount) {
    server.memory_allocated += VfsTree::kMountRecordSize;
    server.post([&server, mount = std::move(mount)]() {
        if (!server.workers.spawn([&server, mount]() { single_mount_thread(server, mount); }))
            server.log_message("**** Failed to create single mount Thread ****");
    });
}

bool start_remove_mount(Server& server, std::shared_ptr<MountRec> mount,
                        std::shared_ptr<MountRec> replacement) {
    return server.workers.spawn(
        [&server, mount = std::move(mount), replacement = std::move(replacement)]() {
            remove_mount_thread(server, mount, replacement);
        });
}

} // namespace orv
