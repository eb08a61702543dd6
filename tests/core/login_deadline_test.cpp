// Connections that never finish their login give their place back after the time limit, on
// the FTP and the Telnet port alike.
#include "core/server.hpp"
#include "ftpd/ftp_test_client.hpp"

#include <gtest/gtest.h>

using namespace orv;
using namespace orv::test;

TEST(LoginDeadline, IdleLoginsAreClosedAndFreeTheirPlaces) {
    TestServerConfig config;
    config.maxusers = 3;
    TestServer server(config);
    server.server().login_time_limit_ms = 500;

    // Three sockets that never log in fill the server: a Telnet client is turned away...
    TestClient idle_ftp(server.ftp_port()), idle_telnet(server.telnet_port());
    FtpClient half_done;
    half_done.open(server.ftp_port());
    EXPECT_EQ(half_done.cmd("USER demo"), "331 User ok need Password.\r\n");
    EXPECT_TRUE(wait_until([&] { return server.server().conns.user_count() == 3; }));
    TestClient turned_away(server.telnet_port());
    EXPECT_NE(turned_away.read_until("Server Full.", 2s).find("Server Full."), std::string::npos);

    // ...until the limit passes and all three are closed, whatever their login state.
    EXPECT_TRUE(idle_ftp.wait_closed(5s));
    EXPECT_TRUE(idle_telnet.wait_closed(5s));
    EXPECT_TRUE(half_done.wait_closed(5s));
    EXPECT_TRUE(wait_until([&] { return server.server().conns.user_count() == 0; }));

    // Honest logins get in, and stay past the limit once logged in.
    FtpClient ftp;
    ftp.open(server.ftp_port());
    EXPECT_NE(ftp.login("demo", "demo-pass").find("230 demo user logged in.\r\n"),
              std::string::npos);
    TestClient telnet(server.telnet_port());
    EXPECT_NE(telnet.read_until("login: ").find("login: "), std::string::npos);
    telnet.send("demo\r\n");
    telnet.read_until("Password: ");
    telnet.send("demo-pass\r\n");
    EXPECT_NE(telnet.read_until("# ").find("# "), std::string::npos);
    std::this_thread::sleep_for(900ms);
    EXPECT_EQ(ftp.cmd("PWD"), "257 \"/\" is current directory.\r\n");
    telnet.send("pwd\r\n");
    EXPECT_NE(telnet.read_until("# ").find("# "), std::string::npos);
    EXPECT_EQ(server.server().conns.user_count(), 2);
}
