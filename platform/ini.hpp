#pragma once
// INI profile reading and writing with the semantics of the classic profile API:
// section and key names match without regard to case, the first occurrence wins,
// values are trimmed, and writing a key replaces it in place (or adds it).
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

class IniFile {
  public:
    // A missing or unreadable file gives an empty profile.
    static IniFile load(const std::filesystem::path& path);
    static IniFile parse(std::string_view text);

    std::string get_string(std::string_view section, std::string_view key,
                           std::string_view fallback) const;
    // A present value that is not a number reads as 0, as the profile API does.
    int get_int(std::string_view section, std::string_view key, int fallback) const;

    void set(std::string_view section, std::string_view key, std::string_view value);

    std::string text() const;
    // Written atomically (temporary file and rename).
    bool save(const std::filesystem::path& path) const;

  private:
    struct Line {
        std::string raw;     // the line as read (or written)
        std::string section; // set on section lines
        std::string key;     // set on key lines
        std::string value;
        enum Kind { Other, Section, Key } kind = Other;
    };
    const Line* find(std::string_view section, std::string_view key) const;
    std::vector<Line> lines_;
};

} // namespace orv
