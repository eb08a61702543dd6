// The SFTP session's file operations over the tree of an in-process server, without SSH.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/ftp_context.hpp"
#include "sshd/sftp_files.hpp"
#include "support/test_server.hpp"
#include "vfs/tree.hpp"

#include <gtest/gtest.h>
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

TestServerConfig config() {
    TestServerConfig c;
    c.accounts.push_back({"other", "other-pass", 102, 5, 15, "\\"});
    return c;
}

// home/: pub (open to all) with hello.bin and sub/, locked (owner rwx only, owned by admin),
// ro (readable, not writable) with keep.txt, and a mount \mnt.
class SftpFiles : public ::testing::Test {
  protected:
    SftpFiles()
        : server(config(), [](TempDir& d) {
              d.write("home/pub/hello.bin", pattern_bytes(300000));
              d.write("home/pub/sub/inner.txt", "inner");
              d.write("home/locked/secret.txt", "secret");
              d.write("home/ro/keep.txt", "keep");
              d.write("outside/m.txt", "mounted");
              d.write("secret-outside.txt", "never");
              d.write("mounts", (d.path() / "outside").string() + "|\\mnt\n");
          }) {
        set_mode("\\pub", "rwxrwxrwx");
        set_mode("\\pub\\hello.bin", "rw-r--r--");
        set_mode("\\pub\\sub", "rwxrwxrwx");
        set_mode("\\pub\\sub\\inner.txt", "rw-rw-rw-");
        set_mode("\\locked", "rwx------");
        set_mode("\\locked\\secret.txt", "rw-------");
        set_mode("\\ro", "r-xr-xr-x");
        set_mode("\\ro\\keep.txt", "rw-rw-rw-");
        set_owner("\\locked", "admin");
        set_owner("\\locked\\secret.txt", "admin");
        set_owner("\\pub\\hello.bin", "admin");
        demo = session("demo");
    }

    std::unique_ptr<sftp::Files> session(const std::string& name, bool logged_in = true) {
        auto slot = std::make_shared<ConnSlot>(Service::Ftp, 900 + static_cast<int>(slots.size()));
        Server& s = server.server();
        {
            std::shared_lock lock(s.tree_mutex);
            slot->set_user(s.accounts->find_user(name));
            slot->set_cwd(s.vfs->root);
        }
        slot->logged_in = logged_in;
        slots.push_back(slot);
        return std::make_unique<sftp::Files>(s, slot, marks);
    }
    NodePtr node(const std::string& path) {
        std::shared_lock lock(server.server().tree_mutex);
        return find_node(*server.server().vfs, path, server.server().vfs->root);
    }
    void set_mode(const std::string& path, const std::string& mode) {
        NodePtr n = node(path);
        ASSERT_TRUE(n) << path;
        std::unique_lock lock(server.server().tree_mutex);
        for (size_t i = 0; i < 9; ++i)
            n->flags[i] = mode[i] != '-';
    }
    void set_owner(const std::string& path, const std::string& user) {
        NodePtr n = node(path);
        ASSERT_TRUE(n) << path;
        std::unique_lock lock(server.server().tree_mutex);
        n->owner = server.server().accounts->find_user(user);
    }
    std::string host(const std::string& relative) { return server.dir().read("home/" + relative); }

    // Opens, writes `data` in `chunk` pieces and closes.
    sftp::Status upload(sftp::Files& f, const std::string& path, const std::string& data,
                        uint32_t flags = sftp::kOpenWrite | sftp::kOpenCreate | sftp::kOpenTruncate,
                        size_t chunk = 32768) {
        std::string h;
        sftp::Status s = f.open(path, flags, h);
        if (s != sftp::kOk)
            return s;
        for (size_t at = 0; at < data.size(); at += chunk)
            if ((s = f.write(h, at, std::string_view(data).substr(at, chunk))) != sftp::kOk)
                return s;
        return f.close(h);
    }
    sftp::Status download(sftp::Files& f, const std::string& path, std::string& data) {
        std::string h;
        data.clear();
        sftp::Status s = f.open(path, sftp::kOpenRead, h);
        if (s != sftp::kOk)
            return s;
        std::string buf(sftp::kMaxReadChunk, '\0');
        for (;;) {
            size_t got = 0;
            s = f.read(h, data.size(), 1 << 20, buf.data(), got);
            if (s == sftp::kEof)
                break;
            if (s != sftp::kOk)
                return s;
            EXPECT_LE(got, sftp::kMaxReadChunk);
            data.append(buf.data(), got);
        }
        return f.close(h);
    }

    TestServer server;
    std::shared_ptr<FtpContext> marks = std::make_shared<FtpContext>(server.server());
    std::vector<SlotPtr> slots;
    std::unique_ptr<sftp::Files> demo;
};

TEST_F(SftpFiles, UploadAndDownloadRoundTripWithOwnerAndSize) {
    std::string data = pattern_bytes(700001);
    ASSERT_EQ(upload(*demo, "/pub/new.bin", data), sftp::kOk);
    EXPECT_EQ(host("pub/new.bin"), data);
    NodePtr n = node("\\pub\\new.bin");
    ASSERT_TRUE(n);
    EXPECT_EQ(n->owner->name, "demo");
    EXPECT_EQ(n->size, data.size());

    std::string back;
    ASSERT_EQ(download(*demo, "pub/new.bin", back), sftp::kOk);
    EXPECT_EQ(back, data);
    ASSERT_EQ(download(*demo, "/pub/sub/../hello.bin", back), sftp::kOk);
    EXPECT_EQ(back, pattern_bytes(300000));
    bool logged = false;
    for (const std::string& l : server.log_lines())
        logged = logged || l.rfind("(900) 300000 bytes sent in ", 0) == 0;
    EXPECT_TRUE(logged);
}

TEST_F(SftpFiles, UploadAppearsOnlyWhenClosedAndBrokenUploadKeepsOldFile) {
    std::string h;
    ASSERT_EQ(demo->open("/ro/keep.txt", sftp::kOpenWrite | sftp::kOpenTruncate, h),
              sftp::kPermissionDenied);
    std::string old = pattern_bytes(300000);
    ASSERT_EQ(demo->open("/pub/sub/inner.txt", sftp::kOpenWrite | sftp::kOpenTruncate, h),
              sftp::kOk);
    ASSERT_EQ(demo->write(h, 0, "half"), sftp::kOk);
    EXPECT_EQ(host("pub/sub/inner.txt"), "inner"); // not yet in place
    EXPECT_EQ(node("\\pub\\sub\\inner.txt")->status.load(), kStatusBusy);
    demo.reset(); // the session ends without closing
    EXPECT_EQ(host("pub/sub/inner.txt"), "inner");
    EXPECT_EQ(node("\\pub\\sub\\inner.txt")->status.load(), kStatusNormal);
    for (const auto& e : fs::directory_iterator(server.home() / "pub/sub"))
        EXPECT_EQ(e.path().filename(), "inner.txt") << "a staged file was left behind";
}

TEST_F(SftpFiles, WriteWithoutTruncateEditsAndAppendAddsAtTheEnd) {
    ASSERT_EQ(upload(*demo, "/pub/sub/inner.txt", "IN", sftp::kOpenWrite), sftp::kOk);
    EXPECT_EQ(host("pub/sub/inner.txt"), "INner");
    ASSERT_EQ(upload(*demo, "/pub/sub/inner.txt", "++", sftp::kOpenWrite | sftp::kOpenAppend),
              sftp::kOk);
    EXPECT_EQ(host("pub/sub/inner.txt"), "INner++");
    EXPECT_EQ(node("\\pub\\sub\\inner.txt")->size, 7u);
    std::string h;
    EXPECT_EQ(demo->open("/pub/sub/inner.txt",
                         sftp::kOpenWrite | sftp::kOpenCreate | sftp::kOpenExclusive, h),
              sftp::kFailure);
    EXPECT_EQ(demo->open("/pub/sub/missing.txt", sftp::kOpenWrite, h), sftp::kNoSuchFile);
    EXPECT_EQ(demo->open("/pub/sub", sftp::kOpenWrite | sftp::kOpenCreate, h), sftp::kFailure);
}

TEST_F(SftpFiles, PermissionRulesHoldForEveryOperation) {
    struct Case {
        const char* what;
        std::function<sftp::Status(sftp::Files&)> op;
        sftp::Status want;
    };
    std::string h;
    std::vector<sftp::NameEntry> names;
    sftp::Attrs a;
    std::vector<Case> cases = {
        {"read without r", [&](sftp::Files& f) { return f.open("/locked/secret.txt", 1, h); },
         sftp::kPermissionDenied},
        {"stat in an unreadable dir",
         [&](sftp::Files& f) { return f.stat("/locked/secret.txt", a); }, sftp::kPermissionDenied},
        {"list without r", [&](sftp::Files& f) { return f.opendir("/locked", h); },
         sftp::kPermissionDenied},
        {"create without w on dir",
         [&](sftp::Files& f) { return f.open("/ro/new.txt", sftp::kOpenWrite | 8, h); },
         sftp::kPermissionDenied},
        {"overwrite without w on file",
         [&](sftp::Files& f) { return f.open("/pub/hello.bin", sftp::kOpenWrite | 0x10, h); },
         sftp::kPermissionDenied},
        {"remove without w on dir", [&](sftp::Files& f) { return f.remove("/ro/keep.txt"); },
         sftp::kPermissionDenied},
        {"rename out of a dir without w",
         [&](sftp::Files& f) { return f.rename("/ro/keep.txt", "/pub/keep.txt"); },
         sftp::kPermissionDenied},
        {"mkdir without w", [&](sftp::Files& f) { return f.mkdir("/ro/d"); },
         sftp::kPermissionDenied},
        {"rmdir a mount point", [&](sftp::Files& f) { return f.rmdir("/mnt"); },
         sftp::kPermissionDenied},
        {"move a mount point", [&](sftp::Files& f) { return f.rename("/mnt", "/pub/mnt"); },
         sftp::kPermissionDenied},
        {"chmod of another's file",
         [&](sftp::Files& f) {
             sftp::Attrs p;
             p.flags = sftp::kAttrPermissions;
             p.permissions = 0777;
             return f.setstat("/pub/hello.bin", p);
         },
         sftp::kPermissionDenied},
        {"out of the home",
         [&](sftp::Files& f) { return f.open("/../../secret-outside.txt", 1, h); },
         sftp::kNoSuchFile},
        {"new name with a NUL",
         [&](sftp::Files& f) { return f.mkdir(std::string_view("/pub/a\0b", 8)); },
         sftp::kPermissionDenied},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.op(*demo), c.want) << c.what;
    // The super user passes the ownership rule; nobody gets anything before a completed login.
    auto admin = session("admin");
    sftp::Attrs p;
    p.flags = sftp::kAttrPermissions;
    p.permissions = 0640;
    EXPECT_EQ(admin->setstat("/pub/hello.bin", p), sftp::kOk);
    EXPECT_EQ(node("\\pub\\hello.bin")->flags, (std::array<uint8_t, 9>{1, 1, 0, 1, 0, 0, 0, 0, 0}));
    auto anonymous = session("demo", false);
    EXPECT_EQ(anonymous->stat("/pub", a), sftp::kNoSuchFile);
    EXPECT_EQ(anonymous->opendir("/", h), sftp::kNoSuchFile);
    EXPECT_FALSE(fs::exists(server.home() / "ro/d"));
}

TEST_F(SftpFiles, HostLinksMadeAfterTheScanAreNotFollowed) {
    // The file in the tree is replaced on the host by a link to a file outside the home.
    fs::remove(server.home() / "pub/sub/inner.txt");
    fs::create_symlink(server.dir().path() / "secret-outside.txt",
                       server.home() / "pub/sub/inner.txt");
    std::string data;
    EXPECT_NE(download(*demo, "/pub/sub/inner.txt", data), sftp::kOk);
    EXPECT_EQ(upload(*demo, "/pub/sub/inner.txt", "overwrite"), sftp::kOk);
    EXPECT_EQ(server.dir().read("secret-outside.txt"), "never");
}

TEST_F(SftpFiles, DirectoriesMadeRenamedAndRemoved) {
    ASSERT_EQ(demo->mkdir("/pub/d"), sftp::kOk);
    EXPECT_TRUE(fs::is_directory(server.home() / "pub/d"));
    EXPECT_EQ(node("\\pub\\d")->owner->name, "demo");
    EXPECT_EQ(demo->mkdir("/pub/d"), sftp::kFailure);
    ASSERT_EQ(upload(*demo, "/pub/d/f.txt", "f"), sftp::kOk);
    EXPECT_EQ(demo->rmdir("/pub/d"), sftp::kFailure); // not empty
    EXPECT_EQ(demo->rename("/pub/d", "/pub/d/inside"), sftp::kFailure);
    EXPECT_EQ(demo->rename("/pub/d/f.txt", "/pub/sub/inner.txt"), sftp::kFailure); // exists
    ASSERT_EQ(demo->rename("/pub/d/f.txt", "/pub/sub/g.txt"), sftp::kOk);
    EXPECT_EQ(host("pub/sub/g.txt"), "f");
    EXPECT_TRUE(node("\\pub\\sub\\g.txt"));
    EXPECT_FALSE(node("\\pub\\d\\f.txt"));
    ASSERT_EQ(demo->rmdir("/pub/d"), sftp::kOk);
    EXPECT_FALSE(fs::exists(server.home() / "pub/d"));
    ASSERT_EQ(demo->remove("/pub/sub/g.txt"), sftp::kOk);
    EXPECT_FALSE(fs::exists(server.home() / "pub/sub/g.txt"));
    EXPECT_EQ(demo->remove("/pub/sub"), sftp::kFailure);
    EXPECT_EQ(demo->remove("/pub/sub/g.txt"), sftp::kNoSuchFile);
}

TEST_F(SftpFiles, FileInUseIsNeitherRemovedNorRenamedUntilClosed) {
    std::string h;
    ASSERT_EQ(demo->open("/pub/sub/inner.txt", sftp::kOpenRead, h), sftp::kOk);
    auto other = session("other");
    EXPECT_EQ(other->remove("/pub/sub/inner.txt"), sftp::kFailure);
    EXPECT_EQ(other->rename("/pub/sub/inner.txt", "/pub/x"), sftp::kFailure);
    ASSERT_EQ(demo->close(h), sftp::kOk);
    EXPECT_EQ(demo->close(h), sftp::kFailure); // already closed
    EXPECT_EQ(other->remove("/pub/sub/inner.txt"), sftp::kOk);
}

TEST_F(SftpFiles, ListingGivesEveryEntryInTheListingLayoutThenEnds) {
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(upload(*demo, "/pub/sub/f" + std::to_string(i), "x"), sftp::kOk);
    std::string h;
    ASSERT_EQ(demo->opendir("/pub/sub", h), sftp::kOk);
    std::vector<sftp::NameEntry> all, batch;
    while (demo->readdir(h, batch) == sftp::kOk) {
        EXPECT_LE(batch.size(), sftp::kNamesPerRead);
        all.insert(all.end(), batch.begin(), batch.end());
    }
    ASSERT_EQ(all.size(), 301u);
    EXPECT_EQ(all[0].name, "inner.txt");
    EXPECT_EQ(all[0].long_name.substr(0, 15), "-rw-rw-rw-   1 ") << all[0].long_name;
    EXPECT_NE(all[0].long_name.find(" 5 "), std::string::npos) << all[0].long_name;
    EXPECT_EQ(all[0].long_name.substr(all[0].long_name.size() - 10), " inner.txt");
    EXPECT_EQ(all[0].attrs.size, 5u);
    EXPECT_TRUE(all[0].attrs.flags & sftp::kAttrTimes);
    EXPECT_EQ(all[1].attrs.uid, 101u);
    EXPECT_EQ(demo->close(h), sftp::kOk);
}

TEST_F(SftpFiles, AttributesAndTimes) {
    sftp::Attrs a;
    ASSERT_EQ(demo->stat("/pub", a), sftp::kOk);
    EXPECT_EQ(a.permissions, static_cast<uint32_t>(S_IFDIR | 0777));
    ASSERT_EQ(demo->stat("pub/hello.bin", a), sftp::kOk);
    EXPECT_EQ(a.permissions, static_cast<uint32_t>(S_IFREG | 0644));
    EXPECT_EQ(a.size, 300000u);
    EXPECT_EQ(a.uid, 10u);

    sftp::Attrs t;
    t.flags = sftp::kAttrTimes;
    t.atime = 1000000000;
    t.mtime = 1100000000;
    ASSERT_EQ(demo->setstat("/pub/sub/inner.txt", t), sftp::kOk);
    struct stat st {};
    ASSERT_EQ(::stat((server.home() / "pub/sub/inner.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1100000000);
    EXPECT_EQ(demo->setstat("/pub/hello.bin", t), sftp::kPermissionDenied);

    // Times and permissions given on an upload's handle hold once it is in place.
    std::string h;
    ASSERT_EQ(demo->open("/pub/t.txt", sftp::kOpenWrite | sftp::kOpenCreate, h), sftp::kOk);
    ASSERT_EQ(demo->write(h, 0, "abc"), sftp::kOk);
    t.flags |= sftp::kAttrPermissions;
    t.permissions = 0600;
    ASSERT_EQ(demo->fsetstat(h, t), sftp::kOk);
    ASSERT_EQ(demo->fstat(h, a), sftp::kOk);
    EXPECT_EQ(a.size, 3u);
    ASSERT_EQ(demo->close(h), sftp::kOk);
    ASSERT_EQ(::stat((server.home() / "pub/t.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1100000000);
    EXPECT_EQ(node("\\pub\\t.txt")->flags, (std::array<uint8_t, 9>{1, 1, 0, 0, 0, 0, 0, 0, 0}));
    sftp::Attrs owner;
    owner.flags = sftp::kAttrUidGid;
    owner.uid = 10;
    EXPECT_EQ(demo->setstat("/pub/t.txt", owner), sftp::kOpUnsupported);
}

TEST_F(SftpFiles, HandleTableIsBounded) {
    std::vector<std::string> handles(sftp::kMaxHandles);
    for (std::string& h : handles)
        ASSERT_EQ(demo->open("/pub/sub/inner.txt", sftp::kOpenRead, h), sftp::kOk);
    std::string extra;
    EXPECT_EQ(demo->opendir("/pub", extra), sftp::kFailure);
    ASSERT_EQ(demo->close(handles[0]), sftp::kOk);
    EXPECT_EQ(demo->opendir("/pub", extra), sftp::kOk);
    demo.reset();
    EXPECT_EQ(node("\\pub\\sub\\inner.txt")->status.load(), kStatusNormal);
}

TEST(SftpPaths, NormalPathTakesDotsOutAndStaysBelowTheRoot) {
    struct Case {
        const char* base;
        const char* path;
        const char* want;
    } cases[] = {
        {"/", ".", "/"},
        {"/pub", "", "/pub"},
        {"/pub", "a/b", "/pub/a/b"},
        {"/pub", "../..", "/"},
        {"/pub", "/x//y/./", "/x/y"},
        {"/pub", "..\\etc", "/etc"},
        {"/a/b", "../c", "/a/c"},
        {"/", "/../../etc/passwd", "/etc/passwd"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(sftp::normal_path(c.base, c.path), c.want) << c.base << " + " << c.path;
}

} // namespace
