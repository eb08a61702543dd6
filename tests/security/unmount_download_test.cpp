// An administrator removes a mount while a client downloads a file from it: the unmount waits
// ("Busy files...Unmount pending", then "Checking on busy files..." with the file's name every
// second) until the download has delivered every byte, and only then unmounts. Meanwhile
// nothing else of the mount can be opened, and sessions standing in it are moved out.
#include "app/admin_mounts.hpp"
#include "support/test_server.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orv::test {
namespace {

using namespace std::chrono_literals;

std::string pattern(size_t size) {
    std::string out(size, '\0');
    uint32_t x = 12345;
    for (char& c : out) {
        x = x * 1103515245 + 12345;
        c = static_cast<char>(x >> 16);
    }
    return out;
}

// The client side of an active-mode data connection.
class DataPort {
  public:
    DataPort() {
        listen_fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        ::listen(listen_fd_, 1);
        socklen_t len = sizeof sa;
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&sa), &len);
        int port = ntohs(sa.sin_port);
        port_arg_ = "127,0,0,1," + std::to_string(port >> 8) + "," + std::to_string(port & 255);
    }
    ~DataPort() {
        if (fd_ >= 0)
            ::close(fd_);
        ::close(listen_fd_);
    }
    const std::string& port_arg() const { return port_arg_; }
    bool accept() {
        pollfd p{listen_fd_, POLLIN, 0};
        if (::poll(&p, 1, 10000) != 1)
            return false;
        fd_ = ::accept(listen_fd_, nullptr, nullptr);
        return fd_ >= 0;
    }
    // Reads up to `limit` bytes (everything up to the close when limit is 0).
    std::string read(size_t limit = 0) {
        std::string out;
        char buf[65536];
        for (;;) {
            size_t want = limit ? std::min(sizeof buf, limit - out.size()) : sizeof buf;
            if (want == 0)
                break;
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 10000) != 1)
                break;
            ssize_t n = ::recv(fd_, buf, want, 0);
            if (n <= 0)
                break;
            out.append(buf, static_cast<size_t>(n));
        }
        return out;
    }

  private:
    int listen_fd_ = -1;
    int fd_ = -1;
    std::string port_arg_;
};

std::string login(TestClient& c) {
    std::string out = c.read_until("ready.\r\n");
    c.send("USER demo\r\n");
    out += c.read_until("\r\n");
    c.send("PASS demo-pass\r\n");
    return out + c.read_until(" user logged in.\r\n");
}

std::string command(TestClient& c, const std::string& line) {
    c.send(line + "\r\n");
    return c.read_until("\r\n");
}

TEST(UnmountConcurrency, WaitsForTheDownloadAndLosesNoByte) {
    const std::string big = pattern(32 << 20);
    std::string mounted;
    TestServerConfig config;
    config.fpl = "\\mnt:d:root:root:111111111\n";
    TestServer s(config, [&](TempDir& dir) {
        dir.write("mounted/big.bin", big);
        dir.write("mounted/small.txt", "small\n");
        mounted = (dir.path() / "mounted").string();
        dir.write("mounts", mounted + "|\\mnt\n");
    });

    TestClient reader(s.ftp_port());
    ASSERT_NE(login(reader).find("230 demo user logged in.\r\n"), std::string::npos);
    EXPECT_EQ(command(reader, "TYPE I"), "200 TYPE set to I\r\n");
    EXPECT_EQ(command(reader, "CWD mnt"), "250 CWD command successful\r\n");
    DataPort data;
    EXPECT_EQ(command(reader, "PORT " + data.port_arg()), "200 Port Command OK.\r\n");
    EXPECT_EQ(command(reader, "RETR big.bin"), "150 Opening BINARY mode data connection (" +
                                                   std::to_string(big.size()) + " bytes)\r\n");
    ASSERT_TRUE(data.accept());
    std::string got = data.read(64 * 1024); // then the download stalls: the client reads nothing

    TestClient other(s.ftp_port());
    login(other);
    EXPECT_EQ(command(other, "CWD mnt"), "250 CWD command successful\r\n");

    MountChange change = MountChange::NoSuchMount;
    s.on_event_thread([&] { change = delete_mount(s.server(), mounted + " - > \\mnt"); });
    ASSERT_EQ(change, MountChange::Started);
    ASSERT_TRUE(s.wait_for_log("Busy files...Unmount pending"));
    ASSERT_TRUE(s.wait_for_log("big.bin", 5s));
    // Nothing else of the mount opens any more, and the other session stands in its home.
    EXPECT_EQ(command(other, "PWD"), "257 \"/\" is current directory.\r\n");
    EXPECT_EQ(command(other, "CWD mnt"), "550 mnt; Permission denied\r\n");
    EXPECT_FALSE(s.wait_for_log("Unmounting Now!", 1500ms));

    got += data.read(); // the rest of the download, up to its close
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
    EXPECT_EQ(command(reader, "CWD \\mnt"), "550 \\mnt; No such file or directory\r\n");
    EXPECT_TRUE(std::filesystem::exists(s.dir() / "mounted" / "big.bin"));
}

} // namespace
} // namespace orv::test
