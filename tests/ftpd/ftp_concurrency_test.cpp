// Many FTP sessions at once: logins, listings, uploads and downloads of distinct files while
// another session makes and removes directories in the same place. Run under ThreadSanitizer
// in CI. (GoogleTest's assertions are thread-safe with pthreads.)
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftp_test_client.hpp"
#include "vfs/tree.hpp"

#include <gtest/gtest.h>
#include <set>
#include <shared_mutex>

using namespace orv;
using namespace orv::test;
namespace fs = std::filesystem;

namespace {

constexpr int kSessions = 50;
// A thread per command is slow to start under ThreadSanitizer: one round there.
#if defined(__SANITIZE_THREAD__)
constexpr int kRounds = 1;
#else
constexpr int kRounds = 3;
#endif
const std::string kDone = "226 Transfer complete\r\n";

std::string content_for(int session, int round) {
    std::string out(64 * 1024 + session * 997 + round * 13, '\0');
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<char>((i * (session + 3) + round) & 0xff);
    return out;
}

void transfer_session(int port, int n) {
    FtpClient c;
    c.wait = 120s;
    c.open(port);
    EXPECT_NE(c.login("demo", "demo-pass").find("230 demo user logged in.\r\n"), std::string::npos);
    EXPECT_EQ(c.cmd("CWD pub"), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("TYPE I"), "200 TYPE set to I\r\n");
    std::string name = "file-" + std::to_string(n) + ".bin";
    for (int round = 0; round < kRounds; ++round) {
        std::string body = content_for(n, round);
        auto up = c.upload("STOR " + name, body);
        EXPECT_EQ(up.preliminary, "150 Opening BINARY mode data connection\r\n");
        EXPECT_EQ(up.final_reply, kDone);
        auto list = c.download("NLST");
        EXPECT_EQ(list.final_reply, kDone);
        EXPECT_NE(list.data.find(name + "\r\n"), std::string::npos) << n;
        EXPECT_EQ(c.download("LIST -l").final_reply, kDone);
        auto down = c.download("RETR " + name);
        EXPECT_EQ(down.preliminary, "150 Opening BINARY mode data connection (" +
                                        std::to_string(body.size()) + " bytes)\r\n");
        EXPECT_TRUE(down.data == body) << "session " << n << ": downloaded bytes differ";
        EXPECT_EQ(down.final_reply, kDone);
    }
    c.send("QUIT\r\n");
    EXPECT_TRUE(c.read_until("221 Connection closed.\r\n").ends_with("221 Connection closed.\r\n"));
}

void directory_session(int port, const std::atomic<bool>& done, int& cycles) {
    FtpClient c;
    c.wait = 120s;
    c.open(port);
    c.login("admin", "admin-pass");
    EXPECT_EQ(c.cmd("CWD pub"), "250 CWD command successful\r\n");
    for (; !done; ++cycles) {
        std::string name = "dir-" + std::to_string(cycles % 7);
        EXPECT_EQ(c.cmd("MKD " + name), "257 \"" + name + "\" directory created.\r\n");
        EXPECT_EQ(c.cmd("MKD " + name + "\\inner"),
                  "257 \"" + name + "\\inner\" directory created.\r\n");
        EXPECT_EQ(c.cmd("RMD " + name + "\\inner"), "250 inner directory removed.\r\n");
        EXPECT_EQ(c.cmd("RMD " + name), "250 " + name + " directory removed.\r\n");
    }
}

} // namespace

TEST(FtpConcurrency, FiftySessionsTransferWhileDirectoriesChange) {
    TestServerConfig config;
    config.maxusers = kSessions + 10;
    config.accounts[0].max_logins = kSessions + 5;
    config.fpl = "\\:d:root:root:111111111\n";
    TestServer server(config, [](TempDir& d) { fs::create_directories(d.path() / "home/pub"); });

    std::atomic<bool> done{false};
    int cycles = 0;
    std::thread dirs(directory_session, server.ftp_port(), std::cref(done), std::ref(cycles));
    std::vector<std::thread> sessions;
    for (int n = 0; n < kSessions; ++n)
        sessions.emplace_back(transfer_session, server.ftp_port(), n);
    for (std::thread& t : sessions)
        t.join();
    done = true;
    dirs.join();
    EXPECT_GT(cycles, 0);

    // The tree and the disk agree: every uploaded file once, owned by its uploader, with its
    // last size; no directory left over.
    std::set<std::string> on_disk, in_tree;
    for (const auto& e : fs::directory_iterator(server.home() / "pub"))
        on_disk.insert(e.path().filename().string());
    {
        std::shared_lock lock(server.server().tree_mutex);
        NodePtr pub = find_node(*server.server().vfs, "\\pub", server.server().vfs->root);
        for (const NodePtr& child : pub->children) {
            EXPECT_TRUE(in_tree.insert(child->name).second) << "twice: " << child->name;
            EXPECT_EQ(child->owner->name, "demo") << child->name;
            EXPECT_EQ(child->status.load(), kStatusNormal) << child->name;
        }
        for (int n = 0; n < kSessions; ++n) {
            NodePtr f = find_child(*pub, "file-" + std::to_string(n) + ".bin");
            ASSERT_TRUE(f) << n;
            EXPECT_EQ(f->size, content_for(n, kRounds - 1).size());
        }
    }
    EXPECT_EQ(in_tree, on_disk);
    EXPECT_EQ(in_tree.size(), static_cast<size_t>(kSessions));

    // Every session has gone and taken its login count with it.
    EXPECT_TRUE(wait_until([&] { return server.server().conns.user_count() == 0; }));
    std::shared_lock lock(server.server().tree_mutex);
    EXPECT_EQ(server.server().accounts->find_user("demo")->active_logins.load(), 0);
}
