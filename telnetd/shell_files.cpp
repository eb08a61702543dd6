#include "telnetd/shell_files.hpp"

#include "accounts/user.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "telnetd/shell_paths.hpp"
#include "telnetd/telnet_input.hpp"
#include "vfs/busy_mark.hpp"
#include "vfs/entry_rules.hpp"
#include "vfs/host_files.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <shared_mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace orv::telnet {
namespace {

bool is_normal(const VfsNode& node) {
    return node.status == kStatusNormal;
}

std::string make_directory(Server& server, const SlotPtr& slot, const std::string& word) {
    std::shared_ptr<User> user = slot->checked_user();
    NodePtr cwd = slot->cwd();
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs || !server.accounts)
        return {};
    VfsTree& tree = *server.vfs;
    if (!word.empty() && find_node(tree, word, cwd))
        return strf("mkdir: Failed; \"%s\" File already exists\r\n", word.c_str());
    SplitPath split = split_at_last_backslash(word);
    NodePtr parent = resolve_split_dir(tree, split, cwd);
    const std::string& name = split.pattern;
    if (!parent || !parent->is_dir() || !valid_new_name(name))
        return strf("mkdir: Failed; No such file or directory \"%s\"\r\n", word.c_str());
    if (!can_write(user.get(), *parent))
        return "mkdir: Permissions Denied\r\n";
    // A virtual path has a fixed limit; chains of directories must not grow past it.
    HostPath base = node_host_path(tree, *parent);
    if (base.empty() || !virtual_path_fits(*parent, name))
        return strf("mkdir: Failed; No such file or directory \"%s\"\r\n", word.c_str());
    if (!make_host_dir(child_host_path(base, name))) {
        if (errno == EEXIST)
            return strf("mkdir: Failed; \"%s\" File already exists\r\n", word.c_str());
        // ELOOP and EXDEV: the directory was replaced by a link on the host.
        if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == EXDEV)
            return strf("mkdir: Failed; No such file or directory \"%s\"\r\n", word.c_str());
        return "mkdir: Permissions Denied\r\n";
    }
    add_node(tree, *server.accounts, parent, name, 'd', 0, user, &server.memory_allocated);
    return {};
}

std::string remove_directory(Server& server, const SlotPtr& slot, const std::string& word) {
    std::shared_ptr<User> user = slot->checked_user();
    NodePtr cwd = slot->cwd();
    std::vector<NodePtr> graveyard;
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs)
        return {};
    VfsTree& tree = *server.vfs;
    NodePtr node = word.empty() ? nullptr : find_node(tree, word, cwd);
    if (!node)
        return strf("rmdir: No such file or Directory \"%s\"\r\n", word.c_str());
    if (!node->children.empty())
        return strf("rmdir: Failed to remove directory \"%s\"; Not Empty\r\n", word.c_str());
    NodePtr parent = node->parent_node();
    // The root and the root of a mount stand for host directories that are not ours to remove.
    if (!parent || is_mount_point(*node) || !can_read(user.get(), *node) ||
        !can_write(user.get(), *node) || !may_take_out(user.get(), *node))
        return strf("rmdir: Permissions Denied \"%s\"\r\n", word.c_str());
    BusyMark mark(node);
    if (!mark)
        return "rmdir: File Busy\r\n";
    if (!remove_host_dir(node_host_path(tree, *node))) {
        std::string last = word.substr(
            word.find_last_of("\\/") == std::string::npos ? 0 : word.find_last_of("\\/") + 1);
        return strf("rmdir: Failed to remove directory \"%s\"; in Use\r\n", last.c_str());
    }
    if (slot->cwd() == node)
        slot->set_cwd(parent);
    free_subtree(node, &server.memory_allocated, graveyard);
    return {};
}

// Removes one node's host file and the node; the answer text on failure.
std::string remove_file(VfsTree& tree, const NodePtr& node, const std::string& shown,
                        std::atomic<long>* memory, std::vector<NodePtr>& graveyard) {
    // A file removal, not remove(): a directory must be refused as the platform's file
    // deletion does.
    if (is_mount_point(*node) || !remove_host_file(node_host_path(tree, *node)))
        return strf("rm: Failed to remove file \"%s\"; in Use or Directory\r\n", shown.c_str());
    free_subtree(node, memory, graveyard);
    return {};
}

std::string remove_one(Server& server, const User* user, const NodePtr& cwd,
                       const std::string& word, std::vector<NodePtr>& graveyard) {
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs)
        return {};
    VfsTree& tree = *server.vfs;
    NodePtr node = word.empty() ? nullptr : find_node(tree, word, cwd);
    if (!node)
        return strf("rm: Failed to remove file \"%s\"; No such file or Directory\r\n",
                    word.c_str());
    if (!node->children.empty())
        return strf("rm: Failed to remove file \"%s\"; File is a Directory\r\n", word.c_str());
    if (!can_read(user, *node) || !can_write(user, *node) || !may_take_out(user, *node))
        return strf("rm: Permissions Denied \"%s\"\r\n", word.c_str());
    if (!is_normal(*node))
        return "rm: File Busy\r\n";
    return remove_file(tree, node, word, &server.memory_allocated, graveyard);
}

void remove_matches(Server& server, const SlotPtr& slot, const User* user, const NodePtr& cwd,
                    const std::string& word, std::vector<NodePtr>& graveyard) {
    SplitPath split = split_at_last_backslash(word);
    std::vector<NodePtr> matches;
    {
        std::shared_lock lock(server.tree_mutex);
        if (!server.vfs)
            return;
        NodePtr dir = resolve_split_dir(*server.vfs, split, cwd);
        for (NodePtr n = dir ? match_first(*dir, split.pattern) : nullptr; n;
             n = match_next(*n, split.pattern))
            matches.push_back(n);
    }
    if (matches.empty()) {
        slot->send_text(strf("rm: Failed to remove file \"%s\"; No such file or Directory\r\n",
                             split.pattern.c_str()));
        return;
    }
    for (const NodePtr& node : matches) {
        if (command_interrupted(server, *slot))
            return;
        std::string answer;
        {
            std::unique_lock lock(server.tree_mutex);
            if (!node->parent_node())
                continue; // removed meanwhile
            if (!can_read(user, *node) || !can_write(user, *node) || !may_take_out(user, *node))
                answer = strf("rm: \"%s\"; Permissions Denied\r\n", node->name.c_str());
            else if (!is_normal(*node))
                answer = "rm: File Busy\r\n";
            else
                answer =
                    remove_file(*server.vfs, node, node->name, &server.memory_allocated, graveyard);
        }
        if (!answer.empty())
            slot->send_text(answer);
    }
}

// The checks and moves of mv, under the tree lock; the answer texts in order.
std::string move_nodes(Server& server, const User* user, const NodePtr& cwd, std::string arg) {
    std::string source_word = next_word(arg);
    if (source_word.empty())
        return "mv: No File to Move Specified\r\n";
    bool pattern_mode = has_wildcard(source_word);
    SplitPath split = split_at_last_backslash(source_word);
    std::string dest_word = next_word(arg);
    if (dest_word.empty())
        return "mv: No Destination File Specified\r\n";

    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs)
        return {};
    VfsTree& tree = *server.vfs;
    NodePtr source =
        pattern_mode ? resolve_split_dir(tree, split, cwd) : find_node(tree, source_word, cwd);
    if (!source)
        return strf("mv: \"%s\"; File does not Exist\r\n", source_word.c_str());
    NodePtr dest = find_node(tree, dest_word, cwd);
    if (!dest)
        return "mv: Move File failed; Destination does not Exist\r\n";
    // A single source leaves its directory, which the user must be allowed to write; in
    // pattern mode the source is that directory itself.
    bool source_movable = pattern_mode || (may_take_out(user, *source) && !is_mount_point(*source));
    if (!source_movable || !can_read_path(user, *source) || !can_write(user, *source) ||
        !can_read_path(user, *dest) || !can_write(user, *dest))
        return "mv: Permissions Denied\r\n";
    if (!is_normal(*source) || !is_normal(*dest))
        return "mv: File Busy\r\n";
    dest->status = kStatusBusy;
    HostPath dest_host = node_host_path(tree, *dest);

    auto move_one = [&](const NodePtr& node) -> std::string {
        if (find_child(*dest, node->name))
            return strf("mv: Move File failed \"%s\"; File already Exists in Destination\r\n",
                        node->name.c_str());
        // A mount point, or a directory holding one, stays where its mount says it is; a move
        // must not make a virtual path longer than the tree holds.
        if (is_mount_point(*node) || holds_mount_point(*node) || is_within(dest, node) ||
            !virtual_path_fits(*dest, node->name, depth_below(*node)) || dest_host.empty() ||
            !rename_host(node_host_path(tree, *node), child_host_path(dest_host, node->name)))
            return strf("mv: Move File failed \"%s\"; Destination in Use\r\n", node->name.c_str());
        relink_node(node, dest);
        return {};
    };

    std::string out;
    if (pattern_mode) {
        // The matches are taken first: a moved node leaves the directory being walked.
        std::vector<NodePtr> matches;
        for (NodePtr n = match_first(*source, split.pattern); n; n = match_next(*n, split.pattern))
            matches.push_back(n);
        for (const NodePtr& node : matches) {
            if (!can_read_path(user, *node) || !can_write(user, *node))
                out += strf("mv: \"%s\"; Permissions Denied\r\n", node->name.c_str());
            else if (!is_normal(*node))
                out += strf("mv: File Busy - %s\r\n", node->name.c_str());
            else
                out += move_one(node);
        }
    } else {
        source->status = kStatusBusy;
        out += move_one(source);
        source->status = kStatusNormal;
    }
    dest->status = kStatusNormal;
    return out;
}

} // namespace

bool is_within(const NodePtr& node, const NodePtr& ancestor) {
    for (NodePtr n = node; n; n = n->parent_node()) {
        if (n == ancestor)
            return true;
    }
    return false;
}

bool command_interrupted(const Server& server, const ConnSlot& slot) {
    return slot.state == kStateInterrupt || slot.stop != 0 || server.stopping;
}

void mkdir_command(Server& server, const SlotPtr& slot, std::string arg) {
    std::string answer = make_directory(server, slot, next_word(arg));
    if (!answer.empty())
        slot->send_text(answer);
    send_shell_prompt(server, slot);
}

void rmdir_command(Server& server, const SlotPtr& slot, std::string arg) {
    std::string answer = remove_directory(server, slot, next_word(arg));
    if (!answer.empty())
        slot->send_text(answer);
    send_shell_prompt(server, slot);
}

void rm_thread(Server& server, const SlotPtr& slot, std::string arg) {
    std::string word = next_word(arg);
    std::shared_ptr<User> user = slot->checked_user();
    NodePtr cwd = slot->cwd();
    // Removed nodes are dropped here, after the tree lock has been released.
    std::vector<NodePtr> graveyard;
    if (has_wildcard(word)) {
        remove_matches(server, slot, user.get(), cwd, word, graveyard);
    } else {
        std::string answer = remove_one(server, user.get(), cwd, word, graveyard);
        if (!answer.empty())
            slot->send_text(answer);
    }
    int socket = slot->socket;
    send_shell_prompt(server, slot);
    server.log.logf("(%i) rm thread complete", socket);
}

void mv_thread(Server& server, const SlotPtr& slot, std::string arg) {
    std::shared_ptr<User> user = slot->checked_user();
    std::string out = move_nodes(server, user.get(), slot->cwd(), std::move(arg));
    if (!out.empty())
        slot->send_text(out);
    server.log.logf("(%i) mv thread complete", slot->socket.load());
    send_shell_prompt(server, slot);
}

} // namespace orv::telnet
