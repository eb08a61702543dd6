#pragma once
// The shell's command dispatcher: the table of 21 command names, the look-up of a line's
// first word, and running a command inline or on a worker thread.
#include "core/conn_slot.hpp"

#include <array>
#include <functional>
#include <string>

namespace orv {
class Server;
}

namespace orv::telnet {

constexpr size_t kShellCommandCount = 21;
// Index order is the command number.
extern const std::array<const char*, kShellCommandCount> kShellCommands;

// find_shell_command: the command's index, or -1. On a match `line` keeps only the argument
// text (blanks trimmed); otherwise it holds the word that was looked up (a word of 16
// characters or more leaves it unchanged).
int find_shell_command(std::string& line);

// shell_dispatch: a complete line, by the slot's state (login, shell command, outgoing FTP
// client); lines in other states are dropped. Event thread.
void shell_dispatch(Server& server, const SlotPtr& slot, std::string line);

// Runs `body` on a worker thread with the argument (also kept in the slot's arg_buf); when no
// thread can be made only `failure_log` is logged and the slot stays busy.
using CommandBody = std::function<void(Server&, const SlotPtr&, std::string)>;
void start_command_thread(Server& server, const SlotPtr& slot, std::string arg,
                          const char* failure_log, CommandBody body);

} // namespace orv::telnet
