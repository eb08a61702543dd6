#pragma once
// Ending a Telnet session: a slot with nothing running is freed at once; a slot whose command
// still runs becomes a ghost (socket -1) that a ghost thread ends when the command is done.
#include "core/conn_slot.hpp"

namespace orv {
class Server;
}

namespace orv::telnet {

// close_telnet_conn: true when the slot was freed (or was not in the table: "Error removing
// user on port %i"), false when it became a ghost. Event thread.
bool close_telnet_conn(Server& server, const SlotPtr& slot);

} // namespace orv::telnet
