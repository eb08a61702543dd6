// The FTP control path as the event thread runs it: reads of any size cut into lines by the
// 240-byte rule, each line parsed and dispatched on a session of the small in-memory world, and
// the command threads run to their end between reads. A session must always come back ready,
// its buffer must stay under the limit, and the logins it counted must all be given back when
// it ends.
#include "ftpd/control_connection.hpp"
#include "ftpd/ftp_context.hpp"
#include "fuzz/fuzz_world.hpp"

#include <fuzzer/FuzzedDataProvider.h>

using namespace orv;

namespace {

bool in_table(Server& server, const SlotPtr& slot) {
    return server.conns.find_if([&](const ConnSlot& s) { return &s == slot.get(); }) != nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::World world;
    Server& server = world.server();
    auto ctx = std::make_shared<FtpContext>(server);
    // Two sessions: the second is the one accepted last, which gets every overflow notice.
    auto slot = std::make_shared<ConnSlot>(Service::Ftp, 7);
    auto other = std::make_shared<ConnSlot>(Service::Ftp, 8);
    server.conns.add(slot);
    server.conns.add(other);
    ctx->last_accepted = other;

    const SlotPtr sessions[] = {slot, other};
    FuzzedDataProvider input(data, size);
    while (input.remaining_bytes() > 0) {
        const SlotPtr& s = sessions[input.ConsumeBool() ? 1 : 0];
        // One read event: at most what a receive takes at once.
        size_t n = input.ConsumeIntegralInRange<size_t>(1, Server::kReceiveSize);
        std::string bytes = input.ConsumeBytesAsString(n);
        if (bytes.empty())
            break;
        if (!in_table(server, s))
            continue; // its connection has ended: nothing more is read from it
        on_control_read(ctx, s, bytes.data(), bytes.size());
        world.settle();
        if (!in_table(server, s))
            continue;
        uint8_t state = s->state;
        fuzz::check(state == 1 || state == 2 || state == 3, "session left busy after a command");
        fuzz::check(s->line_buf.size() < kCommandBufferLimit, "command buffer over its limit");
    }
    for (const SlotPtr& s : {slot, other})
        if (in_table(server, s))
            close_session(*ctx, s);
    world.settle();
    fuzz::check(world.logins_balanced(), "a login count was not given back");
    return 0;
}
