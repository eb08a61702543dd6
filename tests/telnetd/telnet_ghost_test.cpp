// Ghost sessions (a client gone while its command runs) and sessions working at the same time.
// These suites run under ThreadSanitizer too.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "shell_client.hpp"
#include "support/test_server.hpp"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <mutex>
#include <shared_mutex>
#include <thread>

namespace orv::test {
namespace {

int active_logins(TestServer& server, const std::string& name) {
    std::shared_lock lock(server.server().tree_mutex);
    return server.server().accounts->find_user(name)->active_logins;
}

TestServerConfig open_root() {
    TestServerConfig config;
    config.fpl = "\\:d:root:root:111111111\n";
    return config;
}

void prepare(TempDir& dir) {
    std::string lines;
    for (int i = 1; i <= 60; ++i)
        lines += "line " + std::to_string(i) + "\n";
    dir.write("home/long.txt", lines);
    dir.write("home/big.bin", std::string(4 << 20, 'b'));
    std::filesystem::create_directories(dir.path() / "home" / "dest");
}

class TelnetGhost : public ::testing::Test {
  protected:
    TelnetGhost() : server_(open_root(), prepare) {}
    std::unique_ptr<ShellClient> login() {
        auto c = std::make_unique<ShellClient>(server_.telnet_port());
        c->login("demo", "demo-pass");
        return c;
    }
    bool gone() {
        return wait_until([&] { return server_.server().conns.user_count() == 0; });
    }
    TestServer server_;
};

TEST_F(TelnetGhost, DisconnectAtAMorePageEndsTheCommand) {
    auto c = login();
    c->send("more long.txt\r\n");
    c->read_until("-MORE-");
    c.reset();
    EXPECT_TRUE(server_.wait_for_log("(-1) Ghost user thread started"));
    EXPECT_TRUE(server_.wait_for_log("(-1) more thread complete"));
    EXPECT_TRUE(server_.wait_for_log("(-1) Ghost user AutoKill thread complete", 10s));
    EXPECT_TRUE(gone());
    EXPECT_EQ(active_logins(server_, "demo"), 0);
    // The title follows the slot's removal on the event thread.
    EXPECT_TRUE(wait_until([&] { return server_.server().title() == "Orvane Server - 0 Users"; }));
}

TEST_F(TelnetGhost, DisconnectDuringCpFinishesTheCopyThenFreesTheSlot) {
    auto c = login();
    {
        // The copy waits for the tree while the client goes away.
        std::unique_lock hold(server_.server().tree_mutex);
        c->send("cp big.bin dest\r\n");
        c->read_until("cp big.bin dest\r\n");
        c.reset();
        EXPECT_TRUE(server_.wait_for_log("(-1) Ghost user thread started"));
        EXPECT_EQ(server_.server().conns.user_count(), 1);
    }
    EXPECT_TRUE(server_.wait_for_log("(-1) cp thread complete"));
    EXPECT_TRUE(gone());
    EXPECT_EQ(std::filesystem::file_size(server_.home() / "dest" / "big.bin"), 4u << 20);
    EXPECT_EQ(active_logins(server_, "demo"), 0);
    // The copy is in the tree: another session sees it.
    auto d = login();
    EXPECT_EQ(d->run("ls dest\\b*"), "-rwxrwxrwx     root     <none>      4194304 big.bin\r\n# ");
}

// Two clients go away while their commands wait for the tree; one had typed a line ahead,
// which still runs when its command ends, as it would have with the user there.
TEST_F(TelnetGhost, TwoGhostsAtOnceAreBothRemovedAfterTheirTypedAheadLines) {
    auto a = login();
    auto b = login();
    {
        std::unique_lock hold(server_.server().tree_mutex);
        a->send("ls\r\n");
        a->read_until("ls\r\n");
        b->send("ls\r\n");
        b->read_until("ls\r\n");
        b->send("mkdir made-by-ghost\r\n");
        b->read_until("mkdir made-by-ghost\r\n");
        a.reset();
        b.reset();
        EXPECT_TRUE(wait_until([&] {
            auto log = server_.log_lines();
            return std::count(log.begin(), log.end(), "(-1) Ghost user thread started") == 2;
        }));
    }
    EXPECT_TRUE(gone());
    EXPECT_EQ(active_logins(server_, "demo"), 0);
    EXPECT_TRUE(std::filesystem::is_directory(server_.home() / "made-by-ghost"));
}

// A threaded command typed ahead is waited for in turn; the line after it runs after it, and
// "exit" typed ahead ends the ghost by itself.
TEST_F(TelnetGhost, TypedAheadCommandsRunInOrderThenTheGhostGoes) {
    const std::string tails[] = {"mkdir after-cp1\r\n",
                                 "mkdir after-cp2\r\nexit\r\nmkdir never\r\n"};
    for (int round = 1; round <= 2; ++round) {
        const std::string after = "after-cp" + std::to_string(round);
        std::filesystem::remove(server_.home() / "dest" / "long.txt");
        auto c = login();
        {
            std::unique_lock hold(server_.server().tree_mutex);
            c->send("ls\r\n");
            c->read_until("ls\r\n");
            c->send("cp long.txt dest\r\n" + tails[round - 1]);
            c->read_until("mkdir " + after + "\r\n");
            c.reset();
            EXPECT_TRUE(wait_until([&] {
                return server_.server().conns.find_if(
                           [](const ConnSlot& s) { return s.ghost.load() != 0; }) != nullptr;
            }));
        }
        EXPECT_TRUE(gone()) << round;
        EXPECT_TRUE(std::filesystem::is_regular_file(server_.home() / "dest" / "long.txt"));
        EXPECT_TRUE(std::filesystem::is_directory(server_.home() / after));
        EXPECT_FALSE(std::filesystem::exists(server_.home() / "never"));
        EXPECT_EQ(active_logins(server_, "demo"), 0);
    }
}

// Several sessions change and list the tree at the same time.
TEST(TelnetConcurrency, ParallelSessionsCopyMoveListAndRemove) {
    constexpr int kSessions = 4;
    TestServer server(open_root(), [](TempDir& dir) {
        // One source per session: a file being copied is busy for everybody else.
        for (int s = 0; s < kSessions; ++s) {
            dir.write("home/src" + std::to_string(s) + "/a.txt", "alpha\n");
            dir.write("home/src" + std::to_string(s) + "/b.txt", "beta\n");
        }
    });
    constexpr int kRounds = 5;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int s = 0; s < kSessions; ++s) {
        threads.emplace_back([&, s] {
            ShellClient c(server.telnet_port());
            c.login(s % 2 ? "demo" : "admin", s % 2 ? "demo-pass" : "admin-pass");
            std::string d = "d" + std::to_string(s);
            auto expect = [&](const std::string& line, const std::string& want) {
                std::string got = c.run(line);
                if (got != want) {
                    ++failures;
                    ADD_FAILURE() << line << " gave " << got;
                }
            };
            for (int r = 0; r < kRounds; ++r) {
                expect("mkdir " + d, "# ");
                expect("cp src" + std::to_string(s) + "\\*.txt " + d, "# ");
                expect("mkdir " + d + "\\sub", "# ");
                expect("mv " + d + "\\a.txt " + d + "\\sub", "# ");
                c.run("ls");
                c.run("who");
                expect("rm " + d + "\\sub\\a.txt", "# ");
                expect("rmdir " + d + "\\sub", "# ");
                expect("rm " + d + "\\*", "# ");
                expect("rmdir " + d, "# ");
            }
            c.send("exit\r\n");
            c.raw().wait_closed();
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(wait_until([&] { return server.server().conns.user_count() == 0; }));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(server.home()),
                            std::filesystem::directory_iterator()),
              kSessions);
}

TEST(TelnetConcurrency, WhoWhileSessionsComeAndGo) {
    TestServer server;
    ShellClient watcher(server.telnet_port());
    watcher.login("demo", "demo-pass");
    std::atomic<bool> done{false};
    std::thread churn([&] {
        for (int i = 0; i < 20; ++i) {
            ShellClient c(server.telnet_port());
            if (i % 2)
                c.login("admin", "admin-pass");
            else
                c.read_until("login: ");
        }
        done = true;
    });
    int rounds = 0;
    while (!done && rounds < 200) {
        std::string out = watcher.run("who");
        EXPECT_EQ(out.substr(out.size() - 2), "# ");
        ++rounds;
    }
    churn.join();
    EXPECT_EQ(watcher.run("whoami"), "demo\r\n# ");
}

} // namespace
} // namespace orv::test
