#include "vfs/tree.hpp"

#include "core/settings.hpp"

#include <algorithm>

namespace orv {

namespace {

bool is_separator(char c) {
    return c == '\\' || c == '/';
}

// The nodes from `node` up to the top of its tree (the root, or the top of a detached
// subtree), node first. Holding them keeps the walk valid even if a link changes meanwhile.
std::vector<NodePtr> chain_to_top(const VfsNode& node) {
    std::vector<NodePtr> chain;
    for (NodePtr p = node.parent_node(); p; p = p->parent_node())
        chain.push_back(p);
    return chain;
}

} // namespace

NodePtr find_child(const VfsNode& dir, std::string_view name) {
    for (const NodePtr& child : dir.children)
        if (child->name == name)
            return child;
    return nullptr;
}

NodePtr find_node(const VfsTree& tree, std::string_view path, const NodePtr& cwd) {
    if (path.empty())
        return nullptr;
    NodePtr node = cwd;
    if (is_separator(path.front())) {
        node = tree.root;
        path.remove_prefix(1);
    }
    while (node && !path.empty()) {
        size_t end = 0;
        while (end < path.size() && !is_separator(path[end]))
            ++end;
        std::string_view part = path.substr(0, end);
        path.remove_prefix(end < path.size() ? end + 1 : end);
        if (part == ".")
            continue;
        if (part == "..") {
            if (NodePtr up = node->parent_node())
                node = std::move(up);
            continue;
        }
        // An empty part (as in a//b) matches no child: no node but the root has an empty name.
        node = find_child(*node, part);
    }
    return node;
}

std::string next_word(std::string& text) {
    size_t pos = text.find_first_not_of(' ');
    if (pos == std::string::npos) {
        text.clear();
        return {};
    }
    std::string word;
    size_t rest;
    if (text[pos] == '"') {
        size_t close = text.find('"', pos + 1);
        if (close == std::string::npos) {
            word = text.substr(pos + 1);
            rest = text.size();
        } else {
            word = text.substr(pos + 1, close - pos - 1);
            rest = close + 1;
        }
    } else {
        size_t blank = text.find(' ', pos);
        if (blank == std::string::npos)
            blank = text.size();
        word = text.substr(pos, blank - pos);
        rest = blank;
    }
    rest = std::min(text.find_first_not_of(' ', rest), text.size());
    text.erase(0, rest);
    return word;
}

bool virtual_path_fits(const VfsNode& dir, std::string_view name, size_t depth_below) {
    std::string parent = node_virtual_path(dir, '\\');
    size_t length = parent.size() + (parent.size() > 1 ? 1 : 0) + name.size() + depth_below;
    return length <= kMaxVirtualPath;
}

std::string node_virtual_path(const VfsNode& node, char sep) {
    std::vector<const VfsNode*> parts;
    std::vector<NodePtr> chain = chain_to_top(node);
    const VfsNode* top = chain.empty() ? &node : chain.back().get();
    // Every name but the top's when the top is the (nameless) root.
    if (&node != top || !node.name.empty())
        parts.push_back(&node);
    for (const NodePtr& p : chain)
        if (p.get() != top || !top->name.empty())
            parts.push_back(p.get());
    if (parts.empty())
        return std::string(1, sep);
    std::string out;
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
        out += sep;
        out += (*it)->name;
    }
    return out;
}

std::string mount_host_dir(const VfsTree& tree, const MountRec& mount) {
    return resolve_configured_path(tree.start_dir, mount.real_dir);
}

HostPath node_host_path(const VfsTree& tree, const VfsNode& node) {
    std::vector<NodePtr> chain = chain_to_top(node);
    const VfsNode* top = chain.empty() ? &node : chain.back().get();
    if (!tree.root || top != tree.root.get())
        return {}; // detached: its host path may now belong to something else

    // The names below the base: for a mounted node up to its mount point (the topmost node
    // of that mount, which stands for the real directory), otherwise up to the root.
    std::vector<const VfsNode*> below;
    const MountRec* mount = node.mount.get();
    const VfsNode* cur = &node;
    for (const NodePtr& p : chain) {
        if (mount && p->mount.get() != mount)
            break;
        below.push_back(cur);
        cur = p.get();
    }
    HostPath out;
    out.base = mount ? mount_host_dir(tree, *mount) : tree.home;
    if (out.base.empty())
        return {};
    for (auto it = below.rbegin(); it != below.rend(); ++it) {
        if (!out.relative.empty())
            out.relative += '/';
        out.relative += (*it)->name;
    }
    return out;
}

std::string HostPath::joined() const {
    if (base.empty() || relative.empty())
        return base;
    return base.back() == '/' ? base + relative : base + '/' + relative;
}

std::string node_real_path(const VfsTree& tree, const VfsNode& node) {
    return node_host_path(tree, node).joined();
}

} // namespace orv
