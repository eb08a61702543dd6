// A Telnet session as the event thread runs it: reads of any size through the byte handling,
// the login dialogue and the shell's dispatcher and commands on the small in-memory world, with
// the command threads and posted events run to their end between reads. After every read the
// session must be back at a prompt (or at the login), and when the client goes away its slot
// is freed and the logins it counted are given back.
#include "fuzz/fuzz_world.hpp"
#include "telnetd/ghost.hpp"
#include "telnetd/telnet_conn.hpp"
#include "telnetd/telnet_input.hpp"
#include "telnetd/telnet_server.hpp"

#include <fuzzer/FuzzedDataProvider.h>

using namespace orv;

namespace {

bool in_table(Server& server, const SlotPtr& slot) {
    return server.conns.find_if([&](const ConnSlot& s) { return &s == slot.get(); }) != nullptr;
}

bool at_rest(uint8_t state) {
    return state == telnet::kStateLoginName || state == telnet::kStatePassword ||
           state == telnet::kStateShell;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::World world;
    Server& server = world.server();
    TelnetServer service(server); // the shell's hooks (pending lines, local listing)
    auto slot = std::make_shared<ConnSlot>(Service::Telnet, 9);
    auto watcher = std::make_shared<ConnSlot>(Service::Telnet, 10); // someone for `who` to list
    server.conns.add(watcher);
    server.conns.add(slot);

    FuzzedDataProvider input(data, size);
    while (input.remaining_bytes() > 0 && in_table(server, slot)) {
        size_t n = input.ConsumeIntegralInRange<size_t>(1, Server::kReceiveSize);
        std::string bytes = input.ConsumeBytesAsString(n);
        if (bytes.empty())
            break;
        telnet::handle_read(server, slot, bytes.data(), bytes.size());
        world.settle();
        if (!in_table(server, slot))
            break;
        fuzz::check(at_rest(slot->state), "session not back at a prompt after its command");
        fuzz::check(slot->line_buf.size() <= telnet::kLineEndLimit, "line buffer over its limit");
    }
    if (in_table(server, slot)) {
        telnet::handle_close(server, slot);
        world.settle();
        fuzz::check(!in_table(server, slot), "slot kept after its client left");
    }
    telnet::handle_close(server, watcher);
    world.settle();
    fuzz::check(server.conns.user_count() == 0, "user count not back to 0");
    fuzz::check(world.logins_balanced(), "a login count was not given back");
    return 0;
}
