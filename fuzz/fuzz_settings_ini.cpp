// settings.ini: the profile reader, the six settings read from it and written back. Whatever
// the file holds, the numbers survive a write and a second read unchanged.
#include "core/settings.hpp"
#include "fuzz/fuzz_world.hpp"
#include "platform/ini.hpp"

#include <algorithm>

using namespace orv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::filesystem::path path = fuzz::write_scratch("settings.ini", text);
    Settings first = read_settings(path);
    fuzz::check(first.serverhome.size() <= 259, "server home over its limit");

    // The settings dialog writes the values back into the same file.
    fuzz::check(write_settings(path, first), "settings could not be written");
    Settings second = read_settings(path);
    fuzz::check(second.maxusers == first.maxusers && second.telnet == first.telnet &&
                    second.ftp == first.ftp && second.telnet_port == first.telnet_port &&
                    second.ftp_port == first.ftp_port,
                "a number changed on its way through the file");

    // The profile API itself: a value set reads back as set (values here have no line ends).
    IniFile ini = IniFile::parse(text);
    std::string value(text.substr(0, std::min<size_t>(text.size(), 40)));
    value.erase(std::remove_if(value.begin(), value.end(),
                               [](char c) {
                                   return c == '\n' || c == '\r' || c == '"' || c == ' ' ||
                                          c == '\t';
                               }),
                value.end());
    ini.set("Services", "ftp_port", value);
    IniFile again = IniFile::parse(ini.text());
    fuzz::check(again.get_string("services", "FTP_PORT", "missing") == value,
                "a key set does not read back");
    return 0;
}
