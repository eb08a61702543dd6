// The Telnet service over loopback: negotiation, banners, login, the command families' texts,
// paging, Ctrl-C, type-ahead and who.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "shell_client.hpp"
#include "support/test_server.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <mutex>
#include <shared_mutex>
#include <sys/socket.h>
#include <thread>

namespace orv::test {
namespace {

std::string bytes(std::initializer_list<int> values) {
    std::string s;
    for (int v : values)
        s.push_back(static_cast<char>(v));
    return s;
}

// The lines of a listing in sorted order: the host's directory order is not fixed.
std::vector<std::string> sorted_lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
        lines.push_back(text.substr(at, end - at));
    lines.push_back(text.substr(at));
    std::sort(lines.begin(), lines.end());
    return lines;
}

const char kBanner[] =
    "Orvane Server (beta) written by Pel Varnholt and Kem Osterlo\r\n\r\nlogin: ";

std::string numbered_lines(int count) {
    std::string text;
    for (int i = 1; i <= count; ++i)
        text += "line " + std::to_string(i) + "\n";
    return text;
}

// A home with a public directory, an admin-only directory and a few files.
TestServerConfig shell_config() {
    TestServerConfig config;
    config.accounts.push_back({"solo", "solo-pass", 102, 1, 15, "\\pub"});
    config.accounts.push_back({"noout", "noout-pass", 103, 5, 8, "\\"});
    config.groups = "staff:101:demo\n";
    config.fpl = "\\:d:root:root:111111111\n"
                 "\\pub:d:demo:demo:111101101:staff\n"
                 "\\secret:d:admin:admin:111000000\n"
                 "\\admins.txt:-:admin:admin:110100000\n"
                 "\\locked:d:admin:admin:111000000\n";
    return config;
}

void prepare_home(TempDir& dir) {
    dir.write("home/pub/readme.txt", "hello\n");
    dir.write("home/pub/data.bin", std::string(1000, 'x'));
    dir.write("home/secret/plan.txt", "secret\n");
    dir.write("home/admins.txt", "admins only\n");
    std::filesystem::create_directories(dir.path() / "home" / "locked");
    dir.write("home/thirty.txt", numbered_lines(30));
    dir.write("home/exact.txt", numbered_lines(24));
    dir.write("home/wide.txt", std::string(200, 'w') + "\nshort\n");
}

class TelnetShell : public ::testing::Test {
  protected:
    TelnetShell() : server_(shell_config(), prepare_home) {}
    ShellClient connect_as(const std::string& name, const std::string& password) {
        ShellClient c(server_.telnet_port());
        c.login(name, password);
        return c;
    }
    std::filesystem::path home() const { return server_.home(); }
    TestServer server_;
};

TEST(TelnetNegotiation, WillEchoBannerAndOptionReplies) {
    TestServer server;
    TestClient c(server.telnet_port());
    EXPECT_EQ(c.read_exact(3 + sizeof kBanner - 1), bytes({255, 251, 1}) + kBanner);
    c.send(bytes({255, 251, 24, 255, 253, 3, 255, 253, 1, 255, 251, 1, 255, 253, 5}));
    EXPECT_EQ(c.read_exact(9), bytes({255, 254, 24, 255, 251, 3, 255, 251, 5}));
    c.send(bytes({255, 251, 31, 255, 251, 34, 255, 251, 39, 255, 251, 32, 255, 251, 33}));
    EXPECT_EQ(c.read_exact(15),
              bytes({255, 254, 31, 255, 254, 34, 255, 254, 39, 255, 254, 32, 255, 254, 33}));
    // WONT, DONT, SB and DO of an option not offered get no answer.
    c.send(bytes({255, 252, 24, 255, 254, 3, 255, 250, 24, 255, 253, 24}));
    EXPECT_EQ(c.read_quiet(), "");
}

TEST(TelnetNegotiation, FullServerGetsTheRefusalBannerAndIsClosed) {
    TestServerConfig config;
    config.maxusers = 0;
    TestServer server(config);
    TestClient c(server.telnet_port());
    std::string got = c.read_until("Server Full.");
    EXPECT_EQ(got,
              "Orvane Server (beta) written by Pel Varnholt and Kam Osterlo\r\n\r\nServer Full.");
    EXPECT_TRUE(c.wait_closed());
    bool logged = false;
    for (const std::string& line : server.log_lines())
        logged |= line.rfind("Telnet Close port ", 0) == 0 &&
                  line.find("(Server Full)") != std::string::npos;
    EXPECT_TRUE(logged);
    EXPECT_EQ(server.server().conns.user_count(), 0);
}

TEST(TelnetLogin, SucceedsWithoutEchoingThePassword) {
    TestServer server;
    TestClient c(server.telnet_port());
    c.read_until("login: ");
    c.send("demo\r\n");
    EXPECT_EQ(c.read_until("Password: "), "demo\r\nPassword: ");
    c.send("demo-pass\r\n");
    EXPECT_EQ(c.read_until("# "), "\r\ndemo - 1 out of 5 allowed connections in use.\r\n# ");
    std::vector<std::string> log = server.log_lines();
    std::string socket = "(" + std::to_string(server.server().conns.head()->socket) + ")";
    EXPECT_NE(std::find(log.begin(), log.end(), socket + " demo"), log.end());
    EXPECT_NE(std::find(log.begin(), log.end(), socket + " <password>"), log.end());
    for (const std::string& line : log)
        EXPECT_EQ(line.find("demo-pass"), std::string::npos);
}

TEST(TelnetLogin, ThirdFailureClosesWithoutLoginIncorrect) {
    TestServerConfig config;
    config.accounts.push_back({"ftponly", "ftponly-pass", 104, 5, 4, "\\"});
    TestServer server(config);
    TestClient c(server.telnet_port());
    c.read_until("login: ");
    c.send("demo\r\n");
    c.read_until("Password: ");
    c.send("wrong\r\n");
    EXPECT_EQ(c.read_until("login: "), "\r\nLogin incorrect\r\nlogin: ");
    // LF alone does not complete a line; CR alone does and gets an LF. The name is "demo\n".
    c.send("de");
    c.send("mo\n");
    EXPECT_EQ(c.read_quiet(), "demo\n");
    c.send("\r");
    EXPECT_EQ(c.read_until("Password: "), "\r\nPassword: ");
    c.send("demo-pass\r\n");
    EXPECT_EQ(c.read_until("login: "), "\r\nLogin incorrect\r\nlogin: ");
    // An account without the Telnet right, with its right password.
    c.send("ftponly\r\n");
    c.read_until("Password: ");
    c.send("ftponly-pass\r\n");
    EXPECT_EQ(c.read_quiet(), "\r\n");
    EXPECT_TRUE(c.wait_closed());
    std::vector<std::string> log = server.log_lines();
    for (std::string suffix : {" Login failure for user (demo)", " Login failure for unknown user",
                               " Login failure for user (ftponly)"})
        EXPECT_TRUE(std::any_of(log.begin(), log.end(), [&](const std::string& l) {
            return l.ends_with(suffix);
        })) << suffix;
    EXPECT_TRUE(wait_until([&] { return server.server().conns.user_count() == 0; }));
}

TEST_F(TelnetShell, PerUserLimitDisconnectsAndTheCountReturns) {
    {
        ShellClient first(server_.telnet_port());
        EXPECT_EQ(first.login("solo", "solo-pass"),
                  "\r\nsolo - 1 out of 1 allowed connections in use.\r\n# ");
        TestClient second(server_.telnet_port());
        second.read_until("login: ");
        second.send("solo\r\n");
        second.read_until("Password: ");
        second.send("solo-pass\r\n");
        EXPECT_EQ(second.read_until("use.\r\n"), "\r\nsolo - max (1) connections in use.\r\n");
        EXPECT_TRUE(second.wait_closed());
        first.send("exit\r\n");
        EXPECT_TRUE(first.raw().wait_closed());
    }
    ShellClient again(server_.telnet_port());
    EXPECT_EQ(again.login("solo", "solo-pass"),
              "\r\nsolo - 1 out of 1 allowed connections in use.\r\n# ");
    EXPECT_EQ(again.run("pwd"), "\\pub\r\n# ");
}

TEST_F(TelnetShell, DispatcherAnswers) {
    ShellClient c = connect_as("demo", "demo-pass");
    EXPECT_EQ(c.run("Help"), "Help: not found\r\n# ");
    EXPECT_EQ(c.run(" ls"), ": not found\r\n# ");
    c.send("\r\n");
    EXPECT_EQ(c.read_until("# "), "\r\n# ");
    EXPECT_EQ(c.run("whoami"), "demo\r\n# ");
    EXPECT_EQ(c.run("help"), "Commands that work are:\r\n\r\n"
                             "?        cp       ls       pwd      whoami\r\n"
                             "cd       dir      man      rm\r\n"
                             "chgrp    exit     mkdir    rmdir\r\n"
                             "chmod    ftp      more     telnet\r\n"
                             "chown    help     mv       who\r\n# ");
    EXPECT_EQ(c.run("?"), c.run("man page"));
}

TEST_F(TelnetShell, OutgoingServicesNeedTheirRights) {
    ShellClient c = connect_as("noout", "noout-pass");
    EXPECT_EQ(c.run("ftp somewhere"), "ftp: service not allowed for user: noout\r\n# ");
    EXPECT_EQ(c.run("telnet somewhere"), "telnet: service not allowed for user: noout\r\n# ");
}

TEST_F(TelnetShell, ListingAndNavigation) {
    ShellClient c = connect_as("demo", "demo-pass");
    EXPECT_EQ(sorted_lines(c.run("ls pub\\")),
              sorted_lines("drwxr-xr-x     demo     staff             0 .\r\n"
                           "drwxrwxrwx     root     <none>            0 ..\r\n"
                           "-rwxr-xr-x     demo     staff          1000 data.bin\r\n"
                           "-rwxr-xr-x     demo     staff             6 readme.txt\r\n# "));
    EXPECT_EQ(c.run("dir -l \\pub\\*.txt"),
              "*** option flags not supported yet (flags ignored) ***\r\n"
              "-rwxr-xr-x     demo     staff             6 readme.txt\r\n# ");
    EXPECT_EQ(c.run("ls nothing*"), "nothing*: No such file or directory\r\n# ");
    EXPECT_EQ(c.run("ls secret\\"), "secret\\: permission denied\r\n# ");
    EXPECT_EQ(c.run("cd .."), "..: does not exist\r\n# ");
    EXPECT_EQ(c.run("cd secret"), "secret: permission denied\r\n# ");
    EXPECT_EQ(c.run("cd thirty.txt"), "thirty.txt: not a directory\r\n# ");
    EXPECT_EQ(c.run("cd pub"), "# ");
    EXPECT_EQ(c.run("pwd"), "\\pub\r\n# ");
    EXPECT_EQ(c.run("cd \\pub/.."), "# ");
    EXPECT_EQ(c.run("pwd"), "\\\r\n# ");
    c.run("cd pub");
    EXPECT_EQ(c.run("cd"), "# ");
    EXPECT_EQ(c.run("pwd"), "\\\r\n# ");
    EXPECT_TRUE(server_.wait_for_log("(" + std::to_string(server_.server().conns.head()->socket) +
                                     ") Dir thread complete"));
}

TEST_F(TelnetShell, MkdirAndRmdir) {
    ShellClient c = connect_as("demo", "demo-pass");
    EXPECT_EQ(c.run("mkdir pub"), "mkdir: Failed; \"pub\" File already exists\r\n# ");
    EXPECT_EQ(c.run("mkdir nowhere\\new"),
              "mkdir: Failed; No such file or directory \"nowhere\\new\"\r\n# ");
    EXPECT_EQ(c.run("mkdir secret\\inner"), "mkdir: Permissions Denied\r\n# ");
    EXPECT_EQ(c.run("mkdir \"two words\""), "# ");
    EXPECT_TRUE(std::filesystem::is_directory(home() / "two words"));
    EXPECT_EQ(c.run("ls two*"), "drwxrwxrwx     demo     <none>            0 two words\r\n# ");
    EXPECT_EQ(c.run("mkdir pub\\sub"), "# ");
    EXPECT_TRUE(std::filesystem::is_directory(home() / "pub" / "sub"));

    EXPECT_EQ(c.run("rmdir missing"), "rmdir: No such file or Directory \"missing\"\r\n# ");
    EXPECT_EQ(c.run("rmdir pub"), "rmdir: Failed to remove directory \"pub\"; Not Empty\r\n# ");
    EXPECT_EQ(c.run("rmdir locked"), "rmdir: Permissions Denied \"locked\"\r\n# ");
    EXPECT_EQ(c.run("rmdir \\"), "rmdir: Failed to remove directory \"\\\"; Not Empty\r\n# ");
    EXPECT_EQ(c.run("rmdir thirty.txt"),
              "rmdir: Failed to remove directory \"thirty.txt\"; in Use\r\n# ");
    c.run("cd pub\\sub");
    EXPECT_EQ(c.run("rmdir \\pub\\sub"), "# ");
    EXPECT_FALSE(std::filesystem::exists(home() / "pub" / "sub"));
    EXPECT_EQ(c.run("pwd"), "\\pub\r\n# ");
}

TEST_F(TelnetShell, RmSingleAndPattern) {
    ShellClient c = connect_as("demo", "demo-pass");
    EXPECT_EQ(c.run("rm missing"),
              "rm: Failed to remove file \"missing\"; No such file or Directory\r\n# ");
    EXPECT_EQ(c.run("rm pub"), "rm: Failed to remove file \"pub\"; File is a Directory\r\n# ");
    EXPECT_EQ(c.run("rm admins.txt"), "rm: Permissions Denied \"admins.txt\"\r\n# ");
    c.run("mkdir empty");
    EXPECT_EQ(c.run("rm empty"), "rm: Failed to remove file \"empty\"; in Use or Directory\r\n# ");
    EXPECT_EQ(c.run("rm pub\\readme.txt"), "# ");
    EXPECT_FALSE(std::filesystem::exists(home() / "pub" / "readme.txt"));
    EXPECT_EQ(c.run("rm *.txt"), "rm: \"admins.txt\"; Permissions Denied\r\n# ");
    EXPECT_FALSE(std::filesystem::exists(home() / "thirty.txt"));
    EXPECT_FALSE(std::filesystem::exists(home() / "wide.txt"));
    EXPECT_TRUE(std::filesystem::exists(home() / "admins.txt"));
}

TEST_F(TelnetShell, MvMovesIntoDirectoriesOnly) {
    ShellClient c = connect_as("demo", "demo-pass");
    EXPECT_EQ(c.run("mv"), "mv: No File to Move Specified\r\n# ");
    EXPECT_EQ(c.run("mv thirty.txt"), "mv: No Destination File Specified\r\n# ");
    EXPECT_EQ(c.run("mv nope pub"), "mv: \"nope\"; File does not Exist\r\n# ");
    EXPECT_EQ(c.run("mv thirty.txt newname"),
              "mv: Move File failed; Destination does not Exist\r\n# ");
    EXPECT_EQ(c.run("mv admins.txt pub"), "mv: Permissions Denied\r\n# ");
    EXPECT_EQ(c.run("mv thirty.txt pub"), "# ");
    EXPECT_TRUE(std::filesystem::exists(home() / "pub" / "thirty.txt"));
    EXPECT_EQ(c.run("mv pub\\thirty.txt \\pub"),
              "mv: Move File failed \"thirty.txt\"; File already Exists in Destination\r\n# ");
    c.run("mkdir box");
    EXPECT_EQ(c.run("mv *.txt box"), "mv: \"admins.txt\"; Permissions Denied\r\n# ");
    EXPECT_TRUE(std::filesystem::exists(home() / "box" / "wide.txt"));
    EXPECT_EQ(c.run("ls box\\e*"), "-rwxrwxrwx     root     <none>          183 exact.txt\r\n# ");
    EXPECT_EQ(c.run("mv box box"), "mv: Move File failed \"box\"; Destination in Use\r\n# ");
    EXPECT_TRUE(server_.wait_for_log("(" + std::to_string(server_.server().conns.head()->socket) +
                                     ") mv thread complete"));
}

TEST_F(TelnetShell, CpFilesDirectoriesAndPatterns) {
    ShellClient c = connect_as("demo", "demo-pass");
    EXPECT_EQ(c.run("cp"), "cp: Copy File failed; No Source File Selected\r\n# ");
    EXPECT_EQ(c.run("cp thirty.txt"),
              "cp: Copy File failed \"thirty.txt\"; No Destination Selected\r\n# ");
    EXPECT_EQ(c.run("cp nope pub"),
              "cp: Copy File failed \"nope\"; File does not Exist \"\\\"\r\n# ");
    EXPECT_EQ(c.run("cp thirty.txt nope"),
              "cp: Copy File failed \"nope\"; File does not Exist\r\n# ");
    EXPECT_EQ(c.run("cp thirty.txt secret"), "cp: Permissions Denied\r\n# ");
    EXPECT_EQ(c.run("cp thirty.txt \\"), "cp: Copy File failed \"thirty.txt\"\r\n# ");

    EXPECT_EQ(c.run("cp thirty.txt pub"), "# ");
    EXPECT_EQ(server_.dir().read("home/pub/thirty.txt"), numbered_lines(30));
    EXPECT_EQ(c.run("ls pub\\thirty.txt"),
              "-rwxrwxrwx     root     <none>          231 thirty.txt\r\n# ");

    c.run("mkdir backup");
    EXPECT_EQ(c.run("cp pub backup"), "# ");
    EXPECT_EQ(server_.dir().read("home/backup/pub/readme.txt"), "hello\n");
    EXPECT_EQ(sorted_lines(c.run("ls backup\\pub\\")),
              sorted_lines("drwxr-xr-x     demo     staff             0 .\r\n"
                           "drwxrwxrwx     demo     <none>            0 ..\r\n"
                           "-rwxr-xr-x     demo     staff          1000 data.bin\r\n"
                           "-rwxr-xr-x     demo     staff             6 readme.txt\r\n"
                           "-rwxrwxrwx     root     <none>          231 thirty.txt\r\n# "));
    EXPECT_EQ(c.run("cp pub pub\\"), "cp: Copy File Failed\r\n# ");

    c.run("mkdir texts");
    EXPECT_EQ(c.run("cp *.txt texts"), "cp: Permissions Denied \"admins.txt\"\r\n# ");
    EXPECT_EQ(server_.dir().read("home/texts/wide.txt"), std::string(200, 'w') + "\nshort\n");
    EXPECT_FALSE(std::filesystem::exists(home() / "texts" / "admins.txt"));
    EXPECT_EQ(c.run("cp zz* texts"), "cp: No Files Match Criteria\r\n# ");
    // Overwriting an existing copy keeps one node.
    EXPECT_EQ(c.run("cp exact.txt texts"), "# ");
    EXPECT_EQ(c.run("ls texts\\exact*"),
              "-rwxrwxrwx     root     <none>          183 exact.txt\r\n# ");
}

TEST_F(TelnetShell, OwnershipCommands) {
    ShellClient c = connect_as("demo", "demo-pass");
    EXPECT_EQ(c.run("chmod 644 admins.txt"), "chmod: WARNING: can't change admins.txt\r\n# ");
    EXPECT_EQ(c.run("chmod 0755 pub\\readme.txt"), "chmod: ERROR: invalid mode\r\n# ");
    EXPECT_EQ(c.run("chmod u+x pub\\readme.txt"), "symbolic chmod not coded yet!\r\n# ");
    EXPECT_EQ(c.run("chmod 8 pub\\readme.txt"), "# ");
    EXPECT_EQ(c.run("chmod 644"), "*** display help ***\r\n# ");
    EXPECT_EQ(c.run("chmod 644 nowhere\\x"), "chown: nowhere\\x: No such file or directory\r\n# ");
    EXPECT_EQ(c.run("chmod 644 secret\\x"), "secret\\x: permission denied\r\n# ");
    EXPECT_EQ(c.run("chmod 644 pub\\zz*"), "chmod: zz*: No files matched your criteria\r\n# ");
    EXPECT_EQ(c.run("chmod -R 7 pub\\readme.txt"),
              "*** option flags not supported yet (flags ignored) ***\r\n# ");
    EXPECT_EQ(c.run("ls pub\\readme.txt"),
              "-------rwx     demo     staff             6 readme.txt\r\n# ");
    EXPECT_EQ(c.run("chmod 750 pub\\"), "# ");
    EXPECT_EQ(c.run("ls pub"), "drwxr-x---     demo     staff             0 pub\r\n# ");

    EXPECT_EQ(c.run("chown ghost pub\\readme.txt"), "chown: unknown user: ghost\r\n# ");
    EXPECT_EQ(c.run("chown demo admins.txt"), "chown: admins.txt: Not owner\r\n# ");
    EXPECT_EQ(c.run("chown admin pub\\readme.txt"), "# ");
    EXPECT_EQ(c.run("chown demo pub\\readme.txt"), "chown: readme.txt: Not owner\r\n# ");
    EXPECT_EQ(c.run("chgrp nogroup pub\\data.bin"), "chgrp: unknown group: nogroup\r\n# ");
    EXPECT_EQ(c.run("chgrp staff admins.txt"), "chgrp: admins.txt: Not owner\r\n# ");
    EXPECT_EQ(c.run("chgrp staff pub\\q*"), "chgrp: q*: No files matched your criteria\r\n# ");
    EXPECT_EQ(c.run("chgrp staff nowhere\\x"),
              "chgrp: nowhere\\x: No such file or directory\r\n# ");

    ShellClient admin = connect_as("admin", "admin-pass");
    EXPECT_EQ(admin.run("chmod 644 pub\\data.bin"), "# ");
    EXPECT_EQ(admin.run("chgrp staff admins.txt"), "# ");
    EXPECT_EQ(admin.run("ls *.bin"), "*.bin: No such file or directory\r\n# ");
    EXPECT_EQ(admin.run("ls pub\\data.bin"),
              "-rw-r--r--     demo     staff          1000 data.bin\r\n# ");
    EXPECT_EQ(admin.run("ls admins.txt"),
              "-rw-r-----     admin    staff            12 admins.txt\r\n# ");
}

TEST_F(TelnetShell, MorePagesWithSpaceEnterAndQ) {
    ShellClient c = connect_as("demo", "demo-pass");
    c.send("more thirty.txt\r\n");
    std::string page = c.read_until("-MORE-");
    EXPECT_NE(page.find("line 24\r\n-MORE-"), std::string::npos);
    EXPECT_EQ(page.find("line 25"), std::string::npos);
    c.send("\n");
    EXPECT_EQ(c.read_until("-MORE-"), "line 25\r\n-MORE-");
    c.send(" ");
    std::string rest = c.read_until("# ");
    EXPECT_EQ(rest, "\b\b\b\b\b\b      \b\b\b\b\b\bline 26\r\nline 27\r\nline 28\r\nline 29\r\n"
                    "line 30\r\n# ");

    c.send("more exact.txt\r\n");
    c.read_until("line 24\r\n-MORE-");
    c.send("x"); // not a pager key: dropped
    c.send("q");
    EXPECT_EQ(c.read_until("# "), "# ");

    EXPECT_EQ(c.run("more wide.txt"), std::string(80, 'w') + std::string(80, 'w') +
                                          std::string(40, 'w') + "\r\nshort\r\n# ");
    EXPECT_EQ(c.run("more *.txt"), "more failed: Permissions Denied\r\n# ");
    EXPECT_EQ(c.run("more secret\\plan.txt"), "more failed: Permissions Denied\r\n# ");
    EXPECT_EQ(c.run("more pub"), "more failed: Permissions Denied\r\n# ");
}

TEST_F(TelnetShell, CtrlCAtAMorePageStopsIt) {
    ShellClient c = connect_as("demo", "demo-pass");
    c.send("more thirty.txt\r\n");
    c.read_until("-MORE-");
    c.send(bytes({3}));
    EXPECT_EQ(c.read_until("# "), "# ");
    EXPECT_TRUE(server_.wait_for_log("(" + std::to_string(server_.server().conns.head()->socket) +
                                     ") more thread complete"));
    EXPECT_EQ(c.run("whoami"), "demo\r\n# ");
}

TEST_F(TelnetShell, TypeAheadRunsAfterTheCommand) {
    ShellClient c = connect_as("demo", "demo-pass");
    // Hold the tree so that the listing thread waits while more lines arrive.
    std::unique_lock hold(server_.server().tree_mutex);
    c.send("ls pub\\r*\r\n");
    c.read_until("ls pub\\r*\r\n");
    c.send("pwd\r\nwhoami\r\n");
    EXPECT_EQ(c.read_until("whoami\r\n"), "pwd\r\nwhoami\r\n"); // echoed while the command runs
    hold.unlock();
    EXPECT_EQ(c.read_until("# "), "-rwxr-xr-x     demo     staff             6 readme.txt\r\n# ");
    EXPECT_EQ(c.read_until("# "), "\\\r\n# ");
    EXPECT_EQ(c.read_until("# "), "demo\r\n# ");
}

TEST_F(TelnetShell, WhoListsEverySessionNewestFirst) {
    ShellClient a = connect_as("demo", "demo-pass");
    ShellClient b = connect_as("admin", "admin-pass");
    TestClient pending(server_.telnet_port());
    pending.read_until("login: ");
    std::vector<SlotPtr> slots = server_.server().conns.snapshot();
    ASSERT_EQ(slots.size(), 3u);
    auto line = [](const char* name, int socket) {
        char buf[128];
        std::snprintf(buf, sizeof buf, "%-16s port %.3i   127.0.0.1\r\n", name, socket);
        return std::string(buf);
    };
    EXPECT_EQ(a.run("who"), line("Login", slots[0]->socket) + line("admin", slots[1]->socket) +
                                line("demo", slots[2]->socket) + "# ");
}

// Three ways a session ends: exit, a close at the prompt, and a reset (the unknown-event path,
// which logs no "Closing some sock" line).
TEST_F(TelnetShell, SessionEndsAreLogged) {
    auto socket_line = [](int socket) { return "Telnet Close port " + std::to_string(socket); };
    ShellClient c = connect_as("demo", "demo-pass");
    int socket = server_.server().conns.head()->socket;
    c.send("exit\r\n");
    EXPECT_TRUE(c.raw().wait_closed());
    EXPECT_TRUE(server_.wait_for_log("(" + std::to_string(socket) + ") Telnet Close port"));
    EXPECT_TRUE(wait_until([&] { return server_.server().conns.user_count() == 0; }));
    {
        std::shared_lock lock(server_.server().tree_mutex);
        EXPECT_EQ(server_.server().accounts->find_user("demo")->active_logins, 0);
    }

    ShellClient reset = connect_as("demo", "demo-pass");
    socket = server_.server().conns.head()->socket;
    linger hard{1, 0};
    ::setsockopt(reset.raw().fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    reset.raw().close();
    EXPECT_TRUE(server_.wait_for_log("Unknown WSAAsyncSelect on port " + std::to_string(socket)));
    EXPECT_TRUE(server_.wait_for_log(socket_line(socket)));
    EXPECT_FALSE(server_.logged("Closing some sock(not a user)"));

    {
        ShellClient closer = connect_as("demo", "demo-pass");
        socket = server_.server().conns.head()->socket;
    }
    EXPECT_TRUE(server_.wait_for_log("Closing some sock(not a user)"));
    std::vector<std::string> log = server_.log_lines();
    auto close_line = std::find(log.rbegin(), log.rend(), socket_line(socket)); // the newest
    ASSERT_NE(close_line, log.rend());
    ASSERT_NE(close_line, log.rbegin());
    EXPECT_EQ(*(close_line - 1), "Closing some sock(not a user)");
}

TEST_F(TelnetShell, ThreadCreationFailureOnlyLogs) {
    ShellClient c = connect_as("demo", "demo-pass");
    server_.server().workers.set_refuse_spawns(true);
    c.send("ls\r\n");
    EXPECT_TRUE(server_.wait_for_log("**** Failed to create dir Thread ****"));
    EXPECT_EQ(c.raw().read_quiet(), "ls\r\n");
    server_.server().workers.set_refuse_spawns(false);
}

} // namespace
} // namespace orv::test
