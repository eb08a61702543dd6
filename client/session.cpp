#include "client/session.hpp"

namespace orv::client {

SessionPtr session_of(const SlotPtr& slot) {
    SessionPtr session = slot->outgoing();
    if (!session) {
        session = std::make_shared<OutgoingSession>();
        slot->set_outgoing(session);
    }
    return session;
}

void set_state(OutgoingSession& session, ConnSlot& slot, uint8_t state) {
    {
        std::lock_guard lock(session.mutex);
        slot.state = state;
    }
    session.state_changed.notify_all();
}

bool link_current(OutgoingSession& session, const LinkPtr& link) {
    std::lock_guard lock(session.mutex);
    return link && session.link == link && link->is_open();
}

} // namespace orv::client
