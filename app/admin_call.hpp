#pragma once
// The desktop's way into the server: every administration step runs on the event thread, one
// event among the sessions' events, so a dialog never changes a table beside a session.
#include <functional>

namespace orv {

class Server;

// Runs `fn` on the event thread (at once when already there) and waits until it has run.
// False, without `fn` ever running, when the event loop stops before it got to it.
bool run_on_event_thread(Server& server, const std::function<void()>& fn);

} // namespace orv
