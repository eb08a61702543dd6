#include "sshd/sftp_subsystem.hpp"

namespace orv {

// Placeholder until the subsystem lands: the channel is closed at once.
void serve_sftp(Server&, const SlotPtr&, ssh_session, ssh_channel channel) {
    ssh_channel_send_eof(channel);
    ssh_channel_close(channel);
}

} // namespace orv
