#include "telnetd/shell_dispatch.hpp"

#include "accounts/user.hpp"
#include "client/outgoing.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "telnetd/shell_files.hpp"
#include "telnetd/shell_listing.hpp"
#include "telnetd/shell_ownership.hpp"
#include "telnetd/telnet_input.hpp"
#include "telnetd/telnet_login.hpp"

#include <mutex>
#include <shared_mutex>

namespace orv::telnet {

const std::array<const char*, kShellCommandCount> kShellCommands = {
    "dir",   "cd",    "pwd",    "mkdir", "rmdir", "cp", "rm",   "mv",  "exit", "who",    "chmod",
    "chgrp", "chown", "whoami", "ls",    "ftp",   "?",  "help", "man", "more", "telnet",
};

namespace {

enum Command : int {
    kDir = 0,
    kCd,
    kPwd,
    kMkdir,
    kRmdir,
    kCp,
    kRm,
    kMv,
    kExit,
    kWho,
    kChmod,
    kChgrp,
    kChown,
    kWhoami,
    kLs,
    kFtp,
    kQuestion,
    kHelp,
    kMan,
    kMore,
    kTelnet
};

constexpr size_t kCommandWordLimit = 16;

// The user's name and whether the account holds `right` (a slot in the shell is logged in).
bool user_has_right(Server& server, const SlotPtr& slot, uint16_t right, std::string& name) {
    std::shared_ptr<User> user = slot->checked_user();
    if (!user)
        return false;
    std::shared_lock lock(server.tree_mutex);
    name = user->name;
    return user->has_right(right);
}

void run_ftp(Server& server, const SlotPtr& slot, std::string arg) {
    std::string name;
    if (!user_has_right(server, slot, kRightFtpOut, name)) {
        slot->send_text(strf("ftp: service not allowed for user: %s\r\n", name.c_str()));
        send_shell_prompt(server, slot);
        return;
    }
    client::start_ftp(server, slot, std::move(arg));
}

void run_telnet(Server& server, const SlotPtr& slot, std::string arg) {
    std::string name;
    if (!user_has_right(server, slot, kRightTelnetOut, name)) {
        slot->send_text(strf("telnet: service not allowed for user: %s\r\n", name.c_str()));
        send_shell_prompt(server, slot);
        return;
    }
    slot->arg_buf = arg;
    if (!client::start_telnet(server, slot, std::move(arg)))
        server.log_message("**** Failed to establish telnet out Thread ****");
}

void run_shell_command(Server& server, const SlotPtr& slot, std::string line) {
    slot->state = kStateCommand;
    int index = find_shell_command(line);
    std::string& arg = line;
    switch (index) {
    case kDir:
    case kLs:
        start_command_thread(server, slot, std::move(arg), "**** Failed to create dir Thread ****",
                             dir_thread);
        break;
    case kCd:
        cd_command(server, slot, arg);
        break;
    case kPwd:
        pwd_command(server, slot);
        break;
    case kMkdir:
        mkdir_command(server, slot, arg);
        break;
    case kRmdir:
        rmdir_command(server, slot, arg);
        break;
    case kCp:
        start_command_thread(server, slot, std::move(arg), "**** Failed to create cp Thread ****",
                             cp_thread);
        break;
    case kRm:
        start_command_thread(server, slot, std::move(arg), "**** Failed to create rm Thread ****",
                             rm_thread);
        break;
    case kMv:
        start_command_thread(server, slot, std::move(arg), "**** Failed to create mv Thread ****",
                             mv_thread);
        break;
    case kExit:
        exit_command(server, slot);
        break;
    case kWho:
        who_command(server, slot);
        break;
    case kChmod:
        start_command_thread(server, slot, std::move(arg),
                             "**** Failed to create chmod Thread ****", chmod_thread);
        break;
    case kChgrp:
        start_command_thread(server, slot, std::move(arg),
                             "**** Failed to create chgrp Thread ****", chgrp_thread);
        break;
    case kChown:
        start_command_thread(server, slot, std::move(arg),
                             "**** Failed to create chown Thread ****", chown_thread);
        break;
    case kWhoami:
        whoami_command(server, slot);
        break;
    case kFtp:
        run_ftp(server, slot, std::move(arg));
        break;
    case kQuestion:
    case kHelp:
    case kMan:
        // The help text takes no argument; the slot's arg_buf is left as it was.
        if (!server.workers.spawn([&server, slot] { help_thread(server, slot); }))
            server.log_message("**** Failed to create help Thread ****");
        break;
    case kMore:
        start_command_thread(server, slot, std::move(arg),
                             "**** Failed to create more command Thread ****", more_thread);
        break;
    case kTelnet:
        run_telnet(server, slot, std::move(arg));
        break;
    default: {
        std::string word = line.substr(0, line.find(' '));
        slot->send_text(strf("%s: not found\r\n", word.c_str()));
        send_shell_prompt(server, slot);
        break;
    }
    }
}

} // namespace

int find_shell_command(std::string& line) {
    size_t blank = line.find(' ');
    std::string word = line.substr(0, blank);
    if (word.size() >= kCommandWordLimit)
        return -1;
    std::string rest = blank == std::string::npos ? std::string() : line.substr(blank + 1);
    line = std::string(trim_blanks(rest));
    for (size_t i = 0; i < kShellCommands.size(); ++i) {
        if (word == kShellCommands[i])
            return static_cast<int>(i);
    }
    line = word;
    return -1;
}

void shell_dispatch(Server& server, const SlotPtr& slot, std::string line) {
    switch (slot->state.load()) {
    case kStateLoginName:
        login_name(server, slot, line);
        break;
    case kStatePassword:
        login_password(server, slot, line);
        break;
    case kStateShell:
        run_shell_command(server, slot, std::move(line));
        break;
    case 5:
    case 6:
    case 7:
    case kStateOftpIdle:
    case kStateOftpConnected:
        client::ftp_line(server, slot, std::move(line));
        break;
    default:
        break; // nothing waits for a line in the other states
    }
}

void start_command_thread(Server& server, const SlotPtr& slot, std::string arg,
                          const char* failure_log, CommandBody body) {
    slot->arg_buf = arg;
    bool started = server.workers.spawn(
        [&server, slot, arg = std::move(arg), body = std::move(body)]() mutable {
            body(server, slot, std::move(arg));
        });
    if (!started)
        server.log_message(failure_log);
}

} // namespace orv::telnet
