#pragma once
// The shell's listing and navigation commands: dir/ls, cd, pwd, who, whoami, help and exit.
#include "core/conn_slot.hpp"
#include "vfs/node.hpp"

#include <string>
#include <string_view>

namespace orv {
class Server;
class VfsTree;
} // namespace orv

namespace orv::telnet {

// One line of the shell's listing: kind, nine permission characters, five blanks, owner and
// group (8 columns each), the size in 10 columns (0 when `zero_size`), the name, CR LF.
std::string listing_line(const VfsNode& node, std::string_view shown_name, bool zero_size);
// The whole answer of dir/ls for an argument text (tree lock held).
std::string list_directory(const VfsTree& tree, const User* user, const NodePtr& cwd,
                           std::string arg);
// One line of `who` for a slot.
// `peer_text` shows a peer that has no IPv4 address.
std::string who_line(std::string_view name, int socket, bool peer_known,
                     const std::array<uint8_t, 4>& peer, std::string_view peer_text = {});
const std::string& help_text();

// Worker bodies.
void dir_thread(Server& server, const SlotPtr& slot, std::string arg);
void help_thread(Server& server, const SlotPtr& slot);
// Inline commands (event thread); each ends with the prompt.
void cd_command(Server& server, const SlotPtr& slot, std::string arg);
void pwd_command(Server& server, const SlotPtr& slot);
void whoami_command(Server& server, const SlotPtr& slot);
void who_command(Server& server, const SlotPtr& slot);
void exit_command(Server& server, const SlotPtr& slot);

} // namespace orv::telnet
