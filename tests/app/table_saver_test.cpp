#include "app/admin_api.hpp"
#include "app/server_app.hpp"
#include "core/server.hpp"
#include "support/test_server.hpp"

#include <fstream>
#include <gtest/gtest.h>
#include <thread>

using namespace orv;

namespace {

void overwrite(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

long count_lines(const std::vector<std::string>& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
}

} // namespace

// A change reaches the disk within about a second, and only in the table it changed; with no
// change nothing is written.
TEST(TableSaver, WritesOnlyTheTablesAChangeTouched) {
    test::TestServer s;
    AdminApi api(s.app());
    // Stand-ins that no render of the server would produce: a write replaces them.
    for (const char* name : {"users", "groups", "mounts", "fpl.txt"})
        overwrite(s.dir() / name, "untouched\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    for (const char* name : {"users", "groups", "mounts", "fpl.txt"})
        EXPECT_EQ(s.dir().read(name), "untouched\n") << name << " written without a change";

    // A failed session's login and a listing change nothing either.
    test::TestClient c(s.ftp_port());
    c.read_until("ready.\r\n");
    c.send("USER demo\r\n");
    c.read_until("\r\n");
    c.send("PASS wrong\r\n");
    c.read_until("\r\n");

    ASSERT_FALSE(api.save_group("staff", {"demo"}).refusal);
    EXPECT_TRUE(test::wait_until([&] { return s.dir().read("groups") == "staff:101:demo\n"; },
                                 std::chrono::milliseconds(2500)));
    EXPECT_EQ(s.dir().read("users"), "untouched\n");
    EXPECT_EQ(s.dir().read("fpl.txt"), "untouched\n");

    // A new directory changes fpl.txt alone.
    test::TestClient f(s.ftp_port());
    f.read_until("ready.\r\n");
    f.send("USER admin\r\n");
    f.read_until("\r\n");
    f.send("PASS admin-pass\r\n");
    f.read_until("230 ");
    f.read_until("\r\n");
    f.send("MKD fresh\r\n");
    f.read_until("\r\n");
    EXPECT_TRUE(test::wait_until(
        [&] { return s.dir().read("fpl.txt").find("\\fresh:d:") != std::string::npos; },
        std::chrono::milliseconds(2500)));
    EXPECT_EQ(s.dir().read("users"), "untouched\n");
    EXPECT_EQ(s.dir().read("mounts"), "untouched\n");
}

// A table that cannot be written is logged, naming it: once while a run of background writes
// keeps failing, and again at the shutdown. The others are written all the same.
TEST(TableSaver, ATableThatCannotBeWrittenIsLogged) {
    test::TestServer s({}, [](test::TempDir& d) { d.write("groups/blocker", "x"); });
    AdminApi api(s.app());
    const std::string line = "**** Unable to write groups (Is a directory) ****";
    ASSERT_FALSE(api.save_group("staff", {"demo"}).refusal);
    EXPECT_TRUE(s.wait_for_log(line, std::chrono::milliseconds(3000)));
    ASSERT_FALSE(api.save_group("crew", {"admin"}).refusal);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(count_lines(s.log_lines(), line), 1);

    UserForm u;
    u.name = "erin";
    u.password = "erin-pass";
    u.max_logins = "1";
    u.home_dir = "\\";
    ASSERT_FALSE(api.save_user(u).refusal);
    EXPECT_TRUE(
        test::wait_until([&] { return s.dir().read("users").find("erin:") != std::string::npos; },
                         std::chrono::milliseconds(2500)));

    s.stop();
    EXPECT_EQ(count_lines(s.log_lines(), line), 2);
    EXPECT_FALSE(std::filesystem::exists(s.dir() / "groups.tmp"));
}

// SIGHUP's work: settings.ini is read again and applied as a Save of the settings dialog is.
TEST(ReloadSettings, AppliesServicesPortsAndMaxUsersAndKeepsTheHome) {
    test::TestServer s;
    int ftp_port = test::free_port();
    std::filesystem::create_directories(s.dir() / "other");
    overwrite(s.dir() / "settings.ini",
              "[Server_Settings]\nserverhome=" + (s.dir() / "other").string() +
                  "\nmaxusers=3\n[Services]\ntelnet=0\nftp=1\ntelnet_port=" +
                  std::to_string(s.telnet_port()) + "\nftp_port=" + std::to_string(ftp_port) +
                  "\n");
    size_t mark = s.log_lines().size();
    s.on_event_thread([&] { s.app().reload_settings(); });
    EXPECT_EQ(s.log_since(mark),
              (std::vector<std::string>{
                  "Settings reloaded",
                  "Server home directory change will take effect next time you start the server",
                  "  Telnet - Disabled", "  FTP - Disabled",
                  "  FTP - Ok.  port " + std::to_string(ftp_port)}));
    EXPECT_EQ(s.server().settings.maxusers, 3);
    EXPECT_EQ(s.server().settings.serverhome, s.home().string());
    test::TestClient c;
    EXPECT_TRUE(c.connect(ftp_port));
    c.read_until("ready.\r\n");

    // The same file again changes nothing.
    mark = s.log_lines().size();
    s.on_event_thread([&] { s.app().reload_settings(); });
    EXPECT_EQ(s.log_since(mark).size(), 2u);
}
