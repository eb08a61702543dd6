// The SFTP wire format and request handling: bounds of every field, packet framing, replies.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/ftp_context.hpp"
#include "sshd/sftp_codec.hpp"
#include "sshd/sftp_requests.hpp"
#include "support/test_server.hpp"

#include <gtest/gtest.h>
#include <shared_mutex>

using namespace orv;
using namespace orv::test;

namespace {

std::string be32(uint32_t v) {
    std::string s;
    sftp::Writer(s).u32(v);
    return s;
}

std::string sstr(std::string_view v) {
    return be32(static_cast<uint32_t>(v.size())) + std::string(v);
}

// A request packet without its length (as PacketBuffer hands them out).
std::string request(uint8_t type, uint32_t id, const std::string& fields) {
    return std::string(1, static_cast<char>(type)) + be32(id) + fields;
}

TEST(SftpCodec, ReaderNeverRunsPastTheBytes) {
    struct Case {
        std::string bytes;
        bool ok;
    } cases[] = {
        {sstr("abc"), true},
        {be32(4) + "abc", false},          // string shorter than its length
        {be32(0xffffffffu) + "x", false},  // huge length
        {std::string("\0\0\0", 3), false}, // not even a length
    };
    for (const Case& c : cases) {
        sftp::Reader r(c.bytes);
        std::string_view s = r.str();
        EXPECT_EQ(r.ok(), c.ok);
        if (!c.ok) {
            EXPECT_TRUE(s.empty());
        }
    }
    // Extended attribute pairs with a count far beyond the packet end it quietly.
    std::string attrs = be32(sftp::kAttrExtended) + be32(0x7fffffff) + sstr("k") + sstr("v");
    sftp::Reader r(attrs);
    sftp::Attrs a = r.attrs();
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(a.flags, 0u);
}

TEST(SftpCodec, AttributesRoundTrip) {
    sftp::Attrs a;
    a.flags = sftp::kAttrSize | sftp::kAttrUidGid | sftp::kAttrPermissions | sftp::kAttrTimes;
    a.size = 0x123456789abull;
    a.uid = 101;
    a.gid = 7;
    a.permissions = 0100644;
    a.atime = 1;
    a.mtime = 0xfffffffe;
    std::string bytes;
    sftp::Writer(bytes).attrs(a);
    EXPECT_EQ(bytes.size(), 4u + 8 + 8 + 4 + 8);
    sftp::Reader r(bytes);
    sftp::Attrs b = r.attrs();
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(b.size, a.size);
    EXPECT_EQ(b.uid, a.uid);
    EXPECT_EQ(b.gid, a.gid);
    EXPECT_EQ(b.permissions, a.permissions);
    EXPECT_EQ(b.mtime, a.mtime);
    EXPECT_EQ(r.left(), 0u);
}

TEST(SftpCodec, PacketsAreCutOutOfAnyPiecesAndOversizeIsRefused) {
    std::string stream;
    for (int i = 0; i < 3; ++i) {
        std::string body = request(sftp::kStat, i, sstr("/p" + std::to_string(i)));
        stream += be32(static_cast<uint32_t>(body.size())) + body;
    }
    // Fed one byte at a time, the three packets still come out whole and in order.
    sftp::PacketBuffer in;
    std::vector<std::string> got;
    for (char c : stream) {
        *in.space(1) = c;
        in.commit(1);
        std::string_view p;
        while (in.next(p) == sftp::PacketBuffer::Next::packet)
            got.emplace_back(p);
    }
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[2], request(sftp::kStat, 2, sstr("/p2")));
    EXPECT_EQ(in.buffered(), 0u);

    for (uint32_t len : {0u, static_cast<uint32_t>(sftp::kMaxPacket + 1), 0xffffffffu}) {
        sftp::PacketBuffer big;
        std::string head = be32(len);
        std::copy(head.begin(), head.end(), big.space(4));
        big.commit(4);
        std::string_view p;
        EXPECT_EQ(big.next(p), sftp::PacketBuffer::Next::too_large) << len;
    }
}

class SftpRequests : public ::testing::Test {
  protected:
    SftpRequests()
        : server({}, [](TempDir& d) { d.write("home/f.bin", std::string(300000, 'z')); }) {
        auto slot = std::make_shared<ConnSlot>(Service::Ftp, 950);
        Server& s = server.server();
        {
            std::shared_lock lock(s.tree_mutex);
            slot->set_user(s.accounts->find_user("demo"));
            slot->set_cwd(s.vfs->root);
        }
        slot->logged_in = true;
        files = std::make_unique<sftp::Files>(s, slot, std::make_shared<FtpContext>(s));
        session = std::make_unique<sftp::Session>(*files);
    }
    // Sends one request and reads back the one reply packet it produced.
    bool ask(const std::string& packet, sftp::Reader& reply, std::string& keep) {
        keep.clear();
        if (!session->handle(packet, keep))
            return false;
        sftp::Reader r(keep);
        uint32_t len = r.u32();
        EXPECT_EQ(len, keep.size() - 4);
        reply = sftp::Reader(std::string_view(keep).substr(4));
        return true;
    }
    uint32_t status_of(const std::string& packet) {
        std::string keep;
        sftp::Reader r("");
        EXPECT_TRUE(ask(packet, r, keep));
        EXPECT_EQ(r.u8(), sftp::kStatusReply);
        r.u32();
        return r.u32();
    }
    void init() {
        std::string out;
        ASSERT_TRUE(session->handle(std::string(1, sftp::kInit) + be32(3), out));
        std::string body =
            std::string(1, sftp::kVersion) + be32(3) + sstr("limits@openssh.com") + sstr("1");
        EXPECT_EQ(out, be32(static_cast<uint32_t>(body.size())) + body);
    }

    TestServer server;
    std::unique_ptr<sftp::Files> files;
    std::unique_ptr<sftp::Session> session;
};

TEST_F(SftpRequests, NothingBeforeTheVersionExchangeAndNoRepliesAsRequests) {
    std::string out;
    EXPECT_FALSE(session->handle(request(sftp::kStat, 1, sstr("/")), out));
    init();
    EXPECT_FALSE(session->handle(request(sftp::kStatusReply, 1, ""), out));
    EXPECT_FALSE(session->handle(std::string(1, sftp::kStat), out)); // no id
    EXPECT_TRUE(out.empty());
}

TEST_F(SftpRequests, StatusCodesForUnsupportedAndMalformedRequests) {
    init();
    EXPECT_EQ(status_of(request(sftp::kSymlink, 7, sstr("a") + sstr("b"))), sftp::kOpUnsupported);
    EXPECT_EQ(status_of(request(sftp::kReadlink, 7, sstr("a"))), sftp::kOpUnsupported);
    EXPECT_EQ(status_of(request(sftp::kExtended, 7, sstr("posix-rename@x"))), sftp::kOpUnsupported);
    // The limits announced are the ones enforced: a whole read chunk per request.
    std::string keep;
    sftp::Reader r("");
    ASSERT_TRUE(ask(request(sftp::kExtended, 8, sstr("limits@openssh.com")), r, keep));
    EXPECT_EQ(r.u8(), sftp::kExtendedReply);
    EXPECT_EQ(r.u32(), 8u);
    EXPECT_EQ(r.u64(), sftp::kMaxPacket);
    EXPECT_EQ(r.u64(), sftp::kMaxReadChunk);
    EXPECT_EQ(r.u64(), sftp::kMaxReadChunk);
    EXPECT_EQ(r.u64(), sftp::kMaxHandles);
    EXPECT_EQ(status_of(request(sftp::kStat, 7, be32(100) + "short")), sftp::kBadMessage);
    EXPECT_EQ(status_of(request(sftp::kClose, 7, sstr("nope"))), sftp::kFailure);
    EXPECT_EQ(status_of(request(sftp::kStat, 7, sstr("/missing"))), sftp::kNoSuchFile);
    EXPECT_EQ(status_of(request(sftp::kOpen, 7, sstr("/missing") + be32(1) + be32(0))),
              sftp::kNoSuchFile);
}

TEST_F(SftpRequests, ReadRepliesAreFramedAndCappedAndEndWithEof) {
    init();
    std::string keep;
    sftp::Reader r("");
    ASSERT_TRUE(
        ask(request(sftp::kOpen, 1, sstr("/f.bin") + be32(sftp::kOpenRead) + be32(0)), r, keep));
    ASSERT_EQ(r.u8(), sftp::kHandleReply);
    EXPECT_EQ(r.u32(), 1u);
    std::string handle(r.str());

    std::string read_req = sstr(handle) + be32(0) + be32(1000) + be32(1u << 20);
    ASSERT_TRUE(ask(request(sftp::kRead, 2, read_req), r, keep));
    ASSERT_EQ(r.u8(), sftp::kDataReply);
    EXPECT_EQ(r.u32(), 2u);
    std::string_view data = r.str();
    EXPECT_EQ(data.size(), sftp::kMaxReadChunk);
    EXPECT_EQ(data.find_first_not_of('z'), std::string_view::npos);
    EXPECT_EQ(r.left(), 0u);

    std::string past = sstr(handle) + be32(0) + be32(300000) + be32(10);
    EXPECT_EQ(status_of(request(sftp::kRead, 3, past)), sftp::kEof);
    EXPECT_EQ(status_of(request(sftp::kClose, 4, sstr(handle))), sftp::kOk);

    ASSERT_TRUE(ask(request(sftp::kRealpath, 5, sstr("a/../b/.")), r, keep));
    ASSERT_EQ(r.u8(), sftp::kNameReply);
    r.u32();
    EXPECT_EQ(r.u32(), 1u);
    EXPECT_EQ(r.str(), "/b");
}

} // namespace
