#pragma once
// The SFTP subsystem (protocol version 3) on an authenticated SSH session's channel.
#include <libssh/libssh.h>

#include "core/conn_slot.hpp"

namespace orv {

class Server;

// Serves SFTP requests on `channel` until the client closes it, the channel fails or the slot's
// stop flag is raised. Runs on the SSH session's own thread, which owns `session` and `channel`
// for the whole call. The slot holds the logged-in user and the home directory as its cwd.
void serve_sftp(Server& server, const SlotPtr& slot, ssh_session session, ssh_channel channel);

} // namespace orv
