#pragma once
// The FTP client's session level, shared by the entry points: leaving the client and the
// ghost's log-off.
#include "client/session.hpp"

namespace orv {

class Server;

namespace client {

// `bye`, `quit`, `exit` and a connected `close`: back to the shell when nothing is open,
// else "QUIT" and state 11 until the server closes.
void ftp_quit(Server& server, const SlotPtr& slot, const SessionPtr& session);

} // namespace client
} // namespace orv
