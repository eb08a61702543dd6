#pragma once
// The FTP client's command words and the answers that need no server: the table lookup, the
// hash/tick setting, the prompt toggle and the help text.
#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace orv::client {

enum class Cmd : int {
    Open,
    Close,
    Bye,
    Dir,
    Cd,
    Lcd,
    Pwd,
    Mkdir,
    Rmdir,
    Delete,
    Get,
    Put,
    Ascii,
    Bin,
    Quote,
    Tick,
    Hash,
    Ls,
    User,
    Help,
    Question,
    Quit,
    Exit,
    Ldir,
    Lpwd,
    Prompt,
    Mget,
    Mput,
    Ftp,
    More,
};

inline constexpr std::array<const char*, 30> kCommandWords = {
    "open", "close", "bye",   "dir",  "cd",    "lcd",    "pwd",  "mkdir", "rmdir", "delete",
    "get",  "put",   "ascii", "bin",  "quote", "tick",   "hash", "ls",    "user",  "help",
    "?",    "quit",  "exit",  "ldir", "lpwd",  "prompt", "mget", "mput",  "ftp",   "more"};

// The command word of a typed line: the text before the first blank, shorter than 16
// characters, matched exactly; `arg` gets the rest with its outer blanks removed. No match:
// nothing, and `arg` is left alone.
std::optional<Cmd> find_command(std::string_view line, std::string& arg);

// `hash` and `tick`: the new flag and tick size and the text to send (maybe empty).
struct HashSetting {
    int hash_on;
    int tick_size;
    std::string text;
};
HashSetting hash_setting(std::string_view arg, int tick_size);

// The one-piece help text of `help` and `?`.
extern const char* const kHelpText;

// The first two blank-separated words of an argument, each cut to the local path limit.
struct TwoWords {
    std::string first;
    std::string second;
};
TwoWords two_words(std::string_view arg);

// Local names and paths are kept to this many characters.
constexpr size_t kMaxLocalPath = 260;

} // namespace orv::client
