#pragma once
// The two prompts. Each flushes the slot's queued lines, sets the state, sends the prompt and,
// when the user typed ahead while the command ran, has the event thread take that line next.
// Callable from any thread.
#include "core/conn_slot.hpp"

namespace orv {

class Server;

// State 3, "# ".
void send_shell_prompt(Server& server, const SlotPtr& slot);
// State 8 (no outgoing connection) or 9, "ftp> ".
void send_oftp_prompt(Server& server, const SlotPtr& slot);
// Posts the pending-line event for the slot; the handler runs only when the slot's line buffer
// still holds typed-ahead text.
void post_pending_line(Server& server, const SlotPtr& slot);

} // namespace orv
