#include "telnetd/shell_paths.hpp"

#include "vfs/tree.hpp"

namespace orv::telnet {

SplitPath split_at_last_backslash(std::string_view path) {
    SplitPath split;
    size_t at = path.rfind('\\');
    if (at == std::string_view::npos) {
        split.pattern = std::string(path);
        return split;
    }
    split.has_dir = true;
    split.dir = std::string(path.substr(0, at));
    split.pattern = std::string(path.substr(at + 1));
    return split;
}

NodePtr resolve_split_dir(const VfsTree& tree, const SplitPath& split, const NodePtr& cwd) {
    if (!split.has_dir)
        return cwd;
    if (split.dir.empty())
        return tree.root;
    return find_node(tree, split.dir, cwd);
}

bool is_option_word(std::string_view word) {
    return word.find('-') != std::string_view::npos;
}

} // namespace orv::telnet
