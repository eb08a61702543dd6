#pragma once
// The per-slot record of the outgoing clients: the current outgoing connection, the hand-over
// between the reply handler and the command threads, and the relay's two resend queues.
#include "client/out_link.hpp"
#include "core/conn_slot.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace orv {

class Server;

namespace client {

// Bytes of one direction of the relay that could not be sent yet, oldest first. A resend
// thread drains it; new bytes go behind what is queued, so the order is kept.
struct ResendQueue {
    struct Node {
        std::string data;
        size_t sent = 0;
    };
    std::deque<Node> nodes; // references stay valid while nodes are appended
    size_t bytes = 0;       // not yet sent, over all nodes
    bool running = false;   // a resend thread owns the head node
};

struct RelayQueues {
    std::mutex mutex;
    ResendQueue to_host;
    ResendQueue to_client;
    // The host is not read while too much waits for a slow user (TCP then slows the host).
    bool host_paused = false;
    // The host closed while bytes for the user were still queued: the shell prompt follows
    // them instead of overtaking them.
    bool prompt_when_drained = false;
};

enum class LinkKind : uint8_t { None, Ftp, Telnet };

// The FTP control connection's watchdog timer (event thread only; client/control_timer.hpp).
struct ControlTimer;

} // namespace client

struct OutgoingSession {
    // Guards every field below and every state change that must not race the close of the
    // link (a command thread never moves a session that has gone back to the shell).
    std::mutex mutex;
    std::condition_variable state_changed;

    client::LinkPtr link; // the open outgoing connection, or null
    // The slot has been removed (or the server stops): no new connection may be installed.
    bool ended = false;
    client::LinkKind kind = client::LinkKind::None;
    std::shared_ptr<client::RelayQueues> relay;

    // Logged in, but the server's login reply (of this code) goes on: the ASCII thread waits
    // for its last line, since a server may drop a command that comes while it still sends.
    // Event thread only.
    int ascii_after = 0;
    // A "226" that came before the transfer thread had taken the data connection.
    bool early_226 = false;
    // The code of the reply that last moved a waiting state (a refusal mapped to "go on" must
    // not make a thread wait for a data connection that never comes).
    int last_code = 0;
    // When the connection was made: a server that never greets is given up after a while.
    std::chrono::steady_clock::time_point connected_at{};
    // When QUIT was sent: a server that never closes is closed by us after a while.
    bool quit_pending = false;
    std::chrono::steady_clock::time_point quit_sent{};
    // Event thread only: the watchdog of the FTP control connection.
    std::shared_ptr<client::ControlTimer> watchdog;

    // Generous limits on waiting for a remote peer (replies, data connections, data).
    int reply_timeout_ms = 120000;
    int quit_timeout_ms = 30000;
};

namespace client {

using SessionPtr = std::shared_ptr<OutgoingSession>;

// The slot's session, made on first use (event thread).
SessionPtr session_of(const SlotPtr& slot);

// Changes the slot's state under the session lock and wakes threads waiting for it.
void set_state(OutgoingSession& session, ConnSlot& slot, uint8_t state);

// True while `link` is still the session's open connection.
bool link_current(OutgoingSession& session, const LinkPtr& link);

} // namespace client
} // namespace orv
