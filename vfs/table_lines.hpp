#pragma once
// Reading the vfs tables (mounts, fpl.txt) line by line with a fixed line buffer.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace orv {

// The lines of a table read with a line buffer of `buffer_size` bytes, each cut at its line
// end. A line too long for the buffer would arrive in pieces, and a piece could pass for a
// record of its own, so such a line is dropped whole. Nothing when the file cannot be opened.
std::optional<std::vector<std::string>> read_table_lines(const std::filesystem::path& path,
                                                         size_t buffer_size = 1024);

} // namespace orv
