// The control connection, the dispatcher and login over real loopback sockets.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftp_test_client.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <shared_mutex>

using namespace orv;
using namespace orv::test;

namespace {

const std::string kGreeting =
    "220 Orvane Server (beta) written by Pel Varnholt and Kem Osterlo, ready.\r\n";
const std::string kGoodbye = "221-Orvane Server (beta) written by Pel Varnholt and Kem Osterlo\r\n"
                             "221 Connection closed.\r\n";
const std::string kPwdRoot = "257 \"/\" is current directory.\r\n";
const std::string kNotImplemented = "502 Command not implemented.\r\n";
const std::string kNotUnderstood = "500 Command not understood.\r\n";

int active_logins(TestServer& server, const std::string& name) {
    std::shared_lock lock(server.server().tree_mutex);
    return server.server().accounts->find_user(name)->active_logins.load();
}

} // namespace

TEST(FtpControl, GreetingTitleAndCloseLines) {
    TestServerConfig config;
    config.maxusers = 2;
    TestServer server(config);
    {
        FtpClient c;
        EXPECT_EQ(c.open(server.ftp_port()), kGreeting);
        int sock = last_ftp_socket(server);
        EXPECT_TRUE(
            wait_until([&] { return server.server().title() == "Orvane Server - 1 Users"; }));
        c.close();
        EXPECT_TRUE(server.wait_for_log("FTP Close port " + std::to_string(sock)));
        EXPECT_TRUE(
            wait_until([&] { return server.server().title() == "Orvane Server - 0 Users"; }));
    }
    // A full server still greets.
    FtpClient a, b, c;
    a.open(server.ftp_port());
    b.open(server.ftp_port());
    EXPECT_TRUE(
        wait_until([&] { return server.server().title() == "Orvane Server - 2 Users (Full)"; }));
    EXPECT_EQ(c.open(server.ftp_port()), kGreeting);
    int sock = last_ftp_socket(server);
    c.send("QUIT\r\n");
    EXPECT_EQ(c.read_until("221 Connection closed.\r\n"), kGoodbye);
    EXPECT_TRUE(c.wait_closed());
    EXPECT_TRUE(server.wait_for_log("(" + std::to_string(sock) + ") FTP Close port"));
}

TEST(FtpControl, OneLinePerReadAndPartialLines) {
    TestServer server;
    FtpClient c;
    c.open(server.ftp_port());
    int sock = last_ftp_socket(server);
    // Not logged in: a partial line is dispatched as an empty one.
    c.send("US");
    EXPECT_EQ(c.line(), kNotUnderstood);
    EXPECT_TRUE(server.wait_for_log("(" + std::to_string(sock) + ") <nothing>"));
    // In state 3 a partial line waits; it completes with the next read.
    c.send("ER demo\r\n");
    EXPECT_EQ(c.line(), "331 User ok need Password.\r\n");
    EXPECT_NE(c.login("demo", "demo-pass").find("230 demo user logged in.\r\n"), std::string::npos);

    // Two commands in one packet: only the first is answered until more bytes come.
    c.send("NOOP\r\nSYST\r\n");
    EXPECT_EQ(c.line(), kNotImplemented);
    EXPECT_EQ(c.read_quiet(), "");
    c.send("P");
    EXPECT_EQ(c.line(), kNotImplemented); // SYST
    c.send("WD\r\n");
    EXPECT_EQ(c.line(), kPwdRoot);
}

TEST(FtpControl, OverflowAndGarbageNeverBreakTheServer) {
    TestServer server;
    FtpClient offender, newest;
    offender.open(server.ftp_port());
    int sock = last_ftp_socket(server);
    offender.login("demo", "demo-pass");
    newest.open(server.ftp_port());
    newest.login("demo", "demo-pass");

    // Telnet commands and NULs: what follows a NUL in one read is lost, line end included.
    EXPECT_EQ(newest.cmd(std::string("\xff\xf4\xff\xfd\x06", 5)), kNotUnderstood);
    newest.send(std::string("AB\0CD\r\n", 7));
    EXPECT_EQ(newest.read_quiet(200ms), "");
    EXPECT_EQ(newest.cmd(""), kNotUnderstood); // the line "AB"

    // 237 characters and the line end: 239 bytes fit.
    offender.send(std::string(237, 'x') + "\r\n");
    EXPECT_EQ(offender.line(), kNotUnderstood);
    // 200 bytes buffered, then 40 more: kicked, and the newest session is told.
    offender.send(std::string(200, 'y'));
    EXPECT_EQ(offender.read_quiet(200ms), "");
    offender.send(std::string(40, 'y'));
    EXPECT_EQ(offender.read_until("221 Connection closed.\r\n"), kGoodbye);
    EXPECT_TRUE(offender.wait_closed());
    EXPECT_EQ(newest.line(), "421-Command buffer overflow, Kicked off\r\n");
    EXPECT_TRUE(server.wait_for_log("FTP Close port " + std::to_string(sock)));

    // Binary noise without line ends ends in the same kick.
    FtpClient flood;
    flood.open(server.ftp_port());
    std::string noise;
    for (int i = 1; i < 5000; ++i)
        noise += static_cast<char>(i % 251 + 1);
    flood.send(noise);
    EXPECT_TRUE(flood.wait_closed());
    EXPECT_EQ(newest.cmd("PWD"), kPwdRoot);
}

TEST(FtpDispatch, VerbsAnswersAndDroppedLines) {
    TestServer server;
    FtpClient c;
    c.open(server.ftp_port());
    c.login("demo", "demo-pass");
    EXPECT_EQ(c.cmd("PASV"), kNotImplemented);
    EXPECT_EQ(c.cmd("FEAT"), kNotUnderstood);
    EXPECT_EQ(c.cmd("ABCDEFGHIJKLMNOPQ"), kNotUnderstood);
    EXPECT_EQ(c.cmd("cdup"), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("xPwD"), kPwdRoot);

    // While a STOR waits for its data, every line is dropped without a reply.
    DataListener data;
    EXPECT_EQ(c.cmd("PORT " + data.port_arg()), "200 Port Command OK.\r\n");
    {
        std::unique_lock lock(server.server().tree_mutex);
        server.server().vfs->root->flags = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    }
    EXPECT_EQ(c.cmd("STOR held.txt"), "150 Opening ASCII mode data connection\r\n");
    ASSERT_TRUE(data.accept());
    c.send("NOOP\r\n");
    EXPECT_EQ(c.read_quiet(), "");
    data.send_and_close("abc");
    EXPECT_EQ(c.line(), "226 Transfer complete\r\n");
    EXPECT_EQ(c.read_quiet(200ms), "");
    EXPECT_EQ(c.cmd("NOOP"), kNotImplemented);

    // A command thread that cannot start is only logged; the session stays busy for good.
    server.server().workers.set_refuse_spawns(true);
    c.send("CDUP\r\n");
    EXPECT_TRUE(server.wait_for_log("**** Failed to create ftp in CWUP Thread ****"));
    server.server().workers.set_refuse_spawns(false);
    c.send("PWD\r\n");
    EXPECT_EQ(c.read_quiet(), "");
}

TEST(FtpLogin, MessageCountsAndLogLines) {
    TestServerConfig config;
    config.motd = "Welcome\r\nto the server\n";
    TestServer server(config);
    FtpClient c;
    c.open(server.ftp_port());
    std::string s = std::to_string(last_ftp_socket(server));
    EXPECT_EQ(c.cmd("user demo"), "331 User ok need Password.\r\n");
    c.send("pass demo-pass\r\n");
    EXPECT_EQ(c.read_until("user logged in.\r\n"),
              "230-Welcome\r\n230-to the server\r\n"
              "230- 1 out of 5 allowed connections in use.\r\n230 demo user logged in.\r\n");
    EXPECT_TRUE(server.wait_for_log("(" + s + ") Login Message thread complete"));
    EXPECT_TRUE(server.logged("(" + s + ") <password>"));
    for (const std::string& l : server.log_lines())
        EXPECT_EQ(l.find("demo-pass"), std::string::npos) << l;
    EXPECT_EQ(active_logins(server, "demo"), 1);
    c.close();
    EXPECT_TRUE(wait_until([&] { return active_logins(server, "demo") == 0; }));
}

TEST(FtpLogin, FailuresAlwaysEndTheConnection) {
    TestServerConfig config;
    config.accounts.push_back({"telnetonly", "tel-pass", 102, 5, 8, "\\"});
    TestServer server(config);
    struct Case {
        std::vector<std::string> lines;
        std::string logged;
    };
    const std::vector<Case> cases = {
        {{"USER demo", "PASS wrong"}, "Login failure for user (demo)"},
        {{"USER Demo", "PASS demo-pass"}, "Login failure for unknown user"},
        {{"PASS demo-pass"}, "Login failure for unknown user"},
        {{"USER telnetonly", "PASS tel-pass"}, "Login failure for user (telnetonly)"},
    };
    for (const Case& k : cases) {
        FtpClient c;
        c.open(server.ftp_port());
        std::string s = std::to_string(last_ftp_socket(server));
        std::string last;
        for (const std::string& l : k.lines)
            last = c.cmd(l);
        EXPECT_EQ(last, "550 Login incorrect\r\n") << k.lines.back();
        EXPECT_EQ(c.read_quiet(200ms), ""); // no goodbye lines
        EXPECT_TRUE(c.wait_closed());
        EXPECT_TRUE(server.wait_for_log("(" + s + ") " + k.logged)) << k.logged;
        EXPECT_TRUE(server.wait_for_log("Ftp Close port " + s));
    }
    EXPECT_EQ(active_logins(server, "demo"), 0);
}

TEST(FtpLogin, PerUserAndServerLimits) {
    TestServerConfig config;
    config.maxusers = 3;
    config.accounts.push_back({"solo", "solo-pass", 103, 1, 4, "\\"});
    TestServer server(config);
    FtpClient first;
    first.open(server.ftp_port());
    EXPECT_NE(first.login("solo", "solo-pass").find("230- 1 out of 1 allowed"), std::string::npos);

    FtpClient second;
    second.open(server.ftp_port());
    second.cmd("USER solo");
    second.send("PASS solo-pass\r\n");
    EXPECT_EQ(second.read_until("550 Login incorrect\r\n"),
              "421- solo - max (1) connections in use.\r\n550 Login incorrect\r\n");
    EXPECT_TRUE(second.wait_closed());
    // A bare USER that goes away does not lower the count of the session that logged in.
    {
        FtpClient lurker;
        lurker.open(server.ftp_port());
        lurker.cmd("USER solo");
    }
    EXPECT_TRUE(wait_until([&] { return server.server().conns.user_count() == 1; }));
    EXPECT_EQ(active_logins(server, "solo"), 1);

    // Four connections against maxusers 3: the one that completes PASS is turned away.
    FtpClient b, c, d;
    b.open(server.ftp_port());
    c.open(server.ftp_port());
    d.open(server.ftp_port());
    d.cmd("USER demo");
    d.send("PASS demo-pass\r\n");
    EXPECT_EQ(d.read_until("221 Connection closed.\r\n"),
              "421 Max server connections, Connection closed.\r\n" + kGoodbye);
    EXPECT_TRUE(d.wait_closed());
    EXPECT_TRUE(wait_until([&] { return active_logins(server, "demo") == 0; }));
}

TEST(FtpLogin, NothingPassesBeforeTheLoginCompletes) {
    TestServer server({}, [](TempDir& dir) {
        dir.write("home/secret/plans.txt", "top secret");
        dir.write("home/readme.txt", "hello");
    });
    FtpClient c;
    c.open(server.ftp_port());
    EXPECT_EQ(c.cmd("USER admin"), "331 User ok need Password.\r\n");
    EXPECT_EQ(c.cmd("CWD /"), "550 /; No such file or directory\r\n");
    EXPECT_EQ(c.cmd("CWD /secret"), "550 /secret; No such file or directory\r\n");
    EXPECT_EQ(c.download("LIST").preliminary, "550 Permission denied\r\n");
    EXPECT_EQ(c.download("RETR readme.txt").preliminary, "550 No such file or directory\r\n");
    EXPECT_EQ(c.download("STOR new.txt").preliminary, "550 No such file or directory\r\n");
    EXPECT_EQ(c.cmd("MKD /made"), "550 mkdir: Failed; No such file or directory \"/made\"\r\n");
    EXPECT_EQ(c.cmd("RMD /secret"), "550 rmdir: No such file or Directory \"\"\r\n");
    EXPECT_EQ(c.cmd("DELE readme.txt"), "550 No such file or directory\r\n");
    EXPECT_FALSE(std::filesystem::exists(server.home() / "made"));
    EXPECT_TRUE(std::filesystem::exists(server.home() / "readme.txt"));

    // A new USER after a completed login takes the rights of that login away too.
    FtpClient d;
    d.open(server.ftp_port());
    d.login("demo", "demo-pass");
    EXPECT_EQ(d.cmd("CWD /secret"), "250 CWD command successful\r\n");
    EXPECT_EQ(d.cmd("USER admin"), "331 User ok need Password.\r\n");
    EXPECT_EQ(active_logins(server, "demo"), 0);
    EXPECT_EQ(d.cmd("CWD /"), "550 /; No such file or directory\r\n");
    EXPECT_EQ(d.download("RETR plans.txt").preliminary, "550 Permissions denied\r\n");
}

TEST(FtpLogin, PasswordLinesAndControlBytesNeverReachTheLogRaw) {
    TestServer server;
    FtpClient early;
    early.open(server.ftp_port());
    std::string s = std::to_string(last_ftp_socket(server));
    // PASS before any USER, in any case: the line is still a password.
    EXPECT_EQ(early.cmd("pass early-secret"), "550 Login incorrect\r\n");
    EXPECT_TRUE(server.wait_for_log("(" + s + ") <password>"));

    FtpClient c;
    c.open(server.ftp_port());
    s = std::to_string(last_ftp_socket(server));
    c.login("demo", "demo-pass");
    FtpClient tab;
    tab.open(server.ftp_port());
    std::string t = std::to_string(last_ftp_socket(server));
    size_t mark = server.log_lines().size();
    tab.login("demo", "demo-pass");
    // A second PASS after the login, and one with a tab for its blank.
    EXPECT_EQ(c.cmd("PASS late-secret"), "550 Login incorrect\r\n");
    EXPECT_EQ(tab.cmd("PASS\ttab-secret"), kNotUnderstood);
    // Control bytes cannot end a log line or start a forged one.
    EXPECT_EQ(tab.cmd("SITE x\x1b[2J\x08\x7f y"), kNotImplemented);
    EXPECT_TRUE(server.wait_for_log("(" + t + ") SITE x\\x1B[2J\\x08\\x7F y"));
    std::vector<std::string> lines = server.log_since(mark);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "(" + s + ") <password>"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "(" + t + ") <password>"), 2);
    for (const std::string& l : server.log_lines())
        EXPECT_EQ(l.find("secret"), std::string::npos) << l;
}
