// Transfers, listings and file-system commands of the FTP service over loopback sockets.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftp_test_client.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <shared_mutex>
#include <sys/stat.h>
#include <unistd.h>

using namespace orv;
using namespace orv::test;
namespace fs = std::filesystem;

namespace {

std::string pattern_bytes(size_t size) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<char>((i * 131 + i / 7) & 0xff);
    return out;
}

// home/: pub (open to all) with two files and sub/, and locked (owner only).
class FtpFiles : public ::testing::Test {
  protected:
    FtpFiles()
        : server({}, [](TempDir& d) {
              d.write("home/pub/hello.bin", pattern_bytes(1234));
              d.write("home/pub/notes.txt", "line one\nline two\r\n");
              d.write("home/pub/sub/inner.txt", "i");
              d.write("home/locked/x.txt", "x");
          }) {
        set_mode("\\pub", "rwxrwxrwx");
        set_mode("\\pub\\hello.bin", "rw-r--r--");
        set_mode("\\pub\\notes.txt", "rw-rw-rw-");
        set_mode("\\pub\\sub", "rwxr-xr-x");
        set_mode("\\pub\\sub\\inner.txt", "rw-r--r--");
        set_mode("\\locked", "rwx------");
        c.open(server.ftp_port());
        c.login("demo", "demo-pass");
        socket = last_ftp_socket(server);
    }

    void set_mode(const std::string& path, const std::string& mode) {
        std::unique_lock lock(server.server().tree_mutex);
        NodePtr n = find_node(*server.server().vfs, path, server.server().vfs->root);
        ASSERT_TRUE(n) << path;
        for (size_t i = 0; i < 9; ++i)
            n->flags[i] = mode[i] != '-';
    }
    NodePtr node(const std::string& path) {
        std::shared_lock lock(server.server().tree_mutex);
        return find_node(*server.server().vfs, path, server.server().vfs->root);
    }
    std::string owner_of(const std::string& path) {
        NodePtr n = node(path);
        std::shared_lock lock(server.server().tree_mutex);
        return n && n->owner ? n->owner->name : "<none>";
    }
    bool wait_log(const std::string& text_after_socket) {
        return server.wait_for_log("(" + std::to_string(socket) + ") " + text_after_socket);
    }
    bool log_starts(const std::string& prefix) {
        for (const std::string& l : server.log_lines())
            if (l.rfind(prefix, 0) == 0)
                return true;
        return false;
    }

    TestServer server;
    FtpClient c;
    int socket = -1;
};

} // namespace

TEST_F(FtpFiles, RetrInBothTypes) {
    ASSERT_EQ(c.cmd("CWD pub"), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("TYPE I"), "200 TYPE set to I\r\n");
    auto t = c.download("RETR hello.bin");
    EXPECT_EQ(t.preliminary, "150 Opening BINARY mode data connection (1234 bytes)\r\n");
    EXPECT_EQ(t.data, pattern_bytes(1234));
    EXPECT_EQ(t.final_reply, "226 Transfer complete\r\n");
    // From port 20 when the process may bind it (as root), from any port otherwise.
    if (::geteuid() == 0)
        EXPECT_EQ(t.server_port, 20);
    else
        EXPECT_GT(t.server_port, 1023);
    EXPECT_TRUE(wait_log("RETR thread complete"));
    // The binary loop's log line says "received" although it sends.
    EXPECT_TRUE(log_starts("(" + std::to_string(socket) + ") 1234 bytes received in "));

    // ASCII sends the bytes unchanged; "a" means binary.
    EXPECT_EQ(c.cmd("TYPE A"), "200 TYPE set to A\r\n");
    t = c.download("RETR notes.txt");
    EXPECT_EQ(t.preliminary, "150 Opening ASCII mode data connection (19 bytes)\r\n");
    EXPECT_EQ(t.data, "line one\nline two\r\n");
    EXPECT_TRUE(log_starts("(" + std::to_string(socket) + ") 19 bytes sent in "));
    EXPECT_EQ(c.cmd("TYPE a"), "200 TYPE set to a\r\n");
    EXPECT_EQ(c.download("RETR notes.txt").preliminary,
              "150 Opening BINARY mode data connection (19 bytes)\r\n");
    EXPECT_EQ(c.cmd("TYPE i"), "500 'TYPE i': command not understood\r\n");

    EXPECT_EQ(c.download("RETR missing").preliminary, "550 No such file or directory\r\n");
    set_mode("\\pub\\notes.txt", "rw--w--w-");
    EXPECT_EQ(c.download("RETR notes.txt").preliminary, "550 Permissions denied\r\n");
}

TEST_F(FtpFiles, DataConnectionsGoOnlyToTheClient) {
    c.cmd("CWD pub");
    // Another address (even on this host) is refused like a connect that failed.
    DataListener elsewhere("127.0.0.2");
    EXPECT_EQ(c.cmd("PORT " + elsewhere.port_arg()), "200 Port Command OK.\r\n");
    EXPECT_EQ(c.cmd("RETR hello.bin"), "150 Opening ASCII mode data connection (1234 bytes)\r\n");
    EXPECT_TRUE(server.wait_for_log("Data Connection failed!"));
    EXPECT_TRUE(wait_log("RETR thread complete"));
    EXPECT_FALSE(elsewhere.accept(200ms));
    EXPECT_EQ(c.read_quiet(200ms), "");

    // A client that does not listen gets the 150 line and nothing else.
    int closed_port = free_port();
    EXPECT_EQ(c.cmd("PORT 127,0,0,1," + std::to_string(closed_port / 256) + "," +
                    std::to_string(closed_port % 256)),
              "200 Port Command OK.\r\n");
    EXPECT_EQ(c.cmd("LIST"), "150 Opening ASCII mode data connection\r\n");
    EXPECT_TRUE(wait_log("LIST thread complete"));
    EXPECT_EQ(c.cmd("PWD"), "257 \"/pub\" is current directory.\r\n");
    EXPECT_EQ(c.cmd("PORT 127,0,0,1,1,2,3,4,5,6,7,8,9"),
              "500 Syntax Error, Command not understood.\r\n");
}

TEST_F(FtpFiles, PortAddressesReadClassicallyAndPrivilegedPortsRefused) {
    c.cmd("CWD pub");
    DataListener data;
    std::string port = data.port_arg().substr(data.port_arg().find(',', 8));
    // Parts with leading zeros are octal, as inet_addr reads them: 127.000.000.001 is us...
    EXPECT_EQ(c.cmd("PORT 127,000,000,001" + port), "200 Port Command OK.\r\n");
    EXPECT_EQ(c.cmd("NLST *.bin"), "150 Opening ASCII mode data connection\r\n");
    ASSERT_TRUE(data.accept());
    EXPECT_EQ(data.read(), "hello.bin\r\n");
    EXPECT_EQ(c.line(), "226 Transfer complete\r\n");

    // ...and 127.0.0.010 is 127.0.0.8, another host. Ports below 1024 are a bounce too, also
    // when the two numbers only reach one by wrapping past 65535. (A listener there needs the
    // privilege to bind it; without, the refusal still shows as the failed connection.)
    std::unique_ptr<DataListener> low;
    for (int p = 1023; p > 900 && !(low && low->listening()); --p)
        low = std::make_unique<DataListener>("127.0.0.1", p);
    int low_port = low->listening() ? low->port() : 1023;
    std::string low_arg =
        "127,0,0,1," + std::to_string(low_port / 256) + "," + std::to_string(low_port % 256);
    std::string wrapped = "127,0,0,1,0," + std::to_string(low_port + 65536);
    const std::string done = "(" + std::to_string(socket) + ") NLST thread complete";
    ASSERT_TRUE(server.wait_for_log(done)); // the first listing's thread has ended
    for (std::string arg : {"127,0,0,010" + port, low_arg, wrapped}) {
        size_t mark = server.log_lines().size();
        EXPECT_EQ(c.cmd("PORT " + arg), "200 Port Command OK.\r\n");
        EXPECT_EQ(c.cmd("NLST"), "150 Opening ASCII mode data connection\r\n") << arg;
        EXPECT_TRUE(wait_until([&] {
            auto lines = server.log_since(mark);
            return std::count(lines.begin(), lines.end(), done) == 1;
        })) << arg;
        auto lines = server.log_since(mark);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "Data Connection failed!"), 1) << arg;
        EXPECT_EQ(c.read_quiet(100ms), "") << arg;
    }
    EXPECT_FALSE(data.accept(100ms));
    EXPECT_FALSE(low->accept(100ms));
}

TEST_F(FtpFiles, StorAddsFilesOwnedByTheUploader) {
    c.cmd("CWD pub");
    auto t = c.upload("STOR up load.txt", "uploaded\r\n");
    EXPECT_EQ(t.preliminary, "150 Opening ASCII mode data connection\r\n");
    EXPECT_EQ(t.final_reply, "226 Transfer complete\r\n");
    EXPECT_TRUE(wait_log("STOR thread complete"));
    EXPECT_TRUE(log_starts("(" + std::to_string(socket) + ") 10 bytes received in "));
    EXPECT_EQ(server.dir().read("home/pub/up load.txt"), "uploaded\r\n");
    EXPECT_EQ(owner_of("\\pub\\up load.txt"), "demo");
    EXPECT_EQ(node("\\pub\\up load.txt")->size, 10u);
    EXPECT_NE(c.download("NLST").data.find("up load.txt\r\n"), std::string::npos);

    // Overwriting keeps one node and announces the new size.
    c.cmd("TYPE I");
    std::string big = pattern_bytes(1 << 20);
    EXPECT_EQ(c.upload("STOR up load.txt", big).final_reply, "226 Transfer complete\r\n");
    t = c.download("RETR up load.txt");
    EXPECT_EQ(t.preliminary, "150 Opening BINARY mode data connection (1048576 bytes)\r\n");
    EXPECT_TRUE(t.data == big);
    std::string listing = c.download("NLST").data;
    EXPECT_EQ(listing.find("up load.txt"), listing.rfind("up load.txt"));

    // Only a plain new name in a writable directory.
    for (const char* name : {"../escape.txt", "..", "a\\b", ""})
        EXPECT_EQ(c.upload(std::string("STOR ") + name, "x").preliminary,
                  "550 Permissions denied\r\n")
            << name;
    c.cmd("CDUP");
    EXPECT_EQ(c.upload("STOR rooted.txt", "x").preliminary, "550 Permissions denied\r\n");
    EXPECT_FALSE(fs::exists(server.home() / "rooted.txt"));
    EXPECT_FALSE(fs::exists(server.home().parent_path() / "escape.txt"));
}

TEST_F(FtpFiles, FilesInTransferAreNotDeletedOrOverwritten) {
    server.dir().write("home/pub/large.bin", pattern_bytes(48 << 20));
    {
        std::unique_lock lock(server.server().tree_mutex);
        NodePtr pub = find_node(*server.server().vfs, "\\pub", server.server().vfs->root);
        add_node(*server.server().vfs, *server.server().accounts, pub, "large.bin", '-', 48 << 20,
                 nullptr, nullptr);
    }
    set_mode("\\pub\\large.bin", "rw-rw-rw-");
    c.cmd("CWD pub");
    c.cmd("TYPE I");
    DataListener data;
    c.cmd("PORT " + data.port_arg());
    EXPECT_EQ(c.cmd("RETR large.bin"),
              "150 Opening BINARY mode data connection (50331648 bytes)\r\n");
    ASSERT_TRUE(data.accept());
    // Not reading: the sender stays in the middle of the file.
    FtpClient other;
    other.open(server.ftp_port());
    other.login("admin", "admin-pass");
    other.cmd("CWD pub");
    EXPECT_EQ(other.cmd("DELE large.bin"), "550 Permissions denied (delete failed)\r\n");
    EXPECT_EQ(other.upload("STOR large.bin", "x").preliminary, "550 Permissions denied\r\n");
    EXPECT_EQ(node("\\pub\\large.bin")->status.load(), kStatusBusy);

    auto got = data.read();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->size(), 48u << 20);
    EXPECT_EQ(c.line(), "226 Transfer complete\r\n");
    EXPECT_EQ(node("\\pub\\large.bin")->status.load(), kStatusNormal);
    EXPECT_EQ(other.cmd("DELE large.bin"), "250 DELE command ok.\r\n");
    EXPECT_FALSE(fs::exists(server.home() / "pub" / "large.bin"));
}

TEST_F(FtpFiles, LongAndNameListings) {
    c.cmd("CWD pub");
    std::string hello = "-rw-r--r--     root     <none>         1234 Jan  1  1998 hello.bin\r\n";
    std::string notes = "-rw-rw-rw-     root     <none>           19 Jan  1  1998 notes.txt\r\n";
    std::string sub = "drwxr-xr-x     root     <none>            0 Jan  1  1998 sub\r\n";

    auto t = c.download("LIST");
    EXPECT_EQ(t.preliminary, "150 Opening ASCII mode data connection\r\n");
    EXPECT_EQ(t.final_reply, "226 Transfer complete\r\n");
    EXPECT_EQ(t.data.size(), hello.size() + notes.size() + sub.size());
    for (const std::string& l : {hello, notes, sub})
        EXPECT_NE(t.data.find(l), std::string::npos) << l;
    EXPECT_TRUE(wait_log("LIST thread complete"));

    EXPECT_EQ(c.download("LIST *.txt").data, notes);
    EXPECT_EQ(c.download("LIST sub").data,
              "drwxr-xr-x     root     <none>            0 Jan  1  1998 .\r\n"
              "drwxrwxrwx     root     <none>            0 Jan  1  1998 ..\r\n"
              "-rw-r--r--     root     <none>            1 Jan  1  1998 inner.txt\r\n");
    EXPECT_EQ(c.download("NLST sub").data, ".\r\n..\r\ninner.txt\r\n");
    EXPECT_EQ(c.download("NLST *.bin").data, "hello.bin\r\n");
    EXPECT_TRUE(wait_log("NLST thread complete"));

    // Nothing to show: a 550 and no 150 line.
    EXPECT_EQ(c.download("LIST nomatch").preliminary,
              "550 nomatch: No such file or directory.\r\n");
    c.cmd("MKD empty");
    c.cmd("CWD empty");
    EXPECT_EQ(c.download("NLST").preliminary, "550 *.*: No such file or directory.\r\n");
    c.cmd("CDUP");
    set_mode("\\pub", "rwx-wx-wx");
    EXPECT_EQ(c.download("LIST").preliminary, "550 Permission denied\r\n");
}

TEST_F(FtpFiles, ChangingDirectories) {
    EXPECT_EQ(c.cmd("PWD"), "257 \"/\" is current directory.\r\n");
    EXPECT_EQ(c.cmd("CDUP"), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("CWD \\pub/sub"), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("PWD"), "257 \"/pub/sub\" is current directory.\r\n");
    EXPECT_EQ(c.cmd("CDUP"), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("PWD"), "257 \"/pub\" is current directory.\r\n");
    EXPECT_EQ(c.cmd("CWD missing"), "550 missing; No such file or directory\r\n");
    EXPECT_EQ(c.cmd("CWD /locked"), "550 /locked; Permission denied\r\n");
    EXPECT_EQ(c.cmd("XCWD sub"), "250 CWD command successful\r\n");
    set_mode("\\pub", "rwx--x--x");
    EXPECT_EQ(c.cmd("CDUP"), "550 ; Permission denied\r\n");
    EXPECT_EQ(c.cmd("PWD"), "257 \"/pub/sub\" is current directory.\r\n");
    // CWD writes no thread line of its own.
    for (const std::string& l : server.log_lines())
        EXPECT_EQ(l.find("CWD thread complete"), std::string::npos);
}

TEST_F(FtpFiles, MakingAndRemovingDirectories) {
    c.cmd("CWD pub");
    EXPECT_EQ(c.cmd("MKD newdir"), "257 \"newdir\" directory created.\r\n");
    EXPECT_TRUE(wait_log("MKD thread complete"));
    EXPECT_TRUE(fs::is_directory(server.home() / "pub" / "newdir"));
    EXPECT_EQ(owner_of("\\pub\\newdir"), "demo");
    EXPECT_EQ(c.cmd("XMKD newdir"), "550 mkdir: Failed; \"newdir\" File already exists\r\n");
    EXPECT_EQ(c.cmd("MKD \"newdir\\deep\""), "257 \"newdir\\deep\" directory created.\r\n");
    EXPECT_EQ(c.cmd("MKD nope\\x"), "550 mkdir: Failed; No such file or directory \"nope\\x\"\r\n");
    EXPECT_EQ(c.cmd("MKD \\rootdir"), "550 mkdir: Permissions Denied\r\n");
    EXPECT_EQ(c.cmd("MKD ..\\..\\..\\escape"), "550 mkdir: Permissions Denied\r\n");
    EXPECT_FALSE(fs::exists(server.home().parent_path() / "escape"));

    EXPECT_EQ(c.cmd("RMD newdir"), "550 rmdir: Failed to remove directory \"\"; Not Empty\r\n");
    EXPECT_EQ(c.cmd("RMD missing"), "550 rmdir: No such file or Directory \"\"\r\n");
    EXPECT_EQ(c.cmd("XRMD newdir\\deep"), "250 deep directory removed.\r\n");
    EXPECT_TRUE(wait_log("RMD thread complete"));
    EXPECT_EQ(c.cmd("RMD notes.txt"),
              "550 rmdir: Failed to remove directory \"notes.txt\"; in Use\r\n");
    set_mode("\\pub\\newdir", "r-xr-xr-x");
    EXPECT_EQ(c.cmd("RMD newdir"), "550 rmdir: Permissions Denied \"\"\r\n");
    set_mode("\\pub\\newdir", "rwxr-xr-x");
    EXPECT_EQ(c.cmd("RMD newdir"), "250 newdir directory removed.\r\n");
    EXPECT_FALSE(fs::exists(server.home() / "pub" / "newdir"));
    EXPECT_FALSE(node("\\pub\\newdir"));

    // The root is never removed, even by a super user in an empty home.
    FtpClient admin;
    admin.open(server.ftp_port());
    admin.login("admin", "admin-pass");
    EXPECT_EQ(admin.cmd("RMD /"), "550 rmdir: Failed to remove directory \"\"; Not Empty\r\n");
}

TEST_F(FtpFiles, NewDirectoryNamesAreOneComponentWithinThePathLimit) {
    c.cmd("CWD pub");
    // "/" does not part a parent from the name: "sub/made" is one name, and not a usable one.
    EXPECT_EQ(c.cmd("MKD sub/made"),
              "550 mkdir: Failed; No such file or directory \"sub/made\"\r\n");
    EXPECT_EQ(c.cmd("MKD hello.bin\\x"),
              "550 mkdir: Failed; No such file or directory \"hello.bin\\x\"\r\n");
    EXPECT_FALSE(fs::exists(server.home() / "pub" / "sub" / "made"));
    EXPECT_FALSE(node("\\pub\\sub\\made"));

    // Twenty levels of 200-byte names make a virtual path of 4,020 bytes; one more name of 75
    // bytes reaches the 4,096-byte limit exactly, and with the home in front the host path is
    // longer than the host takes in one piece: it still works. A byte more is refused.
    std::string name(200, 'd');
    c.cmd("CWD /");
    set_mode("\\", "rwxrwxrwx");
    for (int depth = 1; depth <= 20; ++depth) {
        ASSERT_EQ(c.cmd("MKD " + name), "257 \"" + name + "\" directory created.\r\n") << depth;
        ASSERT_EQ(c.cmd("CWD " + name), "250 CWD command successful\r\n") << depth;
    }
    std::string last(75, 'e');
    EXPECT_EQ(c.cmd("MKD " + last + "e"),
              "550 mkdir: Failed; No such file or directory \"" + last + "e\"\r\n");
    EXPECT_EQ(c.cmd("MKD " + last), "257 \"" + last + "\" directory created.\r\n");
    EXPECT_EQ(c.cmd("CWD " + last), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("MKD x"), "550 mkdir: Failed; No such file or directory \"x\"\r\n");
    EXPECT_EQ(c.cmd("CDUP"), "250 CWD command successful\r\n");
    EXPECT_EQ(c.cmd("MKD " + last + "\\x"),
              "550 mkdir: Failed; No such file or directory \"" + last + "\\x\"\r\n");
    // Down again, every level removed on the host too.
    EXPECT_EQ(c.cmd("RMD " + last), "250 " + last + " directory removed.\r\n");
    for (int depth = 20; depth >= 1; --depth) {
        ASSERT_EQ(c.cmd("CDUP"), "250 CWD command successful\r\n");
        ASSERT_EQ(c.cmd("RMD " + name), "250 " + name + " directory removed.\r\n") << depth;
    }
    EXPECT_FALSE(fs::exists(server.home() / name));
}

TEST_F(FtpFiles, ListingsAndRemovalsCheckTheDirectoryTheyTouch) {
    // A named directory is listed only with read permission on it.
    EXPECT_EQ(c.download("LIST locked").preliminary, "550 Permission denied\r\n");
    EXPECT_EQ(c.download("NLST locked").preliminary, "550 Permission denied\r\n");
    EXPECT_EQ(c.download("NLST pub").data.rfind(".\r\n..\r\n", 0), 0u);

    // Removing a directory takes it out of its parent: write permission there is needed.
    c.cmd("CWD pub");
    EXPECT_EQ(c.cmd("MKD gone"), "257 \"gone\" directory created.\r\n");
    EXPECT_EQ(c.cmd("MKD kept"), "257 \"kept\" directory created.\r\n");
    EXPECT_EQ(c.cmd("RMD gone"), "250 gone directory removed.\r\n");
    set_mode("\\pub", "rwxr-xr-x");
    EXPECT_EQ(c.cmd("RMD kept"), "550 rmdir: Permissions Denied \"\"\r\n");
    EXPECT_TRUE(fs::is_directory(server.home() / "pub" / "kept"));
    EXPECT_TRUE(node("\\pub\\kept"));
}

TEST_F(FtpFiles, DeletingFiles) {
    c.cmd("CWD pub");
    EXPECT_EQ(c.cmd("DELE missing"), "550 Permissions denied\r\n");
    EXPECT_EQ(c.cmd("DELE hello.bin"), "550 Permissions denied\r\n"); // rw-r--r-- of root
    EXPECT_EQ(c.cmd("DELE notes.txt"), "250 DELE command ok.\r\n");
    EXPECT_TRUE(wait_log("DELE thread complete"));
    EXPECT_FALSE(fs::exists(server.home() / "pub" / "notes.txt"));
    EXPECT_FALSE(node("\\pub\\notes.txt"));
    set_mode("\\pub\\sub", "rwxrwxrwx");
    EXPECT_EQ(c.cmd("DELE sub"), "550 Permissions denied (delete failed)\r\n");
    EXPECT_TRUE(node("\\pub\\sub"));
}

namespace {

void add_file_node(TestServer& server, const std::string& dir, const std::string& name) {
    std::unique_lock lock(server.server().tree_mutex);
    NodePtr d = find_node(*server.server().vfs, dir, server.server().vfs->root);
    NodePtr n = add_node(*server.server().vfs, *server.server().accounts, d, name, '-', 10, nullptr,
                         nullptr);
    for (size_t i = 0; i < 9; ++i)
        n->flags[i] = true;
}

} // namespace

TEST_F(FtpFiles, DownloadsOnlyWholeRegularFilesBelowTheHome) {
    c.wait = 20s; // a loaded machine or a sanitizer build is slow to answer
    c.cmd("CWD pub");
    c.cmd("TYPE I");
    const std::string aborted = "451 Transfer aborted: the file could not be read\r\n";
    // Replaced on the host by a link out of the home after start-up.
    server.dir().write("secret.txt", "secret");
    fs::remove(server.home() / "pub" / "notes.txt");
    fs::create_symlink(server.dir() / "secret.txt", server.home() / "pub" / "notes.txt");
    auto t = c.download("RETR notes.txt");
    EXPECT_EQ(t.preliminary, "150 Opening BINARY mode data connection (19 bytes)\r\n");
    EXPECT_EQ(t.data, "");
    EXPECT_EQ(t.final_reply, aborted);
    EXPECT_TRUE(log_starts("(" + std::to_string(socket) + ") 0 bytes received in "));
    // A FIFO (no writer: must not hold the thread), a directory, a file gone from the host.
    ASSERT_EQ(::mkfifo((server.home() / "pub" / "fifo").c_str(), 0666), 0);
    add_file_node(server, "\\pub", "fifo");
    fs::remove(server.home() / "pub" / "hello.bin");
    for (const char* name : {"fifo", "sub", "hello.bin"}) {
        t = c.download(std::string("RETR ") + name);
        EXPECT_EQ(t.preliminary.substr(0, 4), "150 ") << name;
        EXPECT_EQ(t.data, "") << name;
        EXPECT_EQ(t.final_reply, aborted) << name;
    }
    EXPECT_EQ(c.cmd("PWD"), "257 \"/pub\" is current directory.\r\n"); // the session goes on
}

TEST_F(FtpFiles, UploadsReplaceTheTargetOnlyWhenWhole) {
    c.wait = 20s; // a loaded machine or a sanitizer build is slow to answer
    c.cmd("CWD pub");
    c.cmd("TYPE I");
    const std::string old_notes = "line one\nline two\r\n";
    // Onto a directory's name: refused before anything moves.
    EXPECT_EQ(c.upload("STOR sub", "x").preliminary, "550 Permissions denied\r\n");
    EXPECT_TRUE(fs::is_directory(server.home() / "pub" / "sub"));

    // A client that breaks off mid-upload: the old file stays whole, no temporary is left.
    DataListener data;
    c.cmd("PORT " + data.port_arg());
    EXPECT_EQ(c.cmd("STOR notes.txt"), "150 Opening BINARY mode data connection\r\n");
    ASSERT_TRUE(data.accept());
    // More than the sockets' buffers hold, so that the server is surely past its connect and
    // reading when the client breaks off (a reset before that is a failed data connection).
    data.send_and_reset(pattern_bytes(32 << 20));
    EXPECT_EQ(c.line(), "426 Connection closed; transfer aborted.\r\n");
    EXPECT_EQ(server.dir().read("home/pub/notes.txt"), old_notes);
    EXPECT_EQ(node("\\pub\\notes.txt")->size, 19u);
    size_t count = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(server.home() / "pub"))
        ++count;
    EXPECT_EQ(count, 3u); // hello.bin, notes.txt, sub

    // The directory is removed by someone else while the upload runs: not stored anywhere.
    EXPECT_EQ(c.cmd("MKD drop"), "257 \"drop\" directory created.\r\n");
    EXPECT_EQ(c.cmd("CWD drop"), "250 CWD command successful\r\n");
    DataListener late;
    c.cmd("PORT " + late.port_arg());
    EXPECT_EQ(c.cmd("STOR late.txt"), "150 Opening BINARY mode data connection\r\n");
    ASSERT_TRUE(late.accept());
    {
        NodePtr drop = node("\\pub\\drop");
        std::unique_lock lock(server.server().tree_mutex);
        unlink_node(drop, nullptr);
    }
    fs::remove_all(server.home() / "pub" / "drop");
    late.send_and_close("late bytes");
    EXPECT_EQ(c.line(), "452 Transfer aborted: the file could not be written\r\n");
    EXPECT_FALSE(fs::exists(server.home() / "pub" / "drop"));
    EXPECT_FALSE(fs::exists(server.home() / "pub" / "late.txt"));
}

TEST_F(FtpFiles, TwoSessionsStoringOneNewNameLeaveOneWholeFile) {
    c.wait = 20s; // a loaded machine or a sanitizer build is slow to answer
    FtpClient other;
    other.wait = 20s;
    other.open(server.ftp_port());
    other.login("admin", "admin-pass");
    std::string mine = pattern_bytes(2 << 20);
    std::string theirs(3 << 20, 'z');
    for (FtpClient* s : {&c, &other}) {
        s->cmd("CWD pub");
        s->cmd("TYPE I");
    }
    DataListener d1, d2;
    c.cmd("PORT " + d1.port_arg());
    other.cmd("PORT " + d2.port_arg());
    EXPECT_EQ(c.cmd("STOR race.bin"), "150 Opening BINARY mode data connection\r\n");
    EXPECT_EQ(other.cmd("STOR race.bin"), "150 Opening BINARY mode data connection\r\n");
    ASSERT_TRUE(d1.accept());
    ASSERT_TRUE(d2.accept());
    // Both are under way at once; each finishes with its own answer.
    auto first = std::async(std::launch::async, [&] { return d1.send_and_close(mine); });
    EXPECT_TRUE(d2.send_and_close(theirs));
    EXPECT_TRUE(first.get());
    EXPECT_EQ(c.line(), "226 Transfer complete\r\n");
    EXPECT_EQ(other.line(), "226 Transfer complete\r\n");
    std::string stored = server.dir().read("home/pub/race.bin");
    EXPECT_TRUE(stored == mine || stored == theirs) << stored.size();
    EXPECT_EQ(node("\\pub\\race.bin")->size, stored.size());
    std::string listing = c.download("NLST").data;
    EXPECT_EQ(listing.find("race.bin"), listing.rfind("race.bin"));
}

TEST(FtpMounts, MountPointsStayAndRelativeDirectoriesComeFromTheStartDirectory) {
    TestServer server({}, [](TempDir& d) {
        std::string settings = d.read("settings.ini");
        std::string absolute = "serverhome=" + (d / "home").string();
        settings.replace(settings.find(absolute), absolute.size(), "serverhome=home");
        d.write("settings.ini", settings);
        d.write("mounts", "extra|\\empty\n");
        fs::create_directories(d / "extra");
    });
    FtpClient admin;
    admin.open(server.ftp_port());
    admin.login("admin", "admin-pass");
    EXPECT_EQ(admin.download("NLST").data, "empty\r\n");
    EXPECT_EQ(admin.cmd("MKD empty\\inner"), "257 \"empty\\inner\" directory created.\r\n");
    EXPECT_TRUE(fs::is_directory(server.dir() / "extra" / "inner"));
    EXPECT_EQ(admin.cmd("RMD empty\\inner"), "250 inner directory removed.\r\n");
    // Even empty, and even for a super user, a mount point is not a directory to remove.
    for (const char* path : {"empty", "\\empty", "empty\\."})
        EXPECT_EQ(admin.cmd(std::string("RMD ") + path), "550 rmdir: Permissions Denied \"\"\r\n")
            << path;
    EXPECT_TRUE(fs::is_directory(server.dir() / "extra"));
    EXPECT_EQ(admin.download("NLST").data, "empty\r\n");
}
