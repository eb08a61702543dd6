#include "vfs/tree.hpp"

namespace orv {

namespace {

// Base and extension parts are held in 32-byte fields.
constexpr size_t kMaxPart = 31;

struct NameParts {
    std::string_view base;
    std::string_view ext;
};

NameParts split(std::string_view text, std::string_view no_ext) {
    NameParts parts{text, no_ext};
    size_t first = text.find('.');
    if (first != std::string_view::npos) {
        parts.base = text.substr(0, first);
        parts.ext = text.substr(text.rfind('.') + 1);
    }
    parts.base = parts.base.substr(0, kMaxPart);
    parts.ext = parts.ext.substr(0, kMaxPart);
    return parts;
}

// "?" matches one character, "*" the rest of the name; a leading "*" matches anything.
bool part_matches(std::string_view name, std::string_view pattern) {
    for (size_t i = 0;; ++i) {
        if (i == pattern.size())
            return i == name.size();
        if (pattern[i] == '*')
            return true;
        if (i == name.size())
            return false;
        if (pattern[i] != '?' && pattern[i] != name[i])
            return false;
    }
}

} // namespace

bool wildcard_match(std::string_view name, std::string_view pattern) {
    NameParts want = split(pattern, "*");
    if (want.ext.empty())
        want.ext = "*"; // "abc." takes any extension
    NameParts have = split(name, "");
    return part_matches(have.base, want.base) && part_matches(have.ext, want.ext);
}

bool has_wildcard(std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos;
}

NodePtr match_first(const VfsNode& dir, std::string_view pattern) {
    for (const NodePtr& child : dir.children)
        if (wildcard_match(child->name, pattern))
            return child;
    return nullptr;
}

NodePtr match_next(const VfsNode& node, std::string_view pattern) {
    NodePtr dir = node.parent_node();
    if (!dir)
        return nullptr;
    bool after = false;
    for (const NodePtr& child : dir->children) {
        if (after && wildcard_match(child->name, pattern))
            return child;
        if (child.get() == &node)
            after = true;
    }
    return nullptr;
}

} // namespace orv
