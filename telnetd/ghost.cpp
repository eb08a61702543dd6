#include "telnetd/ghost.hpp"

#include "accounts/login_check.hpp"
#include "accounts/user.hpp"
#include "client/outgoing.hpp"
#include "core/server.hpp"
#include "telnetd/telnet_conn.hpp"
#include "telnetd/telnet_input.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace orv::telnet {
namespace {

constexpr auto kGhostPoll = std::chrono::milliseconds(2000);
constexpr auto kStopCheck = std::chrono::milliseconds(50);

bool nothing_running(uint8_t state) {
    return state == kStateLoginName || state == kStatePassword || state == kStateShell ||
           state == kStateOftpIdle;
}

bool in_table(const Server& server, const SlotPtr& slot) {
    return server.conns.find_if([&](const ConnSlot& s) { return &s == slot.get(); }) != nullptr;
}

void free_slot(Server& server, const SlotPtr& slot) {
    server.conns.remove(slot);
    slot->stop = 1;
    give_back_login(*slot);
    slot->take_messages();
    client::close_outgoing(server, slot);
    server.update_title(false);
}

// Sleeps one poll period, or less when the server stops; false when it stops.
bool ghost_sleep(const Server& server) {
    for (auto slept = std::chrono::milliseconds(0); slept < kGhostPoll; slept += kStopCheck) {
        if (server.stopping)
            return false;
        std::this_thread::sleep_for(kStopCheck);
    }
    return !server.stopping;
}

// What the lines a ghost's user typed ahead left behind. Gone: the slot had already been
// removed (the server took it out of the table).
enum class AfterTypedAhead { Idle, Running, Freed, Gone };

// Runs the lines the user typed ahead before going, one after the other as the prompt would
// have, while the ghost waits for input (at the shell or the outgoing-FTP prompt). Event thread.
AfterTypedAhead run_typed_ahead(Server& server, const SlotPtr& slot) {
    if (!in_table(server, slot))
        return AfterTypedAhead::Gone;
    while (slot->state <= kStateOftpConnected && slot->line_buf.find('\r') != std::string::npos) {
        take_typed_line(server, slot);
        if (!in_table(server, slot))
            return AfterTypedAhead::Freed; // the line was "exit"
    }
    uint8_t state = slot->state;
    return state <= kStateOftpConnected || state == kStateRelay ? AfterTypedAhead::Idle
                                                                : AfterTypedAhead::Running;
}

// Asks the event thread to run the typed-ahead lines and waits for the answer; Freed when the
// server stops meanwhile (nothing more is done for the slot then).
AfterTypedAhead typed_ahead_on_event_thread(Server& server, const SlotPtr& slot) {
    struct Answer {
        std::mutex mutex;
        std::condition_variable done;
        std::optional<AfterTypedAhead> result;
    };
    auto answer = std::make_shared<Answer>();
    server.post([&server, slot, answer] {
        AfterTypedAhead result = run_typed_ahead(server, slot);
        std::lock_guard lock(answer->mutex);
        answer->result = result;
        answer->done.notify_all();
    });
    std::unique_lock lock(answer->mutex);
    while (!answer->result) {
        if (server.stopping)
            return AfterTypedAhead::Freed;
        answer->done.wait_for(lock, kStopCheck);
    }
    return *answer->result;
}

// A ghost waits for input that will never come (the shell or outgoing-FTP prompt, or a login
// dialogue of the outgoing client), or relays.
bool waiting_for_input(uint8_t state) {
    return state <= kStateOftpConnected || state == kStateRelay;
}

// The "AutoKill" thread: waits for the command to end, lets the lines typed ahead run (each
// command they start is waited for in turn), then hands the removal to the event thread.
void ghost_thread(Server& server, const SlotPtr& slot) {
    int remembered = slot->socket;
    for (;;) {
        while (!waiting_for_input(slot->state)) {
            if (!ghost_sleep(server))
                return;
        }
        AfterTypedAhead after = typed_ahead_on_event_thread(server, slot);
        if (after == AfterTypedAhead::Freed) {
            if (!server.stopping)
                server.log.logf("(%i) Ghost user AutoKill thread complete", remembered);
            return;
        }
        if (after != AfterTypedAhead::Running)
            break;
    }
    uint8_t state = slot->state;
    // In the outgoing client's login dialogue its connection is open just as at its connected
    // prompt, and goes the same way.
    if (state >= kStateOftpLoginFirst && state <= kStateOftpLoginLast &&
        slot->state.compare_exchange_strong(state, kStateOftpConnected))
        state = kStateOftpConnected;
    if (in_table(server, slot) && (state == kStateOftpConnected || state == kStateRelay))
        client::ghost_logoff(server, slot);
    // The ghost's own slot goes, not merely the first ghost in the table (every ghost's socket
    // is -1): another ghost may still have typed-ahead lines to run.
    server.post([&server, slot] {
        if (in_table(server, slot))
            close_telnet_conn(server, slot);
    });
    server.log.logf("(%i) Ghost user AutoKill thread complete", remembered);
}

} // namespace

bool close_telnet_conn(Server& server, const SlotPtr& slot) {
    if (!slot || !in_table(server, slot)) {
        server.log.logf("Error removing user on port %i", slot ? slot->socket.load() : -1);
        return true;
    }
    if (slot->ghost)
        slot->state = kStateShell;
    if (nothing_running(slot->state)) {
        free_slot(server, slot);
        return true;
    }
    slot->socket = -1;
    uint8_t question = kStateQuestion;
    slot->state.compare_exchange_strong(question, kStateAnsweredYes);
    slot->ghost = 1;
    slot->hash_on = 0;
    slot->prompting = 0;
    // Lines typed ahead stay: they run when the command ends, as they would have with the
    // user still there.
    if (server.workers.spawn([&server, slot] { ghost_thread(server, slot); }))
        server.log.logf("(%i) Ghost user thread started", slot->socket.load());
    else
        server.log_message("**** Failed to create Ghost user Thread ****");
    return false;
}

} // namespace orv::telnet
