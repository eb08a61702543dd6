#pragma once
// A temporary directory for one test, removed with everything in it afterwards.
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace orv::test {

class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }
    // Writes a file (creating its folders) with exactly these bytes.
    void write(std::string_view relative, std::string_view content) const;
    std::string read(std::string_view relative) const;

  private:
    std::filesystem::path path_;
};

} // namespace orv::test
