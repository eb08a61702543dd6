#include "vfs/table_lines.hpp"

#include "platform/files.hpp"

namespace orv {

std::optional<std::vector<std::string>> read_table_lines(const std::filesystem::path& path,
                                                         size_t buffer_size) {
    std::vector<std::string> pieces;
    if (!for_each_fgets_line(path, buffer_size,
                             [&](std::string_view piece) { pieces.emplace_back(piece); }))
        return std::nullopt;
    std::vector<std::string> lines;
    bool in_overlong = false;
    for (size_t i = 0; i < pieces.size(); ++i) {
        bool complete = pieces[i].ends_with('\n') || i + 1 == pieces.size();
        if (!in_overlong && complete)
            lines.emplace_back(cut_line_end(pieces[i]));
        in_overlong = !complete;
    }
    return lines;
}

} // namespace orv
