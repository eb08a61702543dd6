#pragma once
// The outgoing sessions a shell user can open: the `ftp` client and the `telnet` relay. The
// Telnet server calls these; they run inside the user's own slot.
#include "core/conn_slot.hpp"

#include <string>

namespace orv {

class Server;

namespace client {

// The shell's `ftp` command after the "Ftp OUT" right has been checked (event thread):
// no host gives state 8 and "ftp> ", a host starts the open thread.
void start_ftp(Server& server, const SlotPtr& slot, std::string arg);
// A complete line typed in states 5 to 9 (event thread).
void ftp_line(Server& server, const SlotPtr& slot, std::string line);

// The shell's `telnet` command after the "Telnet OUT" right has been checked: runs the
// session-open thread with `arg` (host and optional port). Returns false when the thread
// cannot be created (the caller logs its line).
bool start_telnet(Server& server, const SlotPtr& slot, std::string arg);
// Bytes typed by the user while the relay runs (state 30, event thread): forwarded unchanged.
void relay_input(Server& server, const SlotPtr& slot, const char* data, size_t size);

// Sends raw bytes on the slot's outgoing control socket (Ctrl-C during a transfer sends
// "ABOR\r\n"); false when there is none.
bool send_outgoing(const SlotPtr& slot, std::string_view bytes);

// The ghost thread's clean-up for a user who went away: in state 9 the FTP client's quit
// operation ("Outgoing FTP connection logged off"), in state 30 the relay's socket is closed
// ("Outgoing Telnet connection logged off"). Called from the ghost thread.
void ghost_logoff(Server& server, const SlotPtr& slot);

// Closes whatever outgoing connection the slot still has (slot removal, shutdown).
void close_outgoing(Server& server, const SlotPtr& slot);

} // namespace client
} // namespace orv
