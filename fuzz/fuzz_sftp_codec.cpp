// An SFTP session as the channel feeds it: the input is the client's byte stream (after the
// version exchange, which is made first), cut into packets and each handled over the small
// in-memory world. Every reply must be one well-formed packet of a reply type, the session must
// end or go on cleanly, and closing it must give back every busy mark.
#include "accounts/accounts.hpp"
#include "ftpd/ftp_context.hpp"
#include "fuzz/fuzz_world.hpp"
#include "sshd/sftp_requests.hpp"

#include <cstring>
#include <shared_mutex>

using namespace orv;

namespace {

void check_replies(std::string_view out) {
    while (!out.empty()) {
        sftp::Reader r(out);
        uint32_t len = r.u32();
        fuzz::check(r.ok() && len >= 5 && len <= out.size() - 4, "reply packet out of its bytes");
        uint8_t type = r.u8();
        fuzz::check(type == sftp::kVersion ||
                        (type >= sftp::kStatusReply && type <= sftp::kAttrsReply) ||
                        type == sftp::kExtendedReply,
                    "reply of a request type");
        fuzz::check(len <= sftp::kMaxReadChunk + 64 || type == sftp::kNameReply,
                    "reply larger than a read");
        out.remove_prefix(4 + len);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::World world;
    Server& server = world.server();
    auto slot = std::make_shared<ConnSlot>(Service::Ftp, 7);
    {
        std::shared_lock lock(server.tree_mutex);
        slot->set_user(server.accounts->find_user("fuzz"));
        slot->set_cwd(world.node("\\pub"));
    }
    slot->logged_in = true;
    {
        sftp::Files files(server, slot, std::make_shared<FtpContext>(server));
        sftp::Session session(files);
        std::string out;
        const char init[] = {0, 0, 0, 5, sftp::kInit, 0, 0, 0, 3};
        sftp::PacketBuffer in;
        std::memcpy(in.space(sizeof init), init, sizeof init);
        in.commit(sizeof init);
        size_t at = 0;
        bool going = true;
        while (going) {
            // Pieces of varying size, as channel reads return them.
            size_t n = std::min<size_t>(size - at, 1 + (at * 7919 % 4096));
            std::memcpy(in.space(n), data + at, n);
            in.commit(n);
            at += n;
            std::string_view packet;
            for (;;) {
                sftp::PacketBuffer::Next next = in.next(packet);
                if (next == sftp::PacketBuffer::Next::none)
                    break;
                if (next == sftp::PacketBuffer::Next::too_large || !session.handle(packet, out)) {
                    going = false;
                    break;
                }
                check_replies(out);
                out.clear();
            }
            if (at >= size)
                break;
        }
        fuzz::check(files.open_handles() <= sftp::kMaxHandles, "handle table over its bound");
    }
    std::shared_lock lock(server.tree_mutex);
    for (const char* path : {"\\pub\\readme.txt", "\\pub\\a.b.txt", "\\top.txt"})
        if (NodePtr n = world.node(path))
            fuzz::check(n->status.load() == kStatusNormal, "a busy mark was not given back");
    return 0;
}
