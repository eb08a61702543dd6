// The start-up build: the disk scan, the mounts file and fpl.txt.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "support/temp_dir.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mutex>
#include <shared_mutex>
#include <unistd.h>

using namespace orv;
namespace fs = std::filesystem;

namespace {

// A server with a start directory and a home in a temporary folder, logging into a list.
struct BuildFixture {
    test::TempDir dir;
    Server server{dir.path()};
    std::mutex log_mutex;
    std::vector<std::string> log;

    BuildFixture() {
        server.accounts = std::make_shared<Accounts>(&server.memory_allocated);
        server.log.set_sink([this](std::string_view line) {
            std::lock_guard lock(log_mutex);
            log.emplace_back(line);
        });
        fs::create_directories(home());
        server.settings.serverhome = home().string();
    }
    fs::path home() const { return dir / "home"; }
    void build() { build_file_system(server); }
    VfsTree& tree() { return *server.vfs; }
    NodePtr find(std::string_view path) { return find_node(tree(), path, tree().root); }
    std::vector<std::string> names(const NodePtr& node) {
        std::vector<std::string> out;
        for (const NodePtr& child : node->children)
            out.push_back(child->name);
        return out;
    }
    bool logged(const std::string& line) {
        return std::find(log.begin(), log.end(), line) != log.end();
    }
};

// The order in which the host yields a directory's entries.
std::vector<std::string> host_order(const fs::path& path) {
    std::vector<std::string> out;
    DIR* d = ::opendir(path.c_str());
    while (dirent* e = ::readdir(d))
        if (std::string_view(e->d_name) != "." && std::string_view(e->d_name) != "..")
            out.emplace_back(e->d_name);
    ::closedir(d);
    return out;
}

} // namespace

TEST(BuildFileSystem, ScanCountsOrderSizesAndInheritance) {
    BuildFixture f;
    for (int i = 0; i < 12; ++i)
        f.dir.write("home/docs/file" + std::to_string(i) + ".txt", std::string(i, 'x'));
    f.dir.write("home/docs/sub/deep/leaf.bin", "12345");
    f.dir.write("home/top.txt", "abc");
    fs::create_directories(f.home() / "empty");
    f.build();

    EXPECT_TRUE(f.logged("Directories = 4"));
    EXPECT_TRUE(f.logged("Files = 14"));
    EXPECT_EQ(f.names(f.tree().root), host_order(f.home()));
    EXPECT_EQ(f.names(f.find("\\docs")), host_order(f.home() / "docs"));
    NodePtr leaf = f.find("\\docs\\sub\\deep\\leaf.bin");
    ASSERT_TRUE(leaf);
    EXPECT_EQ(leaf->size, 5u);
    EXPECT_EQ(leaf->owner, f.tree().root->owner);
    EXPECT_EQ(leaf->flags, f.tree().root->flags);
    EXPECT_EQ(node_real_path(f.tree(), *leaf), (f.home() / "docs/sub/deep/leaf.bin").string());
    // The nodes and the made-up "root" account, which is never saved.
    EXPECT_EQ(f.server.memory_allocated.load(),
              19 * VfsTree::kNodeRecordSize + Accounts::kUserRecordSize);
    EXPECT_EQ(f.server.accounts->users_text(), "");
}

TEST(BuildFileSystem, LinksAndUnusableNamesAreLeftOut) {
    BuildFixture f;
    test::TempDir outside;
    outside.write("secret/key.txt", "top secret");
    f.dir.write("home/real/inner.txt", "inner");
    f.dir.write("home/plain.txt", "12");
    fs::create_directory_symlink(outside.path() / "secret", f.home() / "escape");
    fs::create_symlink(outside.path() / "secret/key.txt", f.home() / "key-link");
    fs::create_directory_symlink("..", f.home() / "real/loop");
    fs::create_directory_symlink(f.home(), f.home() / "real/home-again");
    fs::create_directory_symlink("real", f.home() / "alias"); // stays inside: followed
    fs::create_symlink("plain.txt", f.home() / "plain-link"); // stays inside: followed
    fs::create_symlink("missing", f.home() / "dangling");
    f.dir.write("home/a:b", "");
    f.dir.write("home/back\\slash", "");
    f.dir.write("home/line\nend", "");
    ASSERT_EQ(::mkfifo((f.home() / "pipe").c_str(), 0600), 0);
    f.build();

    EXPECT_EQ(f.find("\\escape"), nullptr);
    EXPECT_EQ(f.find("\\key-link"), nullptr);
    EXPECT_EQ(f.find("\\real\\loop"), nullptr);
    EXPECT_EQ(f.find("\\real\\home-again"), nullptr);
    EXPECT_EQ(f.find("\\dangling"), nullptr);
    EXPECT_EQ(f.find("\\pipe"), nullptr);
    EXPECT_EQ(f.find("\\a:b"), nullptr);
    EXPECT_EQ(f.find("\\line\nend"), nullptr);
    EXPECT_EQ(f.tree().root->children.size(), 4u); // real, plain.txt, alias, plain-link
    NodePtr via_alias = f.find("\\alias\\inner.txt");
    ASSERT_TRUE(via_alias);
    EXPECT_EQ(via_alias->size, 5u);
    ASSERT_TRUE(f.find("\\plain-link"));
    EXPECT_EQ(f.find("\\plain-link")->size, 2u);

    std::string home = f.home().string();
    for (const std::string& line :
         {"**** Left out of the file system (link leads outside) - " + home + "/escape ****",
          "**** Left out of the file system (link leads outside) - " + home + "/key-link ****",
          "**** Left out of the file system (link loops) - " + home + "/real/loop ****",
          "**** Left out of the file system (link loops) - " + home + "/real/home-again ****",
          "**** Left out of the file system (link leads nowhere) - " + home + "/dangling ****",
          "**** Left out of the file system (not a file or directory) - " + home + "/pipe ****",
          "**** Left out of the file system (name not usable) - " + home + "/a:b ****",
          "**** Left out of the file system (name not usable) - " + home + "/back\\slash ****",
          "**** Left out of the file system (name not usable) - " + home + "/line?end ****"})
        EXPECT_EQ(std::count(f.log.begin(), f.log.end(), line), 1) << line;
}

TEST(Mounts, ReadCheckMountAndSave) {
    BuildFixture f;
    test::TempDir disk;
    disk.write("tools/bin/tool", "abcd");
    disk.write("tools/readme", "r");
    disk.write("music/song.mp3", "la");
    f.dir.write("home/a/old.txt", "");
    fs::create_directory_symlink(disk.path() / "music", f.home() / "outside");
    std::string tools = (disk.path() / "tools").string();
    std::string music = (disk.path() / "music").string();
    std::string overlong = music;
    while (overlong.size() < 1100)
        overlong += "/.";
    f.dir.write("mounts", tools + "/|pub\n" +                         // no leading "\"
                              music + "|\\a\\music\n" +               // below a home directory
                              tools + "|\\a\n" +                      // already exists
                              music + "|\\outside\\x\r\n" +           // parent only on the disk
                              disk.path().string() + "/nope|\\n1\n" + // real directory missing
                              music + "|\\no\\such\\parent\n" +       // host parent missing
                              "no bar here\n\n" + overlong + "|\\long\n");
    f.build();

    std::string mounting = "  Mounting ";
    std::vector<std::string> expected{"Initializing File System...",
                                      "File System root starts in - " + f.home().string(),
                                      "**** Left out of the file system (link leads outside) - " +
                                          f.home().string() + "/outside ****",
                                      mounting + music + "  - > \\outside\\x",
                                      "**** Error finding file (main_mount_routine) ****",
                                      mounting + tools + "  - > \\a",
                                      "Unable to mount, \\a already exists",
                                      mounting + music + "  - > \\a\\music",
                                      mounting + tools + "  - > \\pub",
                                      "Directories = 4", // a, the two mount points, bin
                                      "Files = 4",
                                      "File System complete."};
    EXPECT_EQ(f.log, expected);

    auto& mounts = f.tree().mounts;
    ASSERT_EQ(mounts.size(), 4u);
    EXPECT_EQ(mounts_text(f.tree()), music + "|\\outside\\x\n" + tools + "|\\a\n" + music +
                                         "|\\a\\music\n" + tools + "|\\pub\n");
    NodePtr tool = f.find("\\pub\\bin\\tool");
    ASSERT_TRUE(tool);
    EXPECT_EQ(tool->mount, mounts[3]);
    EXPECT_EQ(node_real_path(f.tree(), *tool), tools + "/bin/tool");
    EXPECT_EQ(f.tree().root->children.back(), f.find("\\pub")); // appended to its parent
    EXPECT_EQ(f.find("\\a\\old.txt")->mount, nullptr);
    EXPECT_EQ(f.names(f.find("\\a")), (std::vector<std::string>{"old.txt", "music"}));
    EXPECT_EQ(f.server.memory_allocated.load(), 9 * VfsTree::kNodeRecordSize +
                                                    4 * VfsTree::kMountRecordSize +
                                                    Accounts::kUserRecordSize);

    ASSERT_TRUE(save_mounts(f.server));
    EXPECT_EQ(f.dir.read("mounts"), mounts_text(f.tree()));
}

TEST(Mounts, LineParsing) {
    test::TempDir disk;
    fs::create_directories(disk / "home/sub");
    fs::create_directories(disk / "real");
    std::string home = (disk / "home").string();
    std::string real = (disk / "real").string();
    EXPECT_EQ(parse_mount_line(real + "|\\sub\\a|b", home)->mount_point,
              "\\sub\\a|b"); // first "|" splits
    EXPECT_EQ(parse_mount_line("|\\x", home), nullptr);
    EXPECT_EQ(parse_mount_line(real + "|\\" + std::string(300, 'n'), home), nullptr);
    EXPECT_EQ(normalize_mount_point(""), "\\");
}

TEST(Mounts, RelativeDirectoriesAreTakenFromTheStartDirectory) {
    struct Case {
        const char* configured;
        std::string resolved;
    };
    for (const Case& k : {Case{"home", "/start/home"}, Case{"a/../b", "/start/a/../b"},
                          Case{"/srv/ftp", "/srv/ftp"}, Case{"", ""}})
        EXPECT_EQ(resolve_configured_path("/start", k.configured), k.resolved) << k.configured;
    EXPECT_EQ(resolve_configured_path("/start/", "x"), "/start/x");

    // The process's working directory is somewhere else entirely.
    BuildFixture f;
    f.dir.write("home/in-home.txt", "h");
    f.dir.write("extra/in-mount.txt", "m");
    f.dir.write("mounts", "extra|\\mnt\n");
    f.server.settings.serverhome = "home";
    ASSERT_NE(fs::current_path(), f.dir.path());
    f.build();
    ASSERT_TRUE(f.find("\\in-home.txt"));
    NodePtr mounted = f.find("\\mnt\\in-mount.txt");
    ASSERT_TRUE(mounted);
    EXPECT_EQ(node_real_path(f.tree(), *mounted), (f.dir / "extra/in-mount.txt").string());
    EXPECT_EQ(node_real_path(f.tree(), *f.find("\\in-home.txt")),
              (f.dir / "home/in-home.txt").string());
    // Both are written back as the administrator wrote them.
    EXPECT_EQ(mounts_text(f.tree()), "extra|\\mnt\n");
    EXPECT_TRUE(f.logged("File System root starts in - home"));
}

TEST(Mounts, EmptyHomeServesNothing) {
    BuildFixture f;
    f.server.settings.serverhome.clear();
    f.build();
    EXPECT_TRUE(f.tree().root->children.empty());
    EXPECT_EQ(node_real_path(f.tree(), *f.tree().root), "");
}

TEST(PermissionList, WritesPreOrderLines) {
    BuildFixture f;
    fs::create_directories(f.home() / "pub");
    f.build();
    auto anna = std::make_shared<User>();
    anna->uid = 200;
    anna->name = "anna";
    f.server.accounts->push_user(anna);
    NodePtr pub = f.find("\\pub");
    pub->owner = anna;
    pub->flags = {1, 1, 1, 1, 0, 1, 0, 0, 0};
    auto staff = std::make_shared<Group>();
    staff->name = "staff";
    pub->group = staff;
    pub->creator = nullptr;
    NodePtr inner = add_node(f.tree(), *f.server.accounts, pub, "in.txt", '-', 1, anna,
                             &f.server.memory_allocated);
    NodePtr sub = add_node(f.tree(), *f.server.accounts, pub, "sub", 'd', 0, nullptr,
                           &f.server.memory_allocated);
    add_node(f.tree(), *f.server.accounts, sub, "deep", '-', 0, anna, &f.server.memory_allocated);
    add_node(f.tree(), *f.server.accounts, f.tree().root, "z", '-', 0, anna,
             &f.server.memory_allocated);
    inner->group = nullptr;
    EXPECT_EQ(fpl_text(f.tree()), "\\:d:root:root:111101101\n"
                                  "\\pub:d::anna:111101000:staff\n"
                                  "\\pub\\in.txt:-:anna:anna:111101000\n"
                                  "\\pub\\sub:d:root:root:111101000:staff\n"
                                  "\\pub\\sub\\deep:-:anna:anna:111101000:staff\n"
                                  "\\z:-:anna:anna:111101101\n");
    ASSERT_TRUE(write_fpl(f.server));
    EXPECT_EQ(f.dir.read("fpl.txt"), fpl_text(f.tree()));
}

TEST(PermissionList, VerifyAppliesLinesAndKeepsUnknownOwners) {
    BuildFixture f;
    f.dir.write("home/pub/old.txt", "");
    f.dir.write("home/pub/new/fresh.txt", "");
    f.dir.write("home/etc/passwd", "");
    f.dir.write("users", "anna:200:pw:1:15:\\\n");
    f.dir.write("groups", "staff:300:anna\n");
    f.server.accounts->read_groups(f.dir / "groups", f.server.log);
    f.server.accounts->read_users(f.dir / "users", f.server.log);
    f.server.accounts->link_groups(f.dir / "groups", f.server.log);
    std::string deep_line = "\\pub:d:anna:anna:000000000";
    while (deep_line.size() < 6000)
        deep_line += ":x"; // too long for one read: dropped whole
    f.dir.write("fpl.txt", "\\:d:root:root:111101101\n"
                           "\\pub:d:anna:ghost:111101000:staff\n"
                           "\\pub\\old.txt:-::anna:1x7000001\r\n"
                           "\\gone\\file:-:anna:anna:111111111\n"
                           "\\etc:d:anna:anna\n" + // too few fields: left alone
                               deep_line +
                               "\n" + "\\etc\\passwd:-:anna:anna:100000000:nogroup\n");
    f.log.clear();
    f.build();
    EXPECT_EQ(f.log[f.log.size() - 2], "Verifying files...");
    EXPECT_EQ(f.log.back(), "File System complete.");

    NodePtr pub = f.find("\\pub");
    ASSERT_TRUE(pub->owner);
    EXPECT_EQ(pub->owner->name, "ghost");
    EXPECT_EQ(pub->owner->uid, -1); // made up on the spot: a super user
    EXPECT_TRUE(can_write(pub->owner.get(), *pub));
    EXPECT_EQ(pub->creator, f.server.accounts->find_user("anna"));
    ASSERT_TRUE(pub->group);
    EXPECT_EQ(pub->group->name, "staff");
    EXPECT_EQ(pub->flags, (std::array<uint8_t, 9>{1, 1, 1, 1, 0, 1, 0, 0, 0}));

    NodePtr old = f.find("\\pub\\old.txt");
    EXPECT_EQ(old->creator, nullptr);
    EXPECT_EQ(old->flags, (std::array<uint8_t, 9>{1, 0, 7, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(old->group, nullptr);

    // Unlisted nodes take their directory's attributes, listed or not.
    for (const char* path : {"\\pub\\new", "\\pub\\new\\fresh.txt"}) {
        NodePtr n = f.find(path);
        EXPECT_EQ(n->owner, pub->owner) << path;
        EXPECT_EQ(n->group, pub->group) << path;
        EXPECT_EQ(n->flags, pub->flags) << path;
    }
    NodePtr etc = f.find("\\etc");
    EXPECT_EQ(etc->flags, f.tree().root->flags);
    EXPECT_EQ(f.find("\\etc\\passwd")->group, nullptr);
    EXPECT_EQ(f.find("\\etc\\passwd")->flags, (std::array<uint8_t, 9>{1, 0, 0, 0, 0, 0, 0, 0, 0}));

    // The made-up owner is not saved to `users`, but the node keeps its name in fpl.txt; the
    // unresolvable line is gone.
    EXPECT_EQ(f.server.accounts->users_text().find("ghost"), std::string::npos);
    ASSERT_TRUE(write_fpl(f.server));
    std::string saved = f.dir.read("fpl.txt");
    EXPECT_NE(saved.find("\\pub:d:anna:ghost:111101000:staff\n"), std::string::npos);
    EXPECT_EQ(saved.find("gone"), std::string::npos);
    EXPECT_NE(saved.find("\\pub\\old.txt:-::anna:107000001\n"), std::string::npos);
}

namespace {

// Nested directories of one name below `top`, made one handle at a time: the whole path may
// be longer than the host accepts in one piece.
void make_chain(const fs::path& top, const std::string& name, int depth) {
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < depth && fd >= 0; ++i) {
        ::mkdirat(fd, name.c_str(), 0755);
        int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    if (fd >= 0)
        ::close(fd);
}

// Moves the part of the chain below `depth` up to `top`, so that every path is short enough
// to be removed the usual way.
void cut_chain(const fs::path& top, const std::string& name, int depth) {
    int top_fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int fd = ::dup(top_fd);
    for (int i = 0; i < depth && fd >= 0; ++i) {
        int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    if (fd >= 0) {
        ::renameat(fd, name.c_str(), top_fd, "cut");
        ::close(fd);
    }
    ::close(top_fd);
}

} // namespace

TEST(PermissionList, TreeAtThePathLimitSurvivesSaveAndRestart) {
    // Sixteen levels of 255-byte names: a virtual path of exactly 4,096 bytes at the bottom,
    // and one more level below that the tree cannot hold.
    const std::string name(255, 'd');
    BuildFixture f;
    make_chain(f.home(), name, 16);
    std::string bottom_path;
    for (int i = 0; i < 16; ++i)
        bottom_path += "\\" + name;
    {
        // The extra level, made below the sixteenth.
        int fd = ::open(f.home().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int i = 0; i < 16; ++i) {
            int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            ::close(fd);
            fd = next;
        }
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::mkdirat(fd, "x", 0755), 0);
        ::close(fd);
    }
    f.build();
    NodePtr bottom = f.find(bottom_path);
    ASSERT_TRUE(bottom);
    EXPECT_EQ(node_virtual_path(*bottom, '\\').size(), kMaxVirtualPath);
    EXPECT_TRUE(bottom->children.empty());
    EXPECT_EQ(std::count_if(f.log.begin(), f.log.end(),
                            [](const std::string& l) {
                                return l.starts_with(
                                    "**** Left out of the file system (path too long)");
                            }),
              1);
    {
        std::unique_lock lock(f.server.tree_mutex);
        bottom->owner = f.server.accounts->find_or_make_user("anna");
        bottom->flags = {1, 1, 0, 1, 0, 0, 0, 0, 0};
    }
    ASSERT_TRUE(write_fpl(f.server));
    std::string saved = f.dir.read("fpl.txt");
    EXPECT_NE(saved.find(bottom_path + ":d:root:anna:110100000\n"), std::string::npos);

    // The next start finds every level and gives the bottom its owner and flags back.
    Server again(f.dir.path());
    again.accounts = std::make_shared<Accounts>(&again.memory_allocated);
    again.settings.serverhome = f.home().string();
    build_file_system(again);
    NodePtr back = find_node(*again.vfs, bottom_path, again.vfs->root);
    ASSERT_TRUE(back);
    ASSERT_TRUE(back->owner);
    EXPECT_EQ(back->owner->name, "anna");
    EXPECT_EQ(back->flags, (std::array<uint8_t, 9>{1, 1, 0, 1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(count_subtree(*again.vfs->root), 17);

    cut_chain(f.home(), name, 8);
}
