#include "telnetd/telnet_conn.hpp"

#include "client/outgoing.hpp"
#include "core/prompt.hpp"
#include "core/reactor.hpp"
#include "core/server.hpp"
#include "core/slot_socket.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"
#include "telnetd/ghost.hpp"
#include "telnetd/shell_dispatch.hpp"
#include "telnetd/telnet_input.hpp"

namespace orv::telnet {
namespace {

constexpr const char kFullBanner[] =
    "Orvane Server (beta) written by Pel Varnholt and Kam Osterlo\r\n\r\nServer Full.";
constexpr const char kWelcomeBanner[] =
    "Orvane Server (beta) written by Pel Varnholt and Kem Osterlo\r\n\r\nlogin: ";

ControlEvents telnet_events(Server& server) {
    ControlEvents events;
    events.on_read = [&server](const SlotPtr& slot, const char* data, size_t size) {
        handle_read(server, slot, data, size);
    };
    events.on_close = [&server](const SlotPtr& slot) { handle_close(server, slot); };
    events.on_error = [&server](const SlotPtr& slot, int) { handle_error(server, slot); };
    return events;
}

// Echo and option replies go out with one non-blocking send: a short send is not retried, so a
// client that sends without ever reading cannot make the event thread wait for it.
void echo(const SlotPtr& slot, std::string_view bytes) {
    if (!bytes.empty())
        slot->send_some(bytes.data(), bytes.size());
}

bool is_password_state(uint8_t state) {
    return state == kStatePassword || state == kStateOftpPassword;
}

// Takes one complete line and hands it to the dispatcher (states 9 and below).
void take_command_line(Server& server, const SlotPtr& slot) {
    bool send_lf = false;
    std::optional<std::string> line = take_line(slot->line_buf, send_lf);
    if (!line)
        return;
    if (send_lf)
        echo(slot, "\n");
    uint8_t state = slot->state;
    int socket = slot->socket;
    if (!line->empty()) {
        if (is_password_state(state))
            server.log.logf("(%i) <password>", socket);
        else
            server.log.logf("(%i) %s", socket, log_safe(*line).c_str());
        shell_dispatch(server, slot, std::move(*line));
    } else if (state == kStateShell) {
        send_shell_prompt(server, slot);
    } else {
        server.log.logf("(%i) <nothing>", socket);
        shell_dispatch(server, slot, std::string());
    }
}

// A complete answer to a yes/no question decides it; an empty one leaves it waiting.
void take_answer(const SlotPtr& slot) {
    bool send_lf = false;
    std::optional<std::string> line = take_line(slot->line_buf, send_lf);
    if (!line)
        return;
    if (send_lf)
        echo(slot, "\n");
    if (line->empty())
        return;
    uint8_t next =
        (line->front() == 'y' || line->front() == 'Y') ? kStateAnsweredYes : kStateAnsweredNo;
    uint8_t expected = kStateQuestion;
    slot->state.compare_exchange_strong(expected, next);
}

// Hands the first waiting character to the pager. The key is written before the state says
// so, because the pager thread reads it as soon as it sees state 29.
void take_more_key(const SlotPtr& slot) {
    if (slot->state != kStateMorePage || slot->line_buf.empty())
        return;
    std::optional<char> key = take_key(slot->line_buf);
    slot->arg_buf.assign(1, *key);
    uint8_t expected = kStateMorePage;
    slot->state.compare_exchange_strong(expected, kStateMoreKey);
}

} // namespace

void accept_telnet_conn(Server& server, asio::ip::tcp::socket socket, int socket_number) {
    if (server.conns.user_count() >= server.settings.maxusers) {
        send_nowait(socket_number, kFullBanner, sizeof kFullBanner - 1);
        server.log.logf("Telnet Close port %i (Server Full)", socket_number);
        asio::error_code ignored;
        socket.close(ignored);
        return;
    }
    auto slot = std::make_shared<ConnSlot>(Service::Telnet, socket_number);
    slot->take_peer_address(socket_number);
    slot->attach_control(std::make_unique<SlotSocket>(std::move(socket)));
    server.conns.add(slot);
    const unsigned char will_echo[] = {kIac, kWill, kOptEcho};
    slot->send_bytes(will_echo, sizeof will_echo);
    slot->send_text(kWelcomeBanner);
    server.update_title(true);
    watch_control(server, slot, telnet_events(server));
}

void handle_read(Server& server, const SlotPtr& slot, const char* data, size_t size) {
    std::string_view bytes(data, size);
    uint8_t state = slot->state;
    switch (state) {
    case kStateRelay:
        client::relay_input(server, slot, data, size);
        return;
    case kStateTransfer: {
        InputResult r = feed_transfer(slot->line_buf, bytes);
        echo(slot, r.reply);
        if (r.interrupted)
            client::send_outgoing(slot, "ABOR\r\n");
        return;
    }
    case kStateQuestion: {
        InputResult r = feed_question(slot->line_buf, bytes);
        echo(slot, r.reply);
        take_answer(slot);
        return;
    }
    case kStateMorePage:
        feed_more_key(slot->line_buf, bytes);
        take_more_key(slot);
        return;
    default:
        break;
    }
    InputResult r = feed_ordinary(slot->line_buf, bytes, state);
    echo(slot, r.reply);
    if (r.interrupted) {
        uint8_t expected = kStateCommand;
        slot->state.compare_exchange_strong(expected, kStateInterrupt);
    }
    if (slot->state <= kStateOftpConnected)
        take_command_line(server, slot);
}

void take_typed_line(Server& server, const SlotPtr& slot) {
    if (slot->state <= kStateOftpConnected)
        take_command_line(server, slot);
}

void process_pending_line(Server& server, const SlotPtr& slot) {
    if (slot->ghost)
        return; // the ghost's own completion takes its lines, one after each command
    uint8_t state = slot->state;
    if (state == kStateMorePage)
        take_more_key(slot);
    else if (state == kStateQuestion)
        take_answer(slot);
    else if (state <= kStateOftpConnected)
        take_command_line(server, slot);
}

void handle_close(Server& server, const SlotPtr& slot) {
    int socket = slot->socket;
    if (close_telnet_conn(server, slot))
        server.log.logf("Telnet Close port %i", socket);
    server.log_message("Closing some sock(not a user)");
    slot->close_control();
}

void handle_error(Server& server, const SlotPtr& slot) {
    int socket = slot->socket;
    server.log.logf("Unknown WSAAsyncSelect on port %i", socket);
    if (close_telnet_conn(server, slot))
        server.log.logf("Telnet Close port %i", socket);
    slot->close_control();
}

} // namespace orv::telnet
