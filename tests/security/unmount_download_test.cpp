// An administrator removes a mount while a client downloads a file from it: the unmount waits
// ("Busy files...Unmount pending", then "Checking on busy files..." with the file's name every
// second) until the download has delivered every byte, and only then unmounts. Meanwhile
// nothing else of the mount can be opened, and sessions standing in it are moved out.
#include "app/admin_mounts.hpp"
#include "ftpd/ftp_test_client.hpp"

#include <gtest/gtest.h>

namespace orv::test {
namespace {

TEST(UnmountConcurrency, WaitsForTheDownloadAndLosesNoByte) {
    std::string big(32 << 20, '\0');
    uint32_t x = 12345;
    for (char& c : big) {
        x = x * 1103515245 + 12345;
        c = static_cast<char>(x >> 16);
    }
    std::string mounted;
    TestServerConfig config;
    config.fpl = "\\mnt:d:root:root:111111111\n";
    TestServer s(config, [&](TempDir& dir) {
        dir.write("mounted/big.bin", big);
        mounted = (dir.path() / "mounted").string();
        dir.write("mounts", mounted + "|\\mnt\n");
    });

    FtpClient reader(s.ftp_port());
    reader.line();
    reader.login("demo", "demo-pass");
    EXPECT_EQ(reader.cmd("TYPE I"), "200 TYPE set to I\r\n");
    EXPECT_EQ(reader.cmd("CWD mnt"), "250 CWD command successful\r\n");
    DataListener data;
    EXPECT_EQ(reader.cmd("PORT " + data.port_arg()), "200 Port Command OK.\r\n");
    EXPECT_EQ(reader.cmd("RETR big.bin"), "150 Opening BINARY mode data connection (" +
                                              std::to_string(big.size()) + " bytes)\r\n");
    ASSERT_TRUE(data.accept());
    // Then the download stalls: the client reads nothing.
    std::string got = data.read(64 * 1024).value_or("");

    FtpClient other(s.ftp_port());
    other.line();
    other.login("demo", "demo-pass");
    EXPECT_EQ(other.cmd("CWD mnt"), "250 CWD command successful\r\n");

    MountChange change = MountChange::NoSuchMount;
    s.on_event_thread([&] { change = delete_mount(s.server(), mounted + " - > \\mnt"); });
    ASSERT_EQ(change, MountChange::Started);
    ASSERT_TRUE(s.wait_for_log("Busy files...Unmount pending"));
    ASSERT_TRUE(s.wait_for_log("big.bin"));
    // Nothing else of the mount opens any more, and the other session stands in its home.
    EXPECT_EQ(other.cmd("PWD"), "257 \"/\" is current directory.\r\n");
    EXPECT_EQ(other.cmd("CWD mnt"), "550 mnt; Permission denied\r\n");
    EXPECT_FALSE(s.wait_for_log("Unmounting Now!", 1500ms));

    got += data.read(0, 60s).value_or(""); // the rest of the download, up to its close
    EXPECT_EQ(got.size(), big.size());
    EXPECT_TRUE(got == big) << "the download differs from the file";
    EXPECT_EQ(reader.read_until("\r\n", 10s), "226 Transfer complete\r\n");
    ASSERT_TRUE(s.wait_for_log("Remove mount thread Complete.", 10s));

    std::vector<std::string> log = s.log_lines();
    auto at = [&](const std::string& line) {
        return std::find(log.begin(), log.end(), line) - log.begin();
    };
    EXPECT_LT(at("Busy files...Unmount pending"), at("Checking on busy files..."));
    EXPECT_LT(at("Checking on busy files..."), at("Unmounting Now!"));
    EXPECT_LT(at("Unmounting Now!"), at("Remove mount thread Complete."));
    // The mount is gone from the tree and its files stay on the disk.
    EXPECT_EQ(reader.cmd("CWD \\mnt"), "550 \\mnt; No such file or directory\r\n");
    EXPECT_TRUE(std::filesystem::exists(s.dir() / "mounted" / "big.bin"));
}

} // namespace
} // namespace orv::test
