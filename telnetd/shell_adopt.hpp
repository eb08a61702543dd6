#pragma once
// The shell for a session that another front end has already authenticated (the SSH
// listener): the slot is in the connection table, logged in, with its control socket
// attached (one end of a local stream pair that the front end relays). From here on the
// session is a shell session like any Telnet one: same line editing, commands, texts, pager,
// outgoing clients and ghost handling.
#include "core/conn_slot.hpp"

#include <functional>

namespace orv {
class Server;
}

namespace orv::telnet {

struct AdoptOptions {
    // Sends what a successful Telnet login sends next: the "... allowed connections in use."
    // line (with `in_use`) and the first prompt. Off for one-command sessions, which see
    // only their command's output.
    bool greet = true;
    int in_use = 0;
    // Runs on the event thread when the control socket closes or fails, after the session
    // was freed (or became a ghost); `freed` as close_telnet_conn returned it.
    std::function<void(const SlotPtr&, bool freed)> on_end;
};

// Event thread. Puts the slot in the shell (state 3) and starts reading its control socket.
void adopt_shell_session(Server& server, const SlotPtr& slot, AdoptOptions options);

} // namespace orv::telnet
