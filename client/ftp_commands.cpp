#include "client/ftp_commands.hpp"

#include "platform/text.hpp"

#include <algorithm>

namespace orv::client {

std::optional<Cmd> find_command(std::string_view line, std::string& arg) {
    size_t blank = line.find(' ');
    std::string_view word = line.substr(0, blank);
    if (word.size() >= 16)
        return std::nullopt;
    for (size_t i = 0; i < kCommandWords.size(); ++i) {
        if (word == kCommandWords[i]) {
            std::string_view rest =
                blank == std::string_view::npos ? std::string_view{} : line.substr(blank + 1);
            arg = std::string(trim_blanks(rest));
            return static_cast<Cmd>(i);
        }
    }
    return std::nullopt;
}

HashSetting hash_setting(std::string_view arg, int tick_size) {
    std::string_view word = trim_blanks(arg);
    word = word.substr(0, word.find(' '));
    if (word == "on")
        return {1, tick_size, {}};
    if (word == "off")
        return {0, tick_size, {}};
    long n = to_long(word);
    if (n >= 2048) {
        // The size is a 32-bit count.
        n = std::min(n, 0x7fffffffL);
        return {1, static_cast<int>(n), strf("Ticksize set to %li bytes\r\n", n)};
    }
    return {1, 2048, "Defaulting to minimum size of 2048 bytes\r\n"};
}

const char* const kHelpText = "Commands are:\r\n\r\n"
                              "?\r\n"
                              "ascii    dir      lcd      more     quit \r\n"
                              "bin      exit     ldir     mput    *qoute\r\n"
                              "bye      ftp      lpwd     open     rmdir \r\n"
                              "cd       get      ls       prompt   tick  \r\n"
                              "close    hash     mget     put      user  \r\n"
                              "delete\t\thelp     mkdir    pwd            \r\n";

TwoWords two_words(std::string_view arg) {
    TwoWords out;
    std::string_view rest = trim_blanks(arg);
    size_t blank = rest.find(' ');
    out.first = std::string(rest.substr(0, std::min(blank, kMaxLocalPath)));
    if (blank != std::string_view::npos) {
        rest = trim_blanks(rest.substr(blank));
        out.second = std::string(rest.substr(0, std::min(rest.find(' '), kMaxLocalPath)));
    }
    return out;
}

} // namespace orv::client
