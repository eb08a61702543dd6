#include "telnetd/shell_adopt.hpp"

#include "accounts/user.hpp"
#include "core/prompt.hpp"
#include "core/reactor.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "telnetd/ghost.hpp"
#include "telnetd/telnet_conn.hpp"
#include "telnetd/telnet_input.hpp"

#include <mutex>
#include <shared_mutex>

namespace orv::telnet {
namespace {

void end_adopted(Server& server, const SlotPtr& slot,
                 const std::function<void(const SlotPtr&, bool)>& on_end) {
    bool freed = close_telnet_conn(server, slot);
    slot->close_control();
    if (on_end)
        on_end(slot, freed);
}

} // namespace

void adopt_shell_session(Server& server, const SlotPtr& slot, AdoptOptions options) {
    auto on_end =
        std::make_shared<std::function<void(const SlotPtr&, bool)>>(std::move(options.on_end));
    ControlEvents events;
    events.on_read = [&server](const SlotPtr& s, const char* data, size_t size) {
        handle_read(server, s, data, size);
    };
    events.on_close = [&server, on_end](const SlotPtr& s) { end_adopted(server, s, *on_end); };
    events.on_error = [&server, on_end](const SlotPtr& s, int) { end_adopted(server, s, *on_end); };
    slot->state = kStateShell;
    if (options.greet) {
        std::string name;
        int max_logins = 0;
        if (std::shared_ptr<User> user = slot->user()) {
            std::shared_lock lock(server.tree_mutex);
            name = user->name;
            max_logins = user->max_logins;
        }
        slot->send_text(strf("%s - %i out of %i allowed connections in use.\r\n", name.c_str(),
                             options.in_use, max_logins));
        send_shell_prompt(server, slot);
    }
    watch_control(server, slot, std::move(events));
}

} // namespace orv::telnet
