// The shell's argument handling: the command look-up, the word reader (quoted words), the split
// of a path at its last "\", option words, the chmod mode parser, path resolution and the
// wildcard match on a small tree.
#include "fuzz/fuzz_world.hpp"
#include "telnetd/shell_dispatch.hpp"
#include "telnetd/shell_ownership.hpp"
#include "telnetd/shell_paths.hpp"
#include "vfs/tree.hpp"

#include <fuzzer/FuzzedDataProvider.h>

using namespace orv;
using namespace orv::telnet;

namespace {

void check_mode(std::string_view mode) {
    ModeParse parsed = parse_chmod_mode(mode);
    bool octal = mode.find_first_not_of("01234567") == std::string_view::npos;
    if (parsed.kind == ModeParse::Ok) {
        fuzz::check(octal && mode.size() <= 3, "accepted a mode that is not 1 to 3 octal digits");
        // The flags read back as the digits, padded on the left with "0".
        std::string padded = std::string(3 - mode.size(), '0') + std::string(mode);
        for (size_t d = 0; d < 3; ++d) {
            int v = padded[d] - '0';
            fuzz::check(parsed.flags[d * 3] == ((v & 4) ? 1 : 0) &&
                            parsed.flags[d * 3 + 1] == ((v & 2) ? 1 : 0) &&
                            parsed.flags[d * 3 + 2] == ((v & 1) ? 1 : 0),
                        "mode digit read wrongly");
        }
    } else if (parsed.kind == ModeParse::Invalid) {
        fuzz::check(octal && mode.size() > 3, "invalid-mode answer for a mode that is not long");
    } else if (parsed.kind == ModeParse::Symbolic) {
        fuzz::check(!octal && mode.find_first_not_of("ugoa+-=rwx") == std::string_view::npos,
                    "symbolic answer for a mode that is not symbolic");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::World world; // only read here
    const VfsTree& tree = *world.server().vfs;
    FuzzedDataProvider input(data, size);
    std::string line = input.ConsumeRandomLengthString(600);
    std::string pattern = input.ConsumeRandomLengthString(64);
    std::string rest = input.ConsumeRemainingBytesAsString();

    std::string command = line;
    int index = find_shell_command(command);
    fuzz::check(index >= -1 && index < static_cast<int>(kShellCommandCount), "command index");
    fuzz::check(command.size() <= line.size(), "command look-up grew the line");

    // The word reader always makes progress and never invents text.
    std::string text = command;
    for (int guard = 0; !text.empty(); ++guard) {
        fuzz::check(guard <= 700, "word reader does not make progress");
        size_t before = text.size();
        std::string word = next_word(text);
        fuzz::check(text.size() < before, "word reader left the text as it was");
        fuzz::check(word.size() <= before, "word longer than the text");
        is_option_word(word);
        check_mode(word);

        SplitPath split = split_at_last_backslash(word);
        fuzz::check(split.pattern.find('\\') == std::string::npos, "pattern holds a backslash");
        NodePtr dir = resolve_split_dir(tree, split, world.node("\\pub"));
        NodePtr node = find_node(tree, word, world.node("\\pub\\sub"));
        if (node)
            fuzz::check(find_node(tree, node_virtual_path(*node, '\\'), nullptr) == node,
                        "a node's path does not lead back to it");
        if (dir && dir->is_dir()) {
            for (NodePtr m = match_first(*dir, split.pattern); m; m = match_next(*m, split.pattern))
                fuzz::check(wildcard_match(m->name, split.pattern), "match walk disagrees");
        }
    }
    wildcard_match(rest, pattern);
    check_mode(pattern);
    return 0;
}
