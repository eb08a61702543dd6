// Many FTP sessions at once: logins, listings, uploads and downloads of distinct files while
// another session makes and removes directories in the same place. Run under ThreadSanitizer
// in CI.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftp_test_client.hpp"
#include "vfs/tree.hpp"

#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <thread>

using namespace orv;
using namespace orv::test;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr int kSessions = 50;
// A thread per command is slow to start under ThreadSanitizer: one round there.
#if defined(__SANITIZE_THREAD__)
constexpr int kRounds = 1;
#else
constexpr int kRounds = 3;
#endif

class Problems {
  public:
    void check(bool ok, const std::string& what) {
        if (ok)
            return;
        std::lock_guard lock(mutex_);
        list_.push_back(what);
    }
    void equal(const std::string& got, const std::string& want, const std::string& where) {
        check(got == want, where + ": got [" + got + "] want [" + want + "]");
    }
    std::vector<std::string> list() {
        std::lock_guard lock(mutex_);
        return list_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> list_;
};

std::string content_for(int session, int round) {
    std::string out(64 * 1024 + session * 997 + round * 13, '\0');
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<char>((i * (session + 3) + round) & 0xff);
    return out;
}

void transfer_session(int port, int n, Problems& p) {
    FtpClient c;
    c.wait = 120s;
    std::string where = "session " + std::to_string(n);
    p.check(c.open(port).rfind("220 ", 0) == 0, where + ": greeting");
    std::string login = c.login("demo", "demo-pass");
    p.check(login.find("230 demo user logged in.\r\n") != std::string::npos, where + ": " + login);
    p.equal(c.cmd("CWD pub"), "250 CWD command successful\r\n", where);
    p.equal(c.cmd("TYPE I"), "200 TYPE set to I\r\n", where);
    for (int round = 0; round < kRounds; ++round) {
        std::string name = "file-" + std::to_string(n) + ".bin";
        std::string body = content_for(n, round);
        auto up = c.upload("STOR " + name, body);
        p.equal(up.preliminary, "150 Opening BINARY mode data connection\r\n", where);
        p.equal(up.final_reply, "226 Transfer complete\r\n", where + " STOR");

        auto list = c.download("NLST");
        p.equal(list.final_reply, "226 Transfer complete\r\n", where + " NLST");
        p.check(list.data.find(name + "\r\n") != std::string::npos, where + ": not listed");
        auto longlist = c.download("LIST -l");
        p.equal(longlist.final_reply, "226 Transfer complete\r\n", where + " LIST");

        auto down = c.download("RETR " + name);
        p.equal(down.preliminary,
                "150 Opening BINARY mode data connection (" + std::to_string(body.size()) +
                    " bytes)\r\n",
                where + " RETR");
        p.check(down.data == body, where + ": downloaded bytes differ");
        p.equal(down.final_reply, "226 Transfer complete\r\n", where + " RETR end");
        p.equal(c.cmd("PWD"), "257 \"/pub\" is current directory.\r\n", where);
    }
    c.send("QUIT\r\n");
    p.check(c.read_until("221 Connection closed.\r\n").ends_with("221 Connection closed.\r\n"),
            where + ": QUIT");
}

void directory_session(int port, const std::atomic<bool>& done, Problems& p, int& cycles) {
    FtpClient c;
    c.wait = 120s;
    c.open(port);
    c.login("admin", "admin-pass");
    p.equal(c.cmd("CWD pub"), "250 CWD command successful\r\n", "dirs");
    while (!done) {
        std::string name = "dir-" + std::to_string(cycles % 7);
        p.equal(c.cmd("MKD " + name), "257 \"" + name + "\" directory created.\r\n", "dirs MKD");
        p.equal(c.cmd("MKD " + name + "\\inner"),
                "257 \"" + name + "\\inner\" directory created.\r\n", "dirs MKD inner");
        p.equal(c.cmd("RMD " + name + "\\inner"), "250 inner directory removed.\r\n", "dirs RMD");
        p.equal(c.cmd("RMD " + name), "250 " + name + " directory removed.\r\n", "dirs RMD");
        ++cycles;
    }
}

} // namespace

TEST(FtpConcurrency, FiftySessionsTransferWhileDirectoriesChange) {
    TestServerConfig config;
    config.maxusers = kSessions + 10;
    config.accounts = {{"demo", "demo-pass", 101, kSessions + 5, 15, "\\"},
                       {"admin", "admin-pass", 10, 5, 15, "\\"}};
    TestServer server(config, [](TempDir& d) { fs::create_directories(d.path() / "home/pub"); });
    {
        std::unique_lock lock(server.server().tree_mutex);
        NodePtr pub = find_node(*server.server().vfs, "\\pub", server.server().vfs->root);
        ASSERT_TRUE(pub);
        pub->flags = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    }

    Problems problems;
    std::atomic<bool> done{false};
    int cycles = 0;
    std::thread dirs(directory_session, server.ftp_port(), std::cref(done), std::ref(problems),
                     std::ref(cycles));
    std::vector<std::thread> sessions;
    for (int n = 0; n < kSessions; ++n)
        sessions.emplace_back(transfer_session, server.ftp_port(), n, std::ref(problems));
    for (std::thread& t : sessions)
        t.join();
    done = true;
    dirs.join();

    for (const std::string& p : problems.list())
        ADD_FAILURE() << p;

    EXPECT_GT(cycles, 0);

    // The tree and the disk agree: every uploaded file once, owned by its uploader, with its
    // last size; no directory left over.
    std::set<std::string> on_disk;
    for (const auto& e : fs::directory_iterator(server.home() / "pub"))
        on_disk.insert(e.path().filename().string());
    std::set<std::string> in_tree;
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
    auto until = std::chrono::steady_clock::now() + 10s;
    while (server.server().conns.user_count() != 0 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(20ms);
    EXPECT_EQ(server.server().conns.user_count(), 0);
    std::shared_lock lock(server.server().tree_mutex);
    EXPECT_EQ(server.server().accounts->find_user("demo")->active_logins.load(), 0);
}
