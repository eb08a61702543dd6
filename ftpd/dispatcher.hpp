#pragma once
// The FTP command table and the dispatcher: each complete line becomes a verb and an
// argument, and is answered at once on the event thread or handed to a thread of its own.
#include "ftpd/ftp_context.hpp"

#include <array>
#include <string>
#include <string_view>

namespace orv {

// The 47 verbs, in table order; the index is what the dispatcher acts on.
inline constexpr std::array<const char*, 47> kFtpVerbs = {
    "USER", "PASS", "ACCT", "SMNT", "REIN", "QUIT", "PORT", "PASV", "TYPE", "STRU", "MODE", "STOR",
    "APPE", "MLFL", "MAIL", "MSND", "MSOM", "MSAM", "MRSQ", "MRCP", "ALLO", "REST", "RETR", "RNFR",
    "RNTO", "ABOR", "DELE", "CWD",  "XCWD", "LIST", "NLST", "SITE", "SYST", "STAT", "HELP", "NOOP",
    "MKD",  "XMKD", "RMD",  "XRMD", "PWD",  "XPWD", "CDUP", "XCUP", "STOU", "SIZE", "MDTM"};

enum FtpVerb : int {
    kVerbUser = 0,
    kVerbPass = 1,
    kVerbQuit = 5,
    kVerbPort = 6,
    kVerbType = 8,
    kVerbStor = 11,
    kVerbRetr = 22,
    kVerbDele = 26,
    kVerbCwd = 27,
    kVerbXcwd = 28,
    kVerbList = 29,
    kVerbNlst = 30,
    kVerbMkd = 36,
    kVerbXmkd = 37,
    kVerbRmd = 38,
    kVerbXrmd = 39,
    kVerbPwd = 40,
    kVerbXpwd = 41,
    kVerbCdup = 42,
};

struct ParsedCommand {
    int index = -1;       // table index, -1 when the verb is unknown or 16 characters or longer
    std::string argument; // text after the first blank, without leading and trailing blanks
};

// ftp_parse_command: verbs are matched without regard to case.
ParsedCommand parse_ftp_command(std::string_view line);

// ftp_dispatch: drops the line while a command is running, otherwise acts on it.
void ftp_dispatch(const FtpContextPtr& ctx, const SlotPtr& slot, std::string line);

} // namespace orv
