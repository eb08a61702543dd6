#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "platform/files.hpp"
#include "vfs/build.hpp"
#include "vfs/table_lines.hpp"
#include "vfs/tree.hpp"

#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <unordered_set>

namespace orv {

namespace {

// A name with the field separator or a line end would break its line apart.
bool representable(const std::string& name) {
    return name.find_first_of(":\r\n") == std::string::npos;
}

void append_line(std::string& out, const std::string& path, const VfsNode& node) {
    out += path;
    out += ':';
    out += node.kind;
    out += ':';
    if (node.creator)
        out += node.creator->name;
    out += ':';
    if (node.owner)
        out += node.owner->name;
    out += ':';
    for (uint8_t flag : node.flags)
        out += std::to_string(flag);
    if (node.group) {
        out += ':';
        out += node.group->name;
    }
    out += '\n';
}

// Every line of the list in pre-order from the root, children in chain order, each handed
// to `sink`. Iterative, so that a tree as deep as the path limit allows cannot exhaust the
// stack, and line by line, so that a large tree is never held twice in memory.
template <typename Sink> void for_each_fpl_line(const VfsTree& tree, Sink&& sink) {
    if (!tree.root)
        return;
    std::string line;
    append_line(line, "\\", *tree.root);
    sink(line);
    struct Level {
        const VfsNode* dir;
        size_t next;        // the next child to write
        size_t prefix_size; // the prefix's length before this directory's name
    };
    std::string prefix;
    std::vector<Level> levels{{tree.root.get(), 0, 0}};
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.dir->children.size()) {
            prefix.resize(level.prefix_size);
            levels.pop_back();
            continue;
        }
        const VfsNode& child = *level.dir->children[level.next++];
        if (!representable(child.name))
            continue;
        size_t keep = prefix.size();
        prefix += '\\';
        prefix += child.name;
        line.clear();
        append_line(line, prefix, child);
        sink(line);
        if (child.children.empty())
            prefix.resize(keep);
        else
            levels.push_back({&child, 0, keep});
    }
}

std::vector<std::string_view> split_fields(std::string_view line) {
    std::vector<std::string_view> fields;
    for (;;) {
        size_t colon = line.find(':');
        fields.push_back(line.substr(0, colon));
        if (colon == std::string_view::npos)
            return fields;
        line.remove_prefix(colon + 1);
    }
}

// Resolves fpl paths as find_node does, with a name index for large directories so that a
// directory of many thousand files does not make start-up quadratic.
class PathIndex {
  public:
    explicit PathIndex(const VfsTree& tree) : tree_(tree) {}

    NodePtr find(std::string_view path) {
        if (path.empty() || (path.front() != '\\' && path.front() != '/'))
            return find_node(tree_, path, tree_.root);
        NodePtr node = tree_.root;
        path.remove_prefix(1);
        while (node && !path.empty()) {
            size_t end = path.find_first_of("\\/");
            std::string_view part = path.substr(0, end);
            path = end == std::string_view::npos ? std::string_view() : path.substr(end + 1);
            if (part == ".")
                continue;
            if (part == "..") {
                if (NodePtr up = node->parent_node())
                    node = std::move(up);
                continue;
            }
            node = child(*node, part);
        }
        return node;
    }

  private:
    static constexpr size_t kIndexFrom = 64;

    NodePtr child(const VfsNode& dir, std::string_view name) {
        if (dir.children.size() < kIndexFrom)
            return find_child(dir, name);
        auto [it, made] = index_.try_emplace(&dir);
        if (made)
            for (const NodePtr& c : dir.children)
                it->second.emplace(c->name, c); // the first of equal names wins
        auto found = it->second.find(name);
        return found == it->second.end() ? nullptr : found->second;
    }

    const VfsTree& tree_;
    std::unordered_map<const VfsNode*, std::unordered_map<std::string_view, NodePtr>> index_;
};

std::shared_ptr<User> user_named(Accounts& accounts, std::string_view name) {
    // No name means no user; an overlong one cannot be a user's.
    if (name.empty() || name.size() > kMaxUserName)
        return nullptr;
    return accounts.find_or_make_user(name);
}

void apply_line(std::string_view line, PathIndex& index, Accounts& accounts,
                std::unordered_set<const VfsNode*>& listed) {
    std::vector<std::string_view> fields = split_fields(line);
    if (fields.size() < 5)
        return; // not a record: better left alone than guessed at
    NodePtr node = index.find(fields[0]);
    if (!node)
        return;
    // fields[1], the kind, always comes from the disk.
    node->creator = user_named(accounts, fields[2]);
    node->owner = user_named(accounts, fields[3]);
    std::string_view flags = fields[4];
    for (size_t i = 0; i < node->flags.size(); ++i) {
        char c = i < flags.size() ? flags[i] : '0';
        node->flags[i] = c >= '0' && c <= '9' ? static_cast<uint8_t>(c - '0') : 0;
    }
    node->group = fields.size() > 5 ? accounts.find_group(fields[5]) : nullptr;
    listed.insert(node.get());
}

// Nodes that the list does not name (new on the disk since the last run) take what their
// directory has.
// A directory is settled before its children take from it.
void inherit_unlisted(VfsNode& top, const std::unordered_set<const VfsNode*>& listed) {
    std::vector<VfsNode*> todo{&top};
    while (!todo.empty()) {
        VfsNode& dir = *todo.back();
        todo.pop_back();
        for (const NodePtr& child : dir.children) {
            if (!listed.count(child.get())) {
                child->creator = dir.creator;
                child->owner = dir.owner;
                child->group = dir.group;
                child->flags = dir.flags;
            }
            todo.push_back(child.get());
        }
    }
}

} // namespace

std::string fpl_text(const VfsTree& tree) {
    std::string out;
    for_each_fpl_line(tree, [&](std::string_view line) { out += line; });
    return out;
}

uint64_t fpl_digest(const VfsTree& tree) {
    uint64_t digest = 1469598103934665603ull; // FNV-1a
    for_each_fpl_line(tree, [&](std::string_view line) {
        for (unsigned char c : line) {
            digest ^= c;
            digest *= 1099511628211ull;
        }
    });
    return digest;
}

bool write_fpl(const Server& server) {
    // Written while the tree is walked: the lock is shared, so sessions keep reading; only
    // changes to the tree wait for the local file write.
    std::shared_lock lock(server.tree_mutex);
    if (!server.vfs || !server.vfs->root)
        return false;
    AtomicFileWriter out(server.table_path("fpl.txt"));
    if (!out.ok())
        return false;
    for_each_fpl_line(*server.vfs, [&](std::string_view line) { out.append(line); });
    return out.commit();
}

void verify_files(Server& server) {
    // A line holds a path of up to kMaxVirtualPath bytes besides its other fields.
    auto lines = read_table_lines(server.table_path("fpl.txt"), kMaxVirtualPath + 1024);
    if (!lines)
        return;
    server.log_message("Verifying files...");
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs || !server.vfs->root || !server.accounts)
        return;
    PathIndex index(*server.vfs);
    std::unordered_set<const VfsNode*> listed;
    for (const std::string& line : *lines)
        apply_line(line, index, *server.accounts, listed);
    inherit_unlisted(*server.vfs->root, listed);
}

} // namespace orv
