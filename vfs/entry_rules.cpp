#include "vfs/entry_rules.hpp"

#include "vfs/tree.hpp"

#include <algorithm>
#include <utility>
#include <vector>

namespace orv {

bool may_take_out(const User* user, const VfsNode& node) {
    NodePtr parent = node.parent_node();
    return parent && can_write(user, *parent);
}

bool is_mount_point(const VfsNode& node) {
    if (!node.mount)
        return false;
    NodePtr parent = node.parent_node();
    return !parent || parent->mount != node.mount;
}

bool holds_mount_point(const VfsNode& node) {
    // An explicit stack: a deep tree must not exhaust the thread's stack.
    std::vector<const VfsNode*> stack{&node};
    while (!stack.empty()) {
        const VfsNode* n = stack.back();
        stack.pop_back();
        for (const NodePtr& child : n->children) {
            if (child->mount && child->mount != n->mount)
                return true;
            stack.push_back(child.get());
        }
    }
    return false;
}

size_t depth_below(const VfsNode& node) {
    size_t longest = 0;
    std::vector<std::pair<const VfsNode*, size_t>> stack{{&node, 0}};
    while (!stack.empty()) {
        auto [n, length] = stack.back();
        stack.pop_back();
        longest = std::max(longest, length);
        for (const NodePtr& child : n->children)
            stack.emplace_back(child.get(), length + 1 + child->name.size());
    }
    return longest;
}

} // namespace orv
