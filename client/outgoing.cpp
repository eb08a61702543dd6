#include "client/outgoing.hpp"

#include "core/prompt.hpp"
#include "core/server.hpp"

// Placeholder until the outgoing clients land: the commands return to the shell at once.
namespace orv::client {

void start_ftp(Server& server, const SlotPtr& slot, std::string) {
    send_shell_prompt(server, slot);
}

void ftp_line(Server& server, const SlotPtr& slot, std::string) {
    send_shell_prompt(server, slot);
}

bool start_telnet(Server& server, const SlotPtr& slot, std::string) {
    send_shell_prompt(server, slot);
    return true;
}

void relay_input(Server&, const SlotPtr&, const char*, size_t) {}

bool send_outgoing(const SlotPtr&, std::string_view) {
    return false;
}

void ghost_logoff(Server&, const SlotPtr&) {}

void close_outgoing(Server&, const SlotPtr&) {}

} // namespace orv::client
