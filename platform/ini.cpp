#include "platform/ini.hpp"

#include "platform/files.hpp"
#include "platform/text.hpp"

#include <strings.h>

namespace orv {
namespace {

std::string_view trim_space(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

bool iequal(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

} // namespace

IniFile IniFile::load(const std::filesystem::path& path) {
    std::string text;
    if (!read_whole_file(path, text))
        return IniFile{};
    return parse(text);
}

IniFile IniFile::parse(std::string_view text) {
    IniFile ini;
    std::string current;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view raw = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        Line line;
        line.raw = std::string(trim_space(raw));
        std::string_view t = trim_space(raw);
        if (!t.empty() && t.front() == '[') {
            size_t close = t.find(']');
            line.kind = Line::Section;
            line.section = std::string(trim_space(
                t.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1)));
            current = line.section;
        } else if (!t.empty() && t.front() != ';' && t.find('=') != std::string_view::npos) {
            size_t eq = t.find('=');
            line.kind = Line::Key;
            line.section = current;
            line.key = std::string(trim_space(t.substr(0, eq)));
            std::string_view value = trim_space(t.substr(eq + 1));
            // A value in double quotes loses them, as the profile API does.
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
                value = value.substr(1, value.size() - 2);
            line.value = std::string(value);
        }
        ini.lines_.push_back(std::move(line));
    }
    return ini;
}

const IniFile::Line* IniFile::find(std::string_view section, std::string_view key) const {
    for (const Line& line : lines_)
        if (line.kind == Line::Key && iequal(line.section, section) && iequal(line.key, key))
            return &line;
    return nullptr;
}

std::string IniFile::get_string(std::string_view section, std::string_view key,
                                std::string_view fallback) const {
    const Line* line = find(section, key);
    return std::string(line ? std::string_view(line->value) : fallback);
}

int IniFile::get_int(std::string_view section, std::string_view key, int fallback) const {
    const Line* line = find(section, key);
    return line ? to_int(line->value) : fallback;
}

void IniFile::set(std::string_view section, std::string_view key, std::string_view value) {
    for (Line& line : lines_) {
        if (line.kind == Line::Key && iequal(line.section, section) && iequal(line.key, key)) {
            line.value = std::string(value);
            line.raw = line.key + "=" + line.value;
            return;
        }
    }
    // Insert after the last line of the section, or add the section at the end.
    size_t insert_at = lines_.size();
    bool found_section = false;
    std::string section_name(section);
    for (size_t i = 0; i < lines_.size(); ++i) {
        if (lines_[i].kind == Line::Section) {
            if (found_section)
                break;
            if (iequal(lines_[i].section, section)) {
                found_section = true;
                section_name = lines_[i].section;
                insert_at = i + 1;
            }
        } else if (found_section && !lines_[i].raw.empty()) {
            insert_at = i + 1;
        }
    }
    if (!found_section) {
        Line head;
        head.kind = Line::Section;
        head.section = section_name;
        head.raw = "[" + section_name + "]";
        lines_.push_back(head);
        insert_at = lines_.size();
    }
    Line line;
    line.kind = Line::Key;
    line.section = section_name;
    line.key = std::string(key);
    line.value = std::string(value);
    line.raw = line.key + "=" + line.value;
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(insert_at), line);
}

std::string IniFile::text() const {
    std::string out;
    for (const Line& line : lines_) {
        out += line.raw;
        out += '\n';
    }
    return out;
}

bool IniFile::save(const std::filesystem::path& path) const {
    return write_file_atomic(path, text(), 0644);
}

} // namespace orv
