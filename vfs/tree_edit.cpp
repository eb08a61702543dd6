#include "accounts/accounts.hpp"
#include "vfs/tree.hpp"

#include <algorithm>

namespace orv {

namespace {

constexpr size_t kMaxName = 255;

void take_from_parent(VfsNode& node) {
    if (NodePtr parent = node.parent_node()) {
        auto& kids = parent->children;
        kids.erase(std::remove_if(kids.begin(), kids.end(),
                                  [&](const NodePtr& child) { return child.get() == &node; }),
                   kids.end());
    }
    node.parent.reset();
}

void set_mount_below(VfsNode& node, const std::shared_ptr<MountRec>& mount) {
    std::vector<VfsNode*> todo{&node};
    while (!todo.empty()) {
        VfsNode* n = todo.back();
        todo.pop_back();
        n->mount = mount;
        for (const NodePtr& child : n->children)
            todo.push_back(child.get());
    }
}

} // namespace

bool valid_new_name(std::string_view name) {
    if (name.empty() || name.size() > kMaxName || name == "." || name == "..")
        return false;
    return name.find_first_of(std::string_view("/\\:\r\n\0", 7)) == std::string_view::npos;
}

long count_subtree(const VfsNode& node) {
    long count = 0;
    std::vector<const VfsNode*> todo{&node};
    while (!todo.empty()) {
        const VfsNode* n = todo.back();
        todo.pop_back();
        ++count;
        for (const NodePtr& child : n->children)
            todo.push_back(child.get());
    }
    return count;
}

NodePtr add_node(VfsTree& tree, Accounts& accounts, const NodePtr& dir, std::string name, char kind,
                 uint32_t size, std::shared_ptr<User> owner, std::atomic<long>* memory_counter) {
    (void)tree;
    auto node = std::make_shared<VfsNode>();
    node->name = std::move(name);
    node->kind = kind;
    node->size = kind == 'd' ? 0 : size;
    node->mount = dir->mount;
    node->group = dir->group;
    node->flags = dir->flags;
    if (!owner)
        owner = accounts.root_user();
    node->owner = owner;
    node->creator = std::move(owner);
    node->parent = dir;
    dir->children.push_back(node);
    if (memory_counter)
        *memory_counter += VfsTree::kNodeRecordSize;
    return node;
}

void unlink_node(const NodePtr& node, std::atomic<long>* memory_counter) {
    take_from_parent(*node);
    if (memory_counter)
        *memory_counter -= count_subtree(*node) * VfsTree::kNodeRecordSize;
}

bool relink_node(const NodePtr& node, const NodePtr& dest) {
    // Linking a directory below itself would cut the pair off the tree in a cycle.
    for (NodePtr p = dest; p; p = p->parent_node())
        if (p == node)
            return false;
    take_from_parent(*node);
    node->parent = dest;
    dest->children.push_back(node);
    set_mount_below(*node, dest->mount);
    return true;
}

void free_subtree(const NodePtr& node, std::atomic<long>* memory_counter,
                  std::vector<NodePtr>& graveyard) {
    unlink_node(node, memory_counter);
    size_t first = graveyard.size();
    graveyard.push_back(node);
    for (size_t i = first; i < graveyard.size(); ++i) {
        VfsNode& n = *graveyard[i];
        for (NodePtr& child : n.children) {
            child->parent.reset();
            graveyard.push_back(std::move(child));
        }
        n.children.clear();
    }
}

} // namespace orv
