// The FTP client and the relay inside a running server, driven through a Telnet session:
// replies that arrive in awkward pieces, silent servers, the tree after a get, users who go
// away mid-command, traffic in both directions at once, and a server stopped under stuck
// connects and look-ups.
#include "client/fake_ftp_peer.hpp"
#include "client/ftp_replies.hpp"
#include "client/session.hpp"
#include "core/server.hpp"
#include "platform/name_lookup.hpp"
#include "support/test_server.hpp"
#include "telnetd/shell_client.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace orv;
using namespace orv::test;

namespace {

std::string pattern(size_t size, int seed) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<char>((i * 31 + seed + i / 997) & 0xff);
    return out;
}

class ClientSession {
  public:
    explicit ClientSession(const std::function<void(TempDir&)>& prepare = nullptr)
        : server_(TestServerConfig{}, prepare), shell_(server_.telnet_port()) {
        shell_.login("admin", "admin-pass");
    }

    TestServer& server() { return server_; }
    ShellClient& shell() { return shell_; }

    // Types a line; what followed its echo up to `until`.
    std::string line(const std::string& text, const std::string& until = "ftp> ") {
        shell_.send(text + "\r\n");
        shell_.read_until(text + "\r\n");
        return shell_.read_until(until);
    }

    std::string connect(FakeFtpPeer& peer) {
        std::string out = line("ftp 127.0.0.1 " + std::to_string(peer.port()), "): ");
        shell_.send("remote\r\n");
        out += shell_.read_until("Password: ");
        shell_.send("secret\r\n");
        out += shell_.read_until("ftp> ");
        return out;
    }

    // The session record of the (only) Telnet slot.
    std::shared_ptr<OutgoingSession> session() {
        for (const SlotPtr& slot : server_.server().conns.snapshot())
            if (slot->service == Service::Telnet)
                return slot->outgoing();
        return nullptr;
    }

    // Opens a relay to `port` and waits until the slot relays: bytes typed before that are the
    // shell's, not the host's.
    void relay_to(int port) {
        line("telnet 127.0.0.1 " + std::to_string(port), "...\r\n");
        EXPECT_TRUE(wait_until(
            [&] {
                for (const SlotPtr& slot : server_.server().conns.snapshot())
                    if (slot->service == Service::Telnet && slot->state.load() == client::kRelaying)
                        return true;
                return false;
            },
            20s))
            << "the relay never started";
    }

    bool wait_no_users() {
        return wait_until([&] { return server_.server().conns.user_count() == 0; }, 15s);
    }
    std::string home_file(const std::string& name) { return server_.dir().read("home/" + name); }

  private:
    TestServer server_;
    ShellClient shell_;
};

// Answers RETR with "150 Opening.", `data` (in 16 KiB blocks `pause` apart) and "226 Done.".
FakeFtpPeer::Script retr_script(std::string data, std::chrono::milliseconds pause = {}) {
    return [data, pause](FakeFtpPeer& peer, const std::string& verb, const std::string&) {
        if (verb != "RETR")
            return false;
        peer.reply("150 Opening.\r\n");
        peer.send_data(data, pause);
        peer.reply("226 Done.\r\n");
        return true;
    };
}

// A host for the relay: sends `out` while reading everything, and closes when the client
// does, or once `close_after` bytes have arrived and everything is sent.
class LoopbackHost {
  public:
    explicit LoopbackHost(std::string out, size_t close_after = 0)
        : out_(std::move(out)), close_after_(close_after) {
        listen_fd_ = loopback_listener(1, port_);
        thread_ = std::thread([this] { run(); });
    }
    ~LoopbackHost() {
        stop_ = true;
        thread_.join();
        ::close(listen_fd_);
    }
    int port() const { return port_; }
    bool wait_closed(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, limit, [this] { return closed_; });
    }
    std::string received() {
        std::lock_guard lock(mutex_);
        return in_;
    }

  private:
    void run() {
        pollfd p{listen_fd_, POLLIN, 0};
        while (!stop_ && ::poll(&p, 1, 50) <= 0) {
        }
        if (stop_)
            return;
        int fd = ::accept(listen_fd_, nullptr, nullptr);
        size_t sent = 0, got = 0;
        while (!stop_ && !(close_after_ > 0 && got >= close_after_ && sent >= out_.size())) {
            pollfd q{fd, static_cast<short>(POLLIN | (sent < out_.size() ? POLLOUT : 0)), 0};
            if (::poll(&q, 1, 50) <= 0)
                continue;
            char buf[65536];
            ssize_t n = (q.revents & POLLIN) ? ::recv(fd, buf, sizeof buf, MSG_DONTWAIT) : -1;
            if (n == 0)
                break;
            if (n > 0) {
                std::lock_guard lock(mutex_);
                in_.append(buf, static_cast<size_t>(n));
                got = in_.size();
            }
            if (q.revents & POLLOUT) {
                n = ::send(fd, out_.data() + sent, std::min<size_t>(65536, out_.size() - sent),
                           MSG_NOSIGNAL | MSG_DONTWAIT);
                sent += n > 0 ? static_cast<size_t>(n) : 0;
            }
        }
        ::close(fd);
        std::lock_guard lock(mutex_);
        closed_ = true;
        cv_.notify_all();
    }

    std::string out_;
    size_t close_after_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::condition_variable cv_;
    std::string in_;
    bool closed_ = false;
    std::thread thread_;
};

} // namespace

TEST(ClientProtocol, SplitGreetingAndATransferWhoseRepliesCameTogether) {
    ClientSession c;
    FakeFtpPeer peer({"220 hel", "lo\r\n"},
                     [](FakeFtpPeer& p, const std::string& verb, const std::string&) {
                         if (verb != "RETR")
                             return false;
                         p.send_data("abc");
                         p.reply("150 Opening.\r\n226 Done.\r\n");
                         return true;
                     });
    std::string out = c.line("ftp 127.0.0.1 " + std::to_string(peer.port()), "): ");
    EXPECT_EQ(out, "Connecting to 127.0.0.1 ...\r\n220 hello\r\nUser (admin): ");
    c.shell().send("remote\r\n");
    EXPECT_EQ(c.shell().read_until("Password: "), "remote\r\n331 Password required.\r\nPassword: ");
    c.shell().send("secret\r\n");
    EXPECT_EQ(c.shell().read_until("ftp> "), "\r\n\r230 Logged in.\r\n200 Type set to A.\r\nftp> ");
    EXPECT_EQ(c.line("hash off"), "ftp> ");
    out = c.line("get small.txt");
    EXPECT_NE(out.find("150 Opening.\r\n226 Done.\r\n("), std::string::npos) << out;
    EXPECT_NE(out.find(" 3 bytes received in "), std::string::npos) << out;
    EXPECT_EQ(out.substr(out.size() - 29), "226 Transfer complete.\r\nftp> ");
    EXPECT_EQ(c.home_file("small.txt"), "abc");
}

TEST(ClientProtocol, TypeWaitsForTheEndOfAMultiLineLoginReply) {
    ClientSession c;
    std::atomic<bool> early_type{false};
    FakeFtpPeer peer({"220 ready\r\n"},
                     [&early_type](FakeFtpPeer& p, const std::string& verb, const std::string&) {
                         if (verb != "PASS")
                             return false;
                         p.reply("230-Welcome aboard.\r\n");
                         std::this_thread::sleep_for(300ms);
                         for (const std::string& cmd : p.commands())
                             if (cmd.rfind("TYPE", 0) == 0)
                                 early_type = true;
                         p.reply("230 Logged in.\r\n");
                         return true;
                     });
    EXPECT_EQ(c.connect(peer),
              "Connecting to 127.0.0.1 ...\r\n220 ready\r\nUser (admin): remote\r\n"
              "331 Password required.\r\nPassword: \r\n\r230-Welcome aboard.\r\n"
              "230 Logged in.\r\n200 Type set to A.\r\nftp> ");
    EXPECT_FALSE(early_type);

    // A command thread that cannot start is only logged.
    c.server().server().workers.set_refuse_spawns(true);
    c.shell().send("dir\r\n");
    EXPECT_TRUE(c.server().wait_for_log("**** Failed to create oftp DIR Thread ****"));
    EXPECT_EQ(c.shell().raw().read_quiet(), "dir\r\n");
    c.server().server().workers.set_refuse_spawns(false);
}

TEST(ClientProtocol, TransferEndThatOvertakesTheDataConnection) {
    ClientSession c;
    FakeFtpPeer peer({"220 ready\r\n"},
                     [](FakeFtpPeer& p, const std::string& verb, const std::string&) {
                         if (verb != "RETR")
                             return false;
                         p.reply("150 Opening.\r\n");
                         std::this_thread::sleep_for(300ms);
                         p.reply("226 Done.\r\n"); // before the data connection exists
                         std::this_thread::sleep_for(300ms);
                         p.send_data("late data");
                         return true;
                     });
    c.connect(peer);
    c.line("hash off");
    std::string out = c.line("get late.txt");
    EXPECT_EQ(out.substr(out.size() - 29), "226 Transfer complete.\r\nftp> ") << out;
    EXPECT_EQ(c.home_file("late.txt"), "late data");
    EXPECT_TRUE(c.server().wait_for_log("**** Start UNHANDLED STATUS ****"));
    EXPECT_TRUE(c.server().wait_for_log("226 Done.\r\n"));
}

TEST(ClientProtocol, SilentServerAndOneThatIgnoresQuit) {
    ClientSession c;
    FakeFtpPeer peer({"220 ready\r\n"},
                     [](FakeFtpPeer&, const std::string& verb, const std::string&) {
                         return verb == "XPWD"; // never answered
                     });
    peer.ignore_quit();
    c.connect(peer);
    auto session = c.session();
    ASSERT_TRUE(session);
    {
        std::lock_guard lock(session->mutex);
        session->reply_timeout_ms = 300;
        session->quit_timeout_ms = 200;
    }
    EXPECT_EQ(c.line("pwd"), "ftp> ");
    EXPECT_EQ(c.line("bye", "# "), "221 Bye.\r\n# ");
    EXPECT_TRUE(peer.wait_closed(5s));
}

TEST(ClientProtocol, ServerThatNeverGreetsIsGivenUp) {
    ClientSession c;
    FakeFtpPeer peer({}, nullptr);
    c.shell().send("ftp 127.0.0.1 " + std::to_string(peer.port()) + "\r\n");
    c.shell().read_until("Connecting to 127.0.0.1 ...\r\n");
    std::shared_ptr<OutgoingSession> session;
    ASSERT_TRUE(wait_until([&] { return (session = c.session()) != nullptr; }));
    {
        std::lock_guard lock(session->mutex);
        session->reply_timeout_ms = 100;
    }
    EXPECT_EQ(c.shell().read_until("# "), "\r\n# ");
    EXPECT_TRUE(peer.wait_closed(5s));
}

TEST(ClientProtocol, ReceivedFileIsRenewedInPlace) {
    ClientSession c([](TempDir& dir) {
        dir.write("home/box/a.txt", "aaaa");
        dir.write("home/box/b.txt", "bbbb");
        dir.write("home/box/c.txt", "cccc");
    });
    FakeFtpPeer peer({"220 ready\r\n"}, retr_script("fresh contents"));
    std::string before = c.line("ls \\box\\", "# ");
    c.connect(peer);
    c.line("hash off");
    EXPECT_EQ(c.line("lcd box"), "Local directory now: \\box\r\nftp> ");
    c.line("get remote.txt b.txt");
    c.line("bye", "# ");
    std::string after = c.line("ls \\box\\", "# ");
    // Same children in the same order; b.txt now the user's (group column too), with the new
    // size.
    auto names = [](const std::string& listing) {
        std::vector<std::string> out;
        for (size_t at = 0, end; (end = listing.find("\r\n", at)) != std::string::npos;
             at = end + 2)
            out.push_back(listing.substr(at + 44, end - at - 44)); // the name column
        return out;
    };
    EXPECT_EQ(names(after), names(before));
    EXPECT_EQ(names(after).size(), 5u) << after;
    EXPECT_NE(
        after.find("-rwxr-xr-x     admin    admin    " + std::string(8, ' ') + "14 b.txt\r\n"),
        std::string::npos)
        << after;
    EXPECT_EQ(c.home_file("box/b.txt"), "fresh contents");
}

TEST(ClientProtocol, LocalWriteFailureReadsTheRestAndStaysInStep) {
    ClientSession c;
    std::string data = pattern(3 << 20, 7);
    FakeFtpPeer peer({"220 ready\r\n"}, retr_script(data));
    c.connect(peer);
    c.line("hash off");
    // Files of this process may not grow past 256 KiB while the get runs.
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 256 * 1024;
    ::setrlimit(RLIMIT_FSIZE, &small);
    size_t mark = c.server().log_lines().size();
    std::string out = c.line("get big.bin");
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, old_handler);
    // Every byte was taken from the server, which finished its transfer; the session goes on.
    EXPECT_NE(out.find(" 3145728 bytes received in "), std::string::npos) << out;
    std::vector<std::string> lines = c.server().log_since(mark);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) {
                                return l.find("local write failed") != std::string::npos;
                            }),
              1);
    EXPECT_NE(c.line("pwd").find("ftp> "), std::string::npos);
}

// Answers STOR with "150 Ok.", reads the data connection to its end, then "226 Done.".
struct StoredFiles {
    std::mutex mutex;
    std::vector<std::string> files;
    FakeFtpPeer::Script script() {
        return [this](FakeFtpPeer& peer, const std::string& verb, const std::string&) {
            if (verb != "STOR")
                return false;
            peer.reply("150 Ok.\r\n");
            std::string data = peer.receive_data();
            {
                std::lock_guard lock(mutex);
                files.push_back(std::move(data));
            }
            peer.reply("226 Done.\r\n");
            return true;
        };
    }
    std::vector<std::string> taken() {
        std::lock_guard lock(mutex);
        return files;
    }
};

// The local side of put and get: host files the tree does not know, and files or directories
// replaced by links on the host after start-up.
TEST(ClientLocalFiles, PutSendsAHostFileTheTreeDoesNotKnowOnlyWhenItExists) {
    ClientSession c;
    c.server().dir().write("home/late.txt", "made after the scan");
    StoredFiles stored;
    FakeFtpPeer peer({"220 ready\r\n"}, stored.script());
    c.connect(peer);
    c.line("hash off");
    EXPECT_NE(c.line("put late.txt").find("226 Transfer complete.\r\n"), std::string::npos);
    EXPECT_EQ(c.line("put missing.txt"), "Error opening local file\r\nftp> ");
    EXPECT_EQ(stored.taken(), std::vector<std::string>{"made after the scan"});
}

TEST(ClientLocalFiles, LinksMadeOnTheHostAfterTheScanAreNotFollowed) {
    ClientSession c([](TempDir& dir) {
        dir.write("home/box/a.txt", "a");
        dir.write("home/drop/keep.txt", "k");
        dir.write("outside/secret.txt", "outside secret");
    });
    namespace fs = std::filesystem;
    fs::path outside = c.server().dir().path() / "outside";
    fs::path home = c.server().home();
    fs::remove(home / "box" / "a.txt");
    fs::create_symlink(outside / "secret.txt", home / "box" / "a.txt");
    fs::create_symlink(outside / "secret.txt", home / "sneaky.txt");
    fs::remove_all(home / "drop");
    fs::create_directory_symlink(outside, home / "drop");

    StoredFiles stored;
    FakeFtpPeer peer(
        {"220 ready\r\n"}, [&](FakeFtpPeer& p, const std::string& verb, const std::string& arg) {
            return stored.script()(p, verb, arg) || retr_script("fetched")(p, verb, arg);
        });
    c.connect(peer);
    c.line("hash off");
    EXPECT_EQ(c.line("put box\\a.txt"), "Error opening local file\r\nftp> ");
    EXPECT_EQ(c.line("put sneaky.txt"), "Error opening local file\r\nftp> ");
    EXPECT_EQ(c.line("get remote.txt drop\\keep.txt"), "Error opening local file\r\nftp> ");
    EXPECT_EQ(c.line("get remote.txt drop\\new.txt"), "Error opening local file\r\nftp> ");
    EXPECT_TRUE(stored.taken().empty());
    EXPECT_EQ(c.server().dir().read("outside/secret.txt"), "outside secret");
    EXPECT_FALSE(fs::exists(outside / "keep.txt"));
    EXPECT_FALSE(fs::exists(outside / "new.txt"));
}

TEST(ClientGhost, UserGoneDuringAGetLeavesNoConnection) {
    ClientSession c;
    std::string data = pattern(1 << 20, 3);
    FakeFtpPeer peer({"220 ready\r\n"}, retr_script(data, 20ms));
    c.connect(peer);
    c.line("bin");
    c.shell().send("get slow.bin\r\n");
    c.shell().read_until("150 Opening.\r\n");
    c.shell().raw().close();
    EXPECT_TRUE(c.server().wait_for_log("Outgoing FTP connection logged off", 20s));
    EXPECT_TRUE(peer.wait_closed(10s));
    EXPECT_TRUE(c.server().wait_for_log("(-1) Ghost user AutoKill thread complete", 10s));
    EXPECT_TRUE(c.wait_no_users());
    EXPECT_EQ(c.home_file("slow.bin"), data);
}

// A command typed while the transfer ran still goes to the remote server once the transfer is
// done, before the ghost logs off.
TEST(ClientGhost, LineTypedAheadRunsBeforeTheGhostLogsOff) {
    ClientSession c;
    FakeFtpPeer peer({"220 ready\r\n"}, retr_script(pattern(1 << 20, 5), 20ms));
    c.connect(peer);
    c.line("bin");
    c.shell().send("get slow.bin\r\n");
    c.shell().read_until("150 Opening.\r\n");
    c.shell().send("delete victim\r\n");
    c.shell().read_until("delete victim\r\n");
    c.shell().raw().close();
    EXPECT_TRUE(c.server().wait_for_log("Outgoing FTP connection logged off", 20s));
    EXPECT_TRUE(peer.wait_closed(10s));
    EXPECT_TRUE(c.wait_no_users());
    std::vector<std::string> commands = peer.commands();
    auto at = [&](const std::string& verb) {
        return std::find_if(commands.begin(), commands.end(),
                            [&](const std::string& line) { return line.rfind(verb, 0) == 0; });
    };
    ASSERT_NE(at("DELE"), commands.end());
    EXPECT_EQ(*at("DELE"), "DELE victim");
    EXPECT_LT(at("DELE"), at("QUIT"));
}

TEST(ClientGhost, UserGoneAtAQuestionAnswersYes) {
    ClientSession c;
    FakeFtpPeer peer({"220 ready\r\n"},
                     [](FakeFtpPeer& p, const std::string& verb, const std::string& arg) {
                         if (verb == "NLST") {
                             p.reply("150 Names.\r\n");
                             p.send_data("one\r\ntwo\r\n");
                             p.reply("226 Listed.\r\n");
                             return true;
                         }
                         if (verb == "RETR") {
                             p.reply("150 Opening.\r\n");
                             p.send_data("file " + arg);
                             p.reply("226 Done.\r\n");
                             return true;
                         }
                         return false;
                     });
    c.connect(peer);
    c.shell().send("mget x*\r\n");
    c.shell().read_until("get one [y/n]? ");
    c.shell().raw().close();
    EXPECT_TRUE(peer.wait_closed(20s));
    EXPECT_TRUE(c.wait_no_users());
    EXPECT_EQ(c.home_file("one"), "file one");
    EXPECT_EQ(c.home_file("two"), "file two");
}

TEST(ClientGhost, UserGoneDuringARelayClosesTheHostConnection) {
    ClientSession c;
    LoopbackHost host("hello from the host");
    c.relay_to(host.port());
    EXPECT_EQ(c.shell().read_until("host"), "hello from the host");
    c.shell().raw().close();
    EXPECT_TRUE(host.wait_closed(10s));
    EXPECT_TRUE(c.server().wait_for_log("Outgoing Telnet connection logged off"));
    EXPECT_TRUE(c.wait_no_users());
}

TEST(ClientConcurrency, RelayCarriesBothDirectionsInOrderForASlowUser) {
    ClientSession c;
    std::string down = pattern(3 << 20, 1);
    std::string up = pattern(1 << 20, 2);
    LoopbackHost host(down, up.size());
    c.relay_to(host.port());
    std::thread typist([&] {
        for (size_t at = 0; at < up.size(); at += 4096)
            c.shell().raw().send(std::string_view(up).substr(at, 4096));
    });
    std::this_thread::sleep_for(1s); // the user reads nothing for a while
    std::string got = c.shell().raw().read_exact(down.size(), 60s);
    typist.join();
    EXPECT_TRUE(got == down) << got.size() << " of " << down.size();
    EXPECT_TRUE(host.wait_closed(30s));
    EXPECT_TRUE(host.received() == up) << host.received().size() << " of " << up.size();
    EXPECT_EQ(c.shell().read_until("# "), "# ");
}

TEST(ClientConcurrency, ShutdownDuringATransferEndsIt) {
    auto c = std::make_unique<ClientSession>();
    std::string data = pattern(1 << 20, 4);
    FakeFtpPeer peer({"220 ready\r\n"}, retr_script(data, 20ms));
    c->connect(peer);
    c->shell().send("get slow.bin\r\n");
    c->shell().read_until("150 Opening.\r\n");
    c->server().stop();
    EXPECT_TRUE(peer.wait_closed(10s));
    EXPECT_EQ(c->server().server().workers.running(), 0);
}

// A loopback port whose connects never complete: its listener accepts nothing and its queue is
// full, so further connection requests are dropped and the connecting side waits.
class UnansweredPort {
  public:
    UnansweredPort() {
        listener_ = loopback_listener(0, port_);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sa.sin_port = htons(static_cast<uint16_t>(port_));
        for (int& fd : fillers_) {
            fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        }
        std::this_thread::sleep_for(200ms);
    }
    ~UnansweredPort() {
        for (int fd : fillers_)
            ::close(fd);
        ::close(listener_);
    }
    int port() const { return port_; }

  private:
    int listener_ = -1;
    int port_ = 0;
    std::array<int, 3> fillers_{};
};

TEST(ClientConcurrency, ShutdownEndsAHangingConnectAndALookupThatNeverAnswers) {
    // The resolver answers only when the test lets it, long after the server has gone.
    auto gate = std::make_shared<std::mutex>();
    gate->lock();
    orv::set_name_resolver([gate](const std::string&, uint32_t& addr) {
        std::lock_guard wait(*gate);
        addr = htonl(INADDR_LOOPBACK);
        return true;
    });
    UnansweredPort unanswered;
    {
        auto c = std::make_unique<ClientSession>();
        ShellClient second(c->server().telnet_port());
        second.login("demo", "demo-pass");
        c->line("ftp 127.0.0.1 " + std::to_string(unanswered.port()), "...\r\n");
        second.send("telnet never.example\r\n");
        second.read_until("Looking up (never.example)...\r\n");
        EXPECT_EQ(c->server().server().workers.running(), 2);
        c->server().stop();
        // Both commands gave up on the stop flag; nothing runs on after the server.
        EXPECT_EQ(c->server().server().workers.running(), 0);
    }
    gate->unlock();
    orv::set_name_resolver(nullptr);
}
