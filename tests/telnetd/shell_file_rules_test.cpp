// The shell's file commands against the permission rules, mount points, host links made after
// the scan and the length limit of virtual paths.
#include "shell_client.hpp"
#include "support/test_server.hpp"

#include <filesystem>
#include <gtest/gtest.h>

namespace orv::test {
namespace {

namespace fs = std::filesystem;

// demo (101) owns \bobdir; eve (104) owns \alice and has files in \fixed, a directory she may
// read but not write; \hold holds the mount point \hold\m.
TestServerConfig rules_config() {
    TestServerConfig config;
    config.accounts.push_back({"eve", "eve-pass", 104, 5, 15, "\\"});
    config.fpl = "\\:d:root:root:111111111\n"
                 "\\bobdir:d:demo:demo:111101101\n"
                 "\\bobdir\\open.txt:-:demo:demo:111101101\n"
                 "\\bobdir\\mine.txt:-:demo:demo:110000000\n"
                 "\\bobdir\\private:d:demo:demo:111000000\n"
                 "\\bobdir\\private\\p.txt:-:demo:demo:111101101\n"
                 "\\alice:d:eve:eve:111000000\n"
                 "\\alice\\bobdir:d:eve:eve:111000000\n"
                 "\\alice\\bobdir\\mine.txt:-:eve:eve:111000000\n"
                 "\\fixed:d:admin:admin:111101101\n"
                 "\\fixed\\f.txt:-:eve:eve:111111111\n"
                 "\\fixed\\sub:d:eve:eve:111111111\n";
    return config;
}

void prepare_rules(TempDir& dir) {
    dir.write("home/bobdir/open.txt", "open\n");
    dir.write("home/bobdir/mine.txt", "demo's own\n");
    dir.write("home/bobdir/private/p.txt", "private\n");
    dir.write("home/alice/bobdir/mine.txt", "eve's\n");
    dir.write("home/fixed/f.txt", "f\n");
    fs::create_directories(dir.path() / "home" / "fixed" / "sub");
    fs::create_directories(dir.path() / "home" / "hold");
    fs::create_directories(dir.path() / "home" / "dest");
    dir.write("media/track.txt", "music\n");
    dir.write("mounts", (dir.path() / "media").string() + "|\\hold\\m\n");
    dir.write("home/note.txt", "note\n");
    dir.write("home/linked/inner.txt", "inner\n");
    dir.write("outside/secret.txt", "outside secret\n");
    dir.write("outside/inner.txt", "outside inner\n");
}

class ShellFileRules : public ::testing::Test {
  protected:
    ShellFileRules() : server_(rules_config(), prepare_rules) {}
    ShellClient as(const std::string& name) {
        ShellClient c(server_.telnet_port());
        c.login(name, name + "-pass");
        return c;
    }
    fs::path home() const { return server_.home(); }
    std::string read(const std::string& rel) { return server_.dir().read(rel); }
    TestServer server_;
};

TEST_F(ShellFileRules, RecursiveCopyCopiesOnlyWhatTheUserMayRead) {
    ShellClient eve = as("eve");
    std::string out = eve.run("cp \\bobdir \\alice");
    // The unreadable file and directory are refused by name; the rest is copied.
    EXPECT_NE(out.find("cp: Permissions Denied \"mine.txt\"\r\n"), std::string::npos) << out;
    EXPECT_NE(out.find("cp: Permissions Denied \"private\"\r\n"), std::string::npos) << out;
    EXPECT_EQ(read("home/alice/bobdir/open.txt"), "open\n");
    // The node eve made beforehand under the same name keeps its own content.
    EXPECT_EQ(read("home/alice/bobdir/mine.txt"), "eve's\n");
    EXPECT_FALSE(fs::exists(home() / "alice" / "bobdir" / "private"));
    EXPECT_EQ(eve.run("more \\alice\\bobdir\\mine.txt"), "eve's\r\n# ");
    // demo may read everything of his own.
    ShellClient demo = as("demo");
    EXPECT_EQ(demo.run("cp \\bobdir \\dest"), "# ");
    EXPECT_EQ(read("home/dest/bobdir/private/p.txt"), "private\n");
    EXPECT_EQ(read("home/dest/bobdir/mine.txt"), "demo's own\n");
}

TEST_F(ShellFileRules, TakingAnEntryOutNeedsWriteOnItsDirectory) {
    ShellClient eve = as("eve");
    struct Case {
        const char* line;
        const char* answer;
    };
    const Case cases[] = {
        {"rm \\fixed\\f.txt", "rm: Permissions Denied \"\\fixed\\f.txt\"\r\n# "},
        {"rm \\fixed\\f*.txt", "rm: \"f.txt\"; Permissions Denied\r\n# "},
        {"rmdir \\fixed\\sub", "rmdir: Permissions Denied \"\\fixed\\sub\"\r\n# "},
        {"mv \\fixed\\f.txt \\alice", "mv: Permissions Denied\r\n# "},
        {"mv \\fixed\\sub \\alice", "mv: Permissions Denied\r\n# "},
    };
    for (const Case& c : cases)
        EXPECT_EQ(eve.run(c.line), c.answer) << c.line;
    EXPECT_TRUE(fs::exists(home() / "fixed" / "f.txt"));
    EXPECT_TRUE(fs::is_directory(home() / "fixed" / "sub"));
    // The owner of the directory may.
    ShellClient admin = as("admin");
    EXPECT_EQ(admin.run("rm \\fixed\\f.txt"), "# ");
    EXPECT_EQ(admin.run("rmdir \\fixed\\sub"), "# ");
}

TEST_F(ShellFileRules, MountPointsAndDirectoriesHoldingThemStayPut) {
    ShellClient admin = as("admin");
    EXPECT_EQ(admin.run("mv \\hold \\dest"),
              "mv: Move File failed \"hold\"; Destination in Use\r\n# ");
    EXPECT_EQ(admin.run("mv \\hold\\m \\dest"), "mv: Permissions Denied\r\n# ");
    EXPECT_EQ(admin.run("mv \\h*d \\dest"),
              "mv: Move File failed \"hold\"; Destination in Use\r\n# ");
    EXPECT_TRUE(fs::is_directory(home() / "hold"));
    // The mount still works where it was.
    EXPECT_EQ(admin.run("more \\hold\\m\\track.txt"), "music\r\n# ");
}

// Files and directories replaced by links on the host after start-up are not followed.
TEST_F(ShellFileRules, LinksMadeAfterTheScanAreNotFollowed) {
    fs::remove(home() / "note.txt");
    fs::create_symlink(server_.dir().path() / "outside" / "secret.txt", home() / "note.txt");
    fs::remove_all(home() / "linked");
    fs::create_directory_symlink(server_.dir().path() / "outside", home() / "linked");
    ShellClient admin = as("admin");
    EXPECT_EQ(admin.run("more note.txt"), "more failed: Permissions Denied\r\n# ");
    EXPECT_EQ(admin.run("more linked\\inner.txt"), "more failed: Permissions Denied\r\n# ");
    EXPECT_EQ(admin.run("cp note.txt dest"), "cp: Copy File failed \"note.txt\"\r\n# ");
    EXPECT_EQ(admin.run("cp linked\\inner.txt dest"), "cp: Copy File failed \"inner.txt\"\r\n# ");
    EXPECT_FALSE(fs::exists(home() / "dest" / "note.txt"));
    EXPECT_FALSE(fs::exists(home() / "dest" / "inner.txt"));
    // Nothing is written through the linked directory either.
    EXPECT_EQ(admin.run("cp \\bobdir\\open.txt linked"), "cp: Copy File failed \"open.txt\"\r\n# ");
    EXPECT_FALSE(fs::exists(server_.dir().path() / "outside" / "open.txt"));
    EXPECT_EQ(admin.run("mkdir linked\\made"),
              "mkdir: Failed; No such file or directory \"linked\\made\"\r\n# ");
    EXPECT_FALSE(fs::exists(server_.dir().path() / "outside" / "made"));
    EXPECT_EQ(admin.run("rm linked\\inner.txt"),
              "rm: Failed to remove file \"linked\\inner.txt\"; in Use or Directory\r\n# ");
    EXPECT_TRUE(fs::exists(server_.dir().path() / "outside" / "inner.txt"));
}

// Chains of directories stop at the virtual path limit of 4,096 bytes, for mkdir, mv and cp.
TEST_F(ShellFileRules, NoCommandMakesAVirtualPathLongerThanTheLimit) {
    ShellClient admin = as("admin");
    const std::string name(200, 'n'); // "\" + 200 bytes a level: 20 levels fit, 21 do not
    EXPECT_EQ(admin.run("mkdir m1"), "# ");
    EXPECT_EQ(admin.run("mkdir m1\\" + name.substr(0, 100)), "# ");
    EXPECT_EQ(admin.run("mkdir m2"), "# ");
    EXPECT_EQ(admin.run("mkdir c1"), "# ");
    EXPECT_EQ(admin.run("mkdir c1\\" + name.substr(0, 100)), "# ");
    for (int level = 1; level <= 20; ++level) {
        ASSERT_EQ(admin.run("mkdir " + name), "# ") << level;
        ASSERT_EQ(admin.run("cd " + name), "# ") << level;
    }
    EXPECT_EQ(admin.run("mkdir " + name),
              "mkdir: Failed; No such file or directory \"" + name + "\"\r\n# ");
    EXPECT_EQ(admin.run("mv \\m1 ."), "mv: Move File failed \"m1\"; Destination in Use\r\n# ");
    EXPECT_EQ(admin.run("cp \\c1 ."), "cp: Copy File failed \"c1\"\r\n# ");
    // What still fits is done.
    EXPECT_EQ(admin.run("mv \\m2 ."), "# ");
    EXPECT_EQ(admin.run("mkdir ab"), "# ");
    EXPECT_TRUE(fs::exists(home() / "m1"));
}

} // namespace
} // namespace orv::test
