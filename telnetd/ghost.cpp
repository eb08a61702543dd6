#include "telnetd/ghost.hpp"

#include "accounts/user.hpp"
#include "client/outgoing.hpp"
#include "core/server.hpp"
#include "telnetd/telnet_conn.hpp"
#include "telnetd/telnet_input.hpp"

#include <chrono>
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
    slot->give_back_login();
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

void ghost_thread(Server& server, const SlotPtr& slot);

void watch_ghost(Server& server, const SlotPtr& slot) {
    if (!server.workers.spawn([&server, slot] { ghost_thread(server, slot); }))
        server.log_message("**** Failed to create Ghost user Thread ****");
}

// Runs the lines the user typed ahead before going, one by one as the prompt would have, while
// the ghost sits at the shell prompt. True when the slot is still there, at the prompt or
// waiting for input that will never come: then it can be freed.
bool run_typed_ahead(Server& server, const SlotPtr& slot, bool& freed) {
    freed = false;
    while (slot->state == kStateShell && slot->line_buf.find('\r') != std::string::npos) {
        take_typed_line(server, slot);
        if (!in_table(server, slot)) {
            freed = true; // the line was "exit"
            return false;
        }
    }
    return slot->state <= kStateOftpConnected;
}

// The ghost's completion event, on the event thread. The slot's own typed-ahead runs before it
// goes; a command started by it is waited for like the one that was running at the close.
void ghost_done(Server& server, const SlotPtr& slot, int remembered) {
    if (in_table(server, slot) && slot->ghost && slot->state == kStateShell) {
        bool freed = false;
        if (!run_typed_ahead(server, slot, freed)) {
            if (!freed)
                watch_ghost(server, slot);
            return;
        }
    }
    close_telnet_socket(server, remembered);
}

// The "AutoKill" thread: waits for the command to end, then hands the removal to the event
// thread.
void ghost_thread(Server& server, const SlotPtr& slot) {
    int remembered = slot->socket;
    uint8_t state = slot->state;
    while (state != kStateShell && state != kStateOftpConnected && state != kStateRelay) {
        if (!ghost_sleep(server))
            return;
        state = slot->state;
    }
    if (state == kStateOftpConnected || state == kStateRelay)
        client::ghost_logoff(server, slot);
    server.post([&server, slot, remembered] { ghost_done(server, slot, remembered); });
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

bool close_telnet_socket(Server& server, int socket) {
    SlotPtr slot = server.conns.find_if(
        [&](const ConnSlot& s) { return s.service == Service::Telnet && s.socket == socket; });
    if (!slot) {
        server.log.logf("Error removing user on port %i", socket);
        return true;
    }
    return close_telnet_conn(server, slot);
}

} // namespace orv::telnet
