// The shell's cp: files and whole directories into an existing directory, with a wildcard
// pattern in the source. The plan of a copy is taken under the tree lock; the host copying
// runs without it; the new nodes are added under the lock afterwards.
#include "accounts/user.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/byte_mover.hpp"
#include "platform/staged_file.hpp"
#include "platform/text.hpp"
#include "telnetd/shell_files.hpp"
#include "telnetd/shell_paths.hpp"
#include "vfs/busy_mark.hpp"
#include "vfs/entry_rules.hpp"
#include "vfs/host_files.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <mutex>
#include <shared_mutex>
#include <unistd.h>
#include <vector>

namespace orv::telnet {
namespace {

// One node of a copy, in pre-order: its path below the copied node, where it is on the host,
// and the attributes the copy takes over.
struct CopyEntry {
    std::vector<std::string> path; // empty for the copied node itself
    HostPath source;
    std::string refusal; // set when this node (and what is below it) is not copied
    char kind = '-';
    std::shared_ptr<User> owner;
    std::shared_ptr<Group> group;
    std::array<uint8_t, 9> flags{};
    uint32_t size = 0;
    bool done = false;
};

class CopyJob {
  public:
    CopyJob(Server& server, const SlotPtr& slot)
        : server_(server), slot_(slot), user_(slot->checked_user()), cwd_(slot->cwd()) {}

    void run(std::string arg);

  private:
    void say(const std::string& text) { slot_->send_text(text); }
    bool interrupted() const { return command_interrupted(server_, *slot_); }
    // The front part: words, resolution, permissions, busy marks. False when it answered.
    bool prepare(std::string arg);
    // One source node (the single source or one match); false ends a pattern walk.
    bool copy_item(const NodePtr& item);
    // Plans the copy of `item` under the tree lock; empty with `refusal` set when refused.
    std::vector<CopyEntry> plan(const NodePtr& item, std::string& refusal);
    void execute(std::vector<CopyEntry>& entries, const std::string& name);
    bool copy_file(const HostPath& from, const HostPath& to, uint32_t& size);
    void add_nodes(const std::vector<CopyEntry>& entries, const std::string& name);

    Server& server_;
    SlotPtr slot_;
    std::shared_ptr<User> user_;
    NodePtr cwd_;
    bool pattern_mode_ = false;
    SplitPath split_;
    NodePtr source_; // the source node, or the source directory of a pattern
    NodePtr dest_;
    HostPath dest_host_;
    BusyMark dest_mark_;
};

void CopyJob::run(std::string arg) {
    if (prepare(std::move(arg))) {
        if (!pattern_mode_) {
            copy_item(source_);
        } else {
            std::vector<NodePtr> matches;
            {
                std::shared_lock lock(server_.tree_mutex);
                for (NodePtr n = match_first(*source_, split_.pattern); n;
                     n = match_next(*n, split_.pattern))
                    matches.push_back(n);
            }
            if (matches.empty())
                say("cp: No Files Match Criteria\r\n");
            for (const NodePtr& item : matches) {
                if (interrupted() || !copy_item(item))
                    break;
            }
        }
    }
    dest_mark_.release();
}

bool CopyJob::prepare(std::string arg) {
    std::string source_word = next_word(arg);
    if (source_word.empty()) {
        say("cp: Copy File failed; No Source File Selected\r\n");
        return false;
    }
    pattern_mode_ = has_wildcard(source_word);
    split_ = split_at_last_backslash(source_word);
    std::string dest_word = next_word(arg);
    if (dest_word.empty()) {
        say(strf("cp: Copy File failed \"%s\"; No Destination Selected\r\n", source_word.c_str()));
        return false;
    }
    std::shared_lock lock(server_.tree_mutex);
    if (!server_.vfs)
        return false;
    const VfsTree& tree = *server_.vfs;
    source_ =
        pattern_mode_ ? resolve_split_dir(tree, split_, cwd_) : find_node(tree, source_word, cwd_);
    if (!source_) {
        std::string where = cwd_ ? node_virtual_path(*cwd_, '\\') : std::string("\\");
        say(strf("cp: Copy File failed \"%s\"; File does not Exist \"%s\"\r\n", source_word.c_str(),
                 where.c_str()));
        return false;
    }
    if (!can_read_path(user_.get(), *source_)) {
        say(strf("cp: Permissions Denied \"%s\"\r\n", source_->name.c_str()));
        return false;
    }
    dest_ = find_node(tree, dest_word, cwd_);
    if (!dest_) {
        say(strf("cp: Copy File failed \"%s\"; File does not Exist\r\n", dest_word.c_str()));
        return false;
    }
    if (!can_read_path(user_.get(), *dest_) || !can_write(user_.get(), *dest_)) {
        say("cp: Permissions Denied\r\n");
        return false;
    }
    bool refused = false;
    if (source_->status != kStatusNormal) {
        say(strf("cp: %s; File Busy\r\n", source_->name.c_str()));
        refused = true;
    }
    if (dest_->status != kStatusNormal) {
        say(strf("cp: %s; File Busy\r\n", dest_->name.c_str()));
        refused = true;
    }
    if (refused || !(dest_mark_ = BusyMark(dest_)))
        return false;
    dest_host_ = node_host_path(tree, *dest_);
    return true;
}

bool CopyJob::copy_item(const NodePtr& item) {
    std::string name;
    std::string refusal;
    std::vector<CopyEntry> entries;
    BusyMark item_mark;
    {
        std::shared_lock lock(server_.tree_mutex);
        name = item->name;
        if (item->status == kStatusUnmounting) {
            say(strf("cp: %s; Unmounting!\r\n", name.c_str()));
            return false;
        }
        if (item != dest_ && !(item_mark = BusyMark(item))) {
            say(strf("cp: %s; File Busy\r\n", name.c_str()));
            return true;
        }
        entries = plan(item, refusal);
    }
    if (!refusal.empty()) {
        say(refusal);
    } else {
        execute(entries, name);
        add_nodes(entries, name);
    }
    return true;
}

std::vector<CopyEntry> CopyJob::plan(const NodePtr& item, std::string& refusal) {
    const VfsTree& tree = *server_.vfs;
    const std::string& name = item->name;
    if (!can_read_path(user_.get(), *item)) {
        refusal = strf("cp: Permissions Denied \"%s\"\r\n", name.c_str());
        return {};
    }
    // A copy onto itself (into its own directory) or into its own subtree would destroy the
    // source or never end.
    if (item->parent_node() == dest_ || !item->parent_node()) {
        refusal = strf("cp: Copy File failed \"%s\"\r\n", name.c_str());
        return {};
    }
    if (is_within(dest_, item)) {
        refusal = "cp: Copy File Failed\r\n";
        return {};
    }
    // Nothing the copy makes may have a virtual path longer than the tree holds.
    if (!virtual_path_fits(*dest_, name, depth_below(*item))) {
        refusal = strf("cp: Copy File failed \"%s\"\r\n", name.c_str());
        return {};
    }
    // Every node is copied only when the user may read it, and lands only where the user may
    // write: over an existing node that the user may write and nothing uses, or as a new name
    // in a directory the user may write (the destination was checked already). A node the
    // user made beforehand under the same name thus never receives unreadable content.
    auto landing_refusal = [&](const NodePtr& target_dir, const std::string& child,
                               const NodePtr& existing) -> std::string {
        if (existing) {
            if (existing->status != kStatusNormal)
                return strf("cp: %s; File Busy\r\n", child.c_str());
            if (!existing->is_dir() && !can_write(user_.get(), *existing))
                return strf("cp: Permissions Denied \"%s\"\r\n", child.c_str());
        } else if (target_dir && target_dir != dest_ && !can_write(user_.get(), *target_dir)) {
            return strf("cp: Permissions Denied \"%s\"\r\n", child.c_str());
        }
        return {};
    };
    NodePtr top_existing = find_child(*dest_, name);
    refusal = landing_refusal(dest_, name, top_existing);
    if (!refusal.empty())
        return {};

    struct Pending {
        NodePtr node;
        std::vector<std::string> path;
        NodePtr target_dir; // the existing directory the copy lands in; null for a new one
    };
    std::vector<CopyEntry> entries;
    std::vector<Pending> stack{{item, {}, dest_}};
    while (!stack.empty()) {
        Pending p = std::move(stack.back());
        stack.pop_back();
        const VfsNode& node = *p.node;
        NodePtr existing = p.path.empty() ? top_existing
                           : p.target_dir ? find_child(*p.target_dir, node.name)
                                          : nullptr;
        CopyEntry e;
        e.path = p.path;
        e.source = node_host_path(tree, node);
        e.kind = node.kind;
        e.owner = node.owner;
        e.group = node.group;
        e.flags = node.flags;
        e.size = node.size;
        if (!p.path.empty()) {
            if (!can_read(user_.get(), node))
                e.refusal = strf("cp: Permissions Denied \"%s\"\r\n", node.name.c_str());
            else
                e.refusal = landing_refusal(p.target_dir, node.name, existing);
        }
        if (e.refusal.empty() && existing && existing->is_dir() != node.is_dir())
            e.refusal = strf("cp: Copy File Failed \"%s\"\r\n", node.name.c_str());
        bool refused = !e.refusal.empty();
        entries.push_back(std::move(e));
        if (refused)
            continue; // nothing below a node that is not copied
        NodePtr below = existing && existing->is_dir() ? existing : nullptr;
        for (auto it = node.children.rbegin(); it != node.children.rend(); ++it) {
            std::vector<std::string> child_path = p.path;
            child_path.push_back((*it)->name);
            stack.push_back({*it, std::move(child_path), below});
        }
    }
    return entries;
}

HostPath join_path(const HostPath& base, const std::string& name,
                   const std::vector<std::string>& path) {
    HostPath out = child_host_path(base, name);
    for (const std::string& part : path)
        out = child_host_path(out, part);
    return out;
}

// A directory of the copy: made, or already there as a real directory (not a link).
bool ensure_host_dir(const HostPath& path) {
    if (make_host_dir(path))
        return true;
    if (errno != EEXIST)
        return false;
    int fd = open_host_dir(path);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

void CopyJob::execute(std::vector<CopyEntry>& entries, const std::string& name) {
    if (entries.empty() || dest_host_.empty())
        return;
    CopyEntry& top = entries.front();
    HostPath top_target = join_path(dest_host_, name, {});
    if (top.kind != 'd') {
        if (!copy_file(top.source, top_target, top.size)) {
            if (!interrupted())
                say(strf("cp: Copy File failed \"%s\"\r\n", name.c_str()));
            return;
        }
        top.done = true;
        return;
    }
    if (!ensure_host_dir(top_target)) {
        say(strf("cp: Failed to copy file \"%s\"; Create Directory Failed\r\n", name.c_str()));
        return;
    }
    top.done = true;
    // Entries are in pre-order, so a directory that failed is seen before everything below it.
    std::vector<const std::vector<std::string>*> failed_dirs;
    auto below_failed = [&](const std::vector<std::string>& path) {
        for (const auto* dir : failed_dirs) {
            if (path.size() > dir->size() && std::equal(dir->begin(), dir->end(), path.begin()))
                return true;
        }
        return false;
    };
    for (size_t i = 1; i < entries.size(); ++i) {
        if (interrupted())
            return;
        CopyEntry& e = entries[i];
        if (below_failed(e.path))
            continue;
        if (!e.refusal.empty()) {
            say(e.refusal);
            continue;
        }
        HostPath target = join_path(dest_host_, name, e.path);
        const std::string& shown = e.path.back();
        if (e.kind == 'd') {
            if (!ensure_host_dir(target)) {
                say(strf("cp: Copy File failed \"%s\"; Failed to Create Directory\r\n",
                         shown.c_str()));
                failed_dirs.push_back(&e.path);
                continue;
            }
        } else if (!copy_file(e.source, target, e.size)) {
            if (interrupted())
                return;
            say(strf("cp: Copy File Failed \"%s\"\r\n", shown.c_str()));
            continue;
        }
        e.done = true;
    }
}

// Copies a host file through a staged file beside the target, so that an interrupted copy
// never leaves a half-written file in place of the one that was there. Both ends are
// opened below their base directories: a link put in place of a file or directory on the host
// leads nowhere.
bool CopyJob::copy_file(const HostPath& from, const HostPath& to, uint32_t& size) {
    HostPath to_dir;
    std::string to_name;
    if (!split_host_path(to, to_dir, to_name))
        return false;
    int in = open_host_file(from);
    if (in < 0)
        return false;
    StagedFile staged;
    if (!staged.open(to_dir.base, to_dir.relative, to_name)) {
        ::close(in);
        return false;
    }
    MoveControl control;
    control.stop = [this] { return interrupted(); };
    MoveResult moved = copy_file_to_file(in, staged.fd(), control);
    ::close(in);
    // Anything short of the whole file is thrown away and the old target stays.
    if (moved.end != MoveEnd::complete || !staged.commit())
        return false;
    size = static_cast<uint32_t>(moved.written);
    return true;
}

void CopyJob::add_nodes(const std::vector<CopyEntry>& entries, const std::string& name) {
    if (entries.empty() || !entries.front().done)
        return;
    std::unique_lock lock(server_.tree_mutex);
    if (!server_.vfs || !server_.accounts)
        return;
    // The destination may have left the tree while the copy ran.
    if (dest_ != server_.vfs->root && !dest_->parent_node())
        return;
    auto place = [&](const NodePtr& dir, const std::string& child_name,
                     const CopyEntry& e) -> NodePtr {
        NodePtr node = find_child(*dir, child_name);
        if (!node) {
            node = add_node(*server_.vfs, *server_.accounts, dir, child_name, e.kind, e.size,
                            e.owner, &server_.memory_allocated);
            if (!node)
                return nullptr;
            node->owner = e.owner;
            node->group = e.group;
            node->flags = e.flags;
        } else if (!node->is_dir()) {
            node->size = e.size;
        }
        return node;
    };
    NodePtr top = place(dest_, name, entries.front());
    if (!top)
        return;
    for (size_t i = 1; i < entries.size(); ++i) {
        const CopyEntry& e = entries[i];
        if (!e.done)
            continue;
        NodePtr dir = top;
        for (size_t k = 0; dir && k + 1 < e.path.size(); ++k)
            dir = find_child(*dir, e.path[k]);
        if (dir)
            place(dir, e.path.back(), e);
    }
}

} // namespace

void cp_thread(Server& server, const SlotPtr& slot, std::string arg) {
    CopyJob(server, slot).run(std::move(arg));
    server.log.logf("(%i) cp thread complete", slot->socket.load());
    send_shell_prompt(server, slot);
}

} // namespace orv::telnet
