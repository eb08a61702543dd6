#pragma once
// The shell's file commands: more, mkdir, rmdir, rm, mv and cp. They respect the busy (2) and
// unmounting (3) marks of nodes, and names for new nodes must be one path component.
#include "core/conn_slot.hpp"
#include "vfs/entry_rules.hpp"
#include "vfs/node.hpp"

#include <string>

namespace orv {
class Server;
}

namespace orv::telnet {

// Inline (event thread); each ends with the prompt.
void mkdir_command(Server& server, const SlotPtr& slot, std::string arg);
void rmdir_command(Server& server, const SlotPtr& slot, std::string arg);
// Worker bodies.
void rm_thread(Server& server, const SlotPtr& slot, std::string arg);
void mv_thread(Server& server, const SlotPtr& slot, std::string arg);
void cp_thread(Server& server, const SlotPtr& slot, std::string arg);
void more_thread(Server& server, const SlotPtr& slot, std::string arg);

// Shared by the file commands.
// True when `node` is `ancestor` or lies below it.
bool is_within(const NodePtr& node, const NodePtr& ancestor);
// Ctrl-C asked the running command to stop, or the session or server is going away.
bool command_interrupted(const Server& server, const ConnSlot& slot);

} // namespace orv::telnet
