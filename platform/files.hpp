#pragma once
// Whole-file helpers used by the table readers and writers.
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace orv {

bool read_whole_file(const std::filesystem::path& path, std::string& out);

// Reads a text file the way a fgets loop with a buffer of `buffer_size` bytes does: each call
// of `line` gets at most buffer_size - 1 bytes, ending at and including a line feed when one
// comes first (so an overlong line arrives in pieces). Returns false when the file cannot be
// opened.
bool for_each_fgets_line(const std::filesystem::path& path, size_t buffer_size,
                         const std::function<void(std::string_view)>& line);

// Cuts a line at its first line feed and drops a carriage return before it, so that files
// written with either line ending read the same.
std::string_view cut_line_end(std::string_view line);

// Writes a temporary file in the same folder and renames it over `path`, so that a crash
// never leaves a truncated table. `mode` is applied to the new file before the rename.
bool write_file_atomic(const std::filesystem::path& path, std::string_view content,
                       unsigned mode = 0644);

// The same written piece by piece, for tables too large to build whole in memory: append()
// buffers, commit() flushes, syncs and renames over the target. Without a successful commit()
// (a write failed, or the writer is dropped) the temporary file is removed and the target is
// left as it was.
class AtomicFileWriter {
  public:
    AtomicFileWriter(std::filesystem::path path, unsigned mode = 0644);
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    bool ok() const { return fd_ >= 0; }
    void append(std::string_view text);
    bool commit();

  private:
    bool flush();
    void abandon();
    std::filesystem::path path_;
    std::filesystem::path tmp_;
    int fd_ = -1;
    std::string buffer_;
};

// Opens `relative` below the directory `base` (an empty `relative` opens `base` itself) so that
// nothing a client names can lead out of it: a symbolic link is never followed at the last
// component, and one on the way is followed only while it stays below `base` (openat2 with
// RESOLVE_BENEATH). `flags` are open(2) flags; O_CLOEXEC and O_NOFOLLOW are added. Returns the
// descriptor, or -1 with errno set (ELOOP for a link, EXDEV for a way out of `base`).
int open_beneath(const std::string& base, std::string_view relative, int flags, unsigned mode = 0);

// True when the descriptor is open on a regular file (not a directory, FIFO or device).
bool is_regular_file(int fd);

} // namespace orv
