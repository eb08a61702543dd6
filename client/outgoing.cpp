// The entry points that the Telnet shell calls for the outgoing sessions as a whole; the FTP
// client's are in ftp_session.cpp, the relay's in relay.cpp.
#include "client/outgoing.hpp"

#include "client/control_timer.hpp"
#include "client/ftp_replies.hpp"
#include "client/ftp_session.hpp"
#include "client/relay.hpp"
#include "client/session.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"

namespace orv::client {

bool send_outgoing(const SlotPtr& slot, std::string_view bytes) {
    SessionPtr session = slot->outgoing();
    if (!session)
        return false;
    LinkPtr link;
    {
        std::lock_guard lock(session->mutex);
        link = session->link;
    }
    return link && link->send_all(bytes, 5000);
}

void ghost_logoff(Server& server, const SlotPtr& slot) {
    SessionPtr session = slot->outgoing();
    uint8_t state = slot->state.load();
    if (state == kConnected) {
        if (session)
            ftp_quit(server, slot, session);
        server.log_message("Outgoing FTP connection logged off");
    } else if (state == kRelaying) {
        if (session)
            relay_logoff(slot, session);
        server.log_message("Outgoing Telnet connection logged off");
    }
}

void close_outgoing(Server&, const SlotPtr& slot) {
    SessionPtr session = slot->outgoing();
    if (!session)
        return;
    LinkPtr link;
    std::shared_ptr<ControlTimer> timer;
    {
        std::lock_guard lock(session->mutex);
        session->ended = true;
        link = std::move(session->link);
        session->kind = LinkKind::None;
        timer = std::move(session->watchdog);
    }
    slot->out_socket = -1;
    session->state_changed.notify_all();
    if (link)
        link->close();
    if (timer)
        timer->timer.cancel();
}

} // namespace orv::client
