#pragma once
// A new version of a file, written beside it under another name and put in its place only when
// it is complete: a failed or concurrent upload never leaves a half-written or mixed file, and a
// failed overwrite keeps the old one.
#include <string>
#include <string_view>

namespace orv {

class StagedFile {
  public:
    StagedFile() = default;
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    // Opens the directory `dir_relative` below `base` (never through a symbolic link, never out
    // of `base`) and creates the file to write there: unnamed where the file system allows it,
    // so that a crash leaves nothing behind, else under a hidden temporary name. An existing
    // regular file `name` lends its permission bits; otherwise `mode` applies. False (errno
    // set) when the directory cannot be opened or written.
    bool open(const std::string& base, std::string_view dir_relative, std::string_view name,
              unsigned mode = 0644);
    int fd() const { return fd_; }

    // Puts the written file in place of `name`, replacing a file of that name in one step.
    // False when it cannot (a write error shown at close, the directory gone, a directory of
    // that name): the staged bytes are thrown away and the old file stays.
    bool commit();
    // Throws the staged bytes away; the destructor does so when commit() was not called.
    void discard();

  private:
    bool link_unnamed();
    void close_all();

    int dir_ = -1;
    int fd_ = -1;
    std::string name_;
    std::string temp_; // the temporary name, once the file has one
};

} // namespace orv
