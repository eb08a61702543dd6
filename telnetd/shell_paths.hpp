#pragma once
// The argument forms the shell commands share: a path split into a directory and a name
// pattern at its last "\", and option flags.
#include "vfs/node.hpp"

#include <string>
#include <string_view>

namespace orv {
class VfsTree;
}

namespace orv::telnet {

struct SplitPath {
    bool has_dir = false; // the path held a "\"
    std::string dir;      // text before the last "\" (empty: the root)
    std::string pattern;  // text after it, or the whole path
};

SplitPath split_at_last_backslash(std::string_view path);
// The directory of a split path: the current directory without a "\", the root for an empty
// directory part, otherwise the directory part resolved from the current directory (a
// leading "\" starts at the root). Null when it does not resolve. Tree lock held.
NodePtr resolve_split_dir(const VfsTree& tree, const SplitPath& split, const NodePtr& cwd);

// A first word with "-" anywhere is taken as option flags.
bool is_option_word(std::string_view word);
constexpr const char kFlagsIgnored[] = "*** option flags not supported yet (flags ignored) ***\r\n";

} // namespace orv::telnet
