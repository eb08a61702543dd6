// The built binary, headless: start-up log lines and their order, the debug file, the orderly
// shutdown on SIGTERM with the tables written in order, a second instance, a port in use.
#include "accounts/password.hpp"
#include "support/process.hpp"
#include "support/temp_dir.hpp"
#include "support/test_server.hpp"

#include <arpa/inet.h>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orv;
using namespace std::chrono_literals;

namespace {

struct StartDir {
    test::TempDir dir;
    int ftp_port = test::free_port();
    int telnet_port = test::free_port();
    explicit StartDir(int ftp_enabled = 1) {
        dir.write("home/pub/a.txt", "hello");
        dir.write("home/pub/b.txt", "world!");
        dir.write("home/readme", "r");
        dir.write("settings.ini",
                  "[Server_Settings]\nserverhome=" + (dir / "home").string() +
                      "/\nmaxusers=4\n[Services]\ntelnet=1\nftp=" + std::to_string(ftp_enabled) +
                      "\ntelnet_port=" + std::to_string(telnet_port) +
                      "\nftp_port=" + std::to_string(ftp_port) + "\n");
        dir.write("users", "anna:101:" + *encode_password("anna", "pw") + ":1:15:\\pub\n" +
                               "bob:5:" + *encode_password("bob", "pw") + ":1:4:\\\n");
        dir.write("groups", "staff:101:anna:bob\n");
    }
    std::vector<std::string> args() const { return {"--headless", "-C", dir.path().string()}; }
};

std::vector<std::string> renamed_files(int inotify_fd) {
    std::vector<std::string> names;
    alignas(inotify_event) char buf[8192];
    pollfd p{inotify_fd, POLLIN, 0};
    while (::poll(&p, 1, 200) > 0) {
        ssize_t n = ::read(inotify_fd, buf, sizeof buf);
        if (n <= 0)
            break;
        for (char* at = buf; at < buf + n;) {
            auto* ev = reinterpret_cast<inotify_event*>(at);
            if ((ev->mask & IN_MOVED_TO) && ev->len > 0)
                names.emplace_back(ev->name);
            at += sizeof(inotify_event) + ev->len;
        }
    }
    return names;
}

} // namespace

TEST(Binary, StartupLinesShutdownOrderAndDebugFile) {
    StartDir sd;
    test::ServerProcess server(ORVANE_BINARY, sd.args());
    ASSERT_TRUE(server.wait_for_line("Ready...")) << testing::PrintToString(server.lines());
    std::string home = (sd.dir / "home").string();
    std::vector<std::string> expected{
        "Initializing Groups...",
        "Groups read = 1",
        "Initializing Users...",
        "Users read = 2",
        "Linking users into the groups...",
        "Linking Complete.",
        "Initializing File System...",
        "File System root starts in - " + home,
        "Directories = 1",
        "Files = 3",
        "File System complete.",
    };
    const auto& lines = server.lines();
    ASSERT_GE(lines.size(), expected.size() + 5);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 11), expected);
    EXPECT_EQ(lines[11].rfind("Memory allocated - ", 0), 0u) << lines[11];
    EXPECT_EQ(lines[12], "Starting services...");
    EXPECT_EQ(lines[13], "  Telnet - Ok.  port " + std::to_string(sd.telnet_port));
    EXPECT_EQ(lines[14], "  FTP - Ok.  port " + std::to_string(sd.ftp_port));
    EXPECT_EQ(lines[15], "Ready...");

    // A second instance on the same start directory exits at once and touches nothing.
    int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(watch, 0);
    ASSERT_GE(::inotify_add_watch(watch, sd.dir.path().c_str(), IN_MOVED_TO | IN_MODIFY), 0);
    {
        test::ServerProcess second(ORVANE_BINARY, sd.args());
        EXPECT_EQ(second.wait_exit(5s), 0);
        EXPECT_TRUE(second.lines().empty());
    }
    EXPECT_TRUE(renamed_files(watch).empty());

    server.signal(SIGTERM);
    EXPECT_EQ(server.wait_exit(10s), 0);
    EXPECT_EQ(renamed_files(watch),
              (std::vector<std::string>{"users", "groups", "mounts", "fpl.txt"}));
    ::close(watch);
    const auto& all = server.lines();
    ASSERT_GE(all.size(), 18u);
    EXPECT_EQ(all[all.size() - 2], "  Telnet - Disabled");
    EXPECT_EQ(all[all.size() - 1], "  FTP - Disabled");

    std::string debug;
    for (const std::string& l : all)
        debug += l + "\r\n";
    EXPECT_EQ(sd.dir.read("debug.txt"), debug);

    // Lines reversed at every cycle; the permission list holds every node in pre-order.
    EXPECT_EQ(sd.dir.read("groups"), "staff:101:anna:bob\n");
    EXPECT_EQ(sd.dir.read("users").substr(0, 4), "bob:");
    struct stat st {};
    ASSERT_EQ(::stat((sd.dir / "users").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::string fpl = sd.dir.read("fpl.txt");
    EXPECT_EQ(fpl.substr(0, fpl.find('\n')), "\\:d:root:root:111101101");
    EXPECT_EQ(std::count(fpl.begin(), fpl.end(), '\n'), 5);
}

TEST(Binary, PortInUseLeavesTheOtherServiceRunning) {
    StartDir sd;
    int blocker = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    sa.sin_port = htons(static_cast<uint16_t>(sd.ftp_port));
    ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    ASSERT_EQ(::listen(blocker, 1), 0);
    test::ServerProcess server(ORVANE_BINARY, sd.args());
    ASSERT_TRUE(server.wait_for_line("Ready..."));
    const auto& lines = server.lines();
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "  Telnet - Ok.  port " + std::to_string(sd.telnet_port)),
              lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "  FTP - Bind error (98)"), lines.end());
    server.signal(SIGINT);
    EXPECT_EQ(server.wait_exit(), 0);
    ::close(blocker);
}

TEST(Binary, ServicesOffLogsNoListenerLine) {
    test::TempDir dir;
    dir.write("settings.ini", "[Services]\nftp=0\ntelnet=0\n");
    test::ServerProcess server(ORVANE_BINARY, {"--headless", "-C", dir.path().string()});
    ASSERT_TRUE(server.wait_for_line("Ready..."));
    EXPECT_EQ(server.lines()[server.lines().size() - 2], "Starting services...");
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait_exit(), 0);
}

TEST(Binary, CommandLine) {
    std::string out;
    EXPECT_EQ(test::run_command({ORVANE_BINARY, "--encode-password", "anna", "secret"}, out), 0);
    EXPECT_EQ(out, *encode_password("anna", "secret") + "\n");
    EXPECT_EQ(test::run_command({ORVANE_BINARY, "--encode-password", "anna", "bad:pw"}, out), 2);
    EXPECT_EQ(test::run_command({ORVANE_BINARY, "--bogus"}, out), 2);
    EXPECT_NE(out.find("usage:"), std::string::npos);
    EXPECT_EQ(test::run_command({ORVANE_BINARY, "--help"}, out), 0);
    EXPECT_EQ(test::run_command({ORVANE_BINARY, "--version"}, out), 0);
}
