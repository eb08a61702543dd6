#include "core/prompt.hpp"

#include "core/server.hpp"

namespace orv {
namespace {

void flush_and_prompt(Server& server, const SlotPtr& slot, uint8_t state, const char* prompt) {
    for (const std::string& line : slot->take_messages())
        slot->send_text(line + "\r\n");
    slot->state = state;
    slot->send_text(prompt);
    post_pending_line(server, slot);
}

} // namespace

void send_shell_prompt(Server& server, const SlotPtr& slot) {
    flush_and_prompt(server, slot, 3, "# ");
}

void send_oftp_prompt(Server& server, const SlotPtr& slot) {
    flush_and_prompt(server, slot, slot->out_socket.load() == -1 ? 8 : 9, "ftp> ");
}

void post_pending_line(Server& server, const SlotPtr& slot) {
    // The line buffer belongs to the event thread, so the emptiness test happens there.
    server.post([&server, slot] {
        if (!slot->line_buf.empty() && server.shell.pending_line)
            server.shell.pending_line(slot);
    });
}

} // namespace orv
