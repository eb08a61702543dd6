#pragma once
// The relay's part of the ghost log-off.
#include "client/session.hpp"

namespace orv::client {

// Closes the relay's socket (the user has gone); the slot stays in state 30 for the ghost.
void relay_logoff(const SlotPtr& slot, const SessionPtr& session);

} // namespace orv::client
