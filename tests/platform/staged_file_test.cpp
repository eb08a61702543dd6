// Files written beside their target and put in place only when complete.
#include "platform/staged_file.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace orv;
namespace fs = std::filesystem;

namespace {

bool write_text(int fd, std::string_view text) {
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

size_t entries(const fs::path& dir) {
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir))
        ++n;
    return n;
}

} // namespace

TEST(StagedFile, TheTargetChangesOnlyAtCommit) {
    test::TempDir dir;
    dir.write("home/d/old.txt", "old contents");
    ::chmod((dir / "home/d/old.txt").c_str(), 0600);
    std::string home = (dir / "home").string();

    StagedFile f;
    ASSERT_TRUE(f.open(home, "d", "old.txt"));
    ASSERT_TRUE(write_text(f.fd(), "new"));
    EXPECT_EQ(dir.read("home/d/old.txt"), "old contents");
    ASSERT_TRUE(f.commit());
    EXPECT_EQ(dir.read("home/d/old.txt"), "new");
    struct stat st {};
    ASSERT_EQ(::stat((dir / "home/d/old.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u); // the replaced file's permission bits are kept
    EXPECT_EQ(entries(dir / "home/d"), 1u);

    // Thrown away (explicitly or by going out of scope): the old file stays, nothing is left.
    {
        StagedFile g;
        ASSERT_TRUE(g.open(home, "d", "old.txt"));
        write_text(g.fd(), "half");
    }
    StagedFile h;
    ASSERT_TRUE(h.open(home, "d", "fresh.txt"));
    write_text(h.fd(), "x");
    h.discard();
    EXPECT_EQ(dir.read("home/d/old.txt"), "new");
    EXPECT_EQ(entries(dir / "home/d"), 1u);

    // Two writers of one new name: the result is wholly the one that committed last.
    StagedFile a, b;
    ASSERT_TRUE(a.open(home, "", "same.bin"));
    ASSERT_TRUE(b.open(home, "", "same.bin"));
    write_text(a.fd(), std::string(100000, 'a'));
    write_text(b.fd(), std::string(5, 'b'));
    ASSERT_TRUE(b.commit());
    ASSERT_TRUE(a.commit());
    EXPECT_EQ(dir.read("home/same.bin"), std::string(100000, 'a'));
}

TEST(StagedFile, RefusesWhatWouldNotEndAsAPlainFileInItsDirectory) {
    test::TempDir dir;
    dir.write("home/d/keep.txt", "k");
    dir.write("outside/secret.txt", "s");
    fs::create_directories(dir / "home/d/sub");
    std::string home = (dir / "home").string();

    // The name has become a directory by the time the upload is complete.
    StagedFile f;
    ASSERT_TRUE(f.open(home, "d", "later"));
    write_text(f.fd(), "x");
    fs::create_directory(dir / "home/d/later");
    EXPECT_FALSE(f.commit());
    EXPECT_TRUE(fs::is_directory(dir / "home/d/later"));
    StagedFile onto_dir;
    ASSERT_TRUE(onto_dir.open(home, "d", "sub"));
    EXPECT_FALSE(onto_dir.commit());

    // The directory was removed while the file was being written.
    fs::create_directories(dir / "home/gone");
    StagedFile g;
    ASSERT_TRUE(g.open(home, "gone", "x.txt"));
    write_text(g.fd(), "x");
    fs::remove_all(dir / "home/gone");
    EXPECT_FALSE(g.commit());
    EXPECT_FALSE(fs::exists(dir / "home/gone"));

    // A directory that is now a link out of the home, or missing, cannot be opened.
    fs::create_directory_symlink(dir / "outside", dir / "home/link");
    StagedFile l;
    EXPECT_FALSE(l.open(home, "link", "secret.txt"));
    EXPECT_FALSE(l.open(home, "missing", "x.txt"));
    EXPECT_EQ(dir.read("outside/secret.txt"), "s");

    // A target that is a link is replaced as a name; the file it pointed at stays as it was.
    fs::create_symlink(dir / "outside/secret.txt", dir / "home/d/alias.txt");
    StagedFile s;
    ASSERT_TRUE(s.open(home, "d", "alias.txt"));
    write_text(s.fd(), "replaced");
    ASSERT_TRUE(s.commit());
    EXPECT_FALSE(fs::is_symlink(dir / "home/d/alias.txt"));
    EXPECT_EQ(dir.read("home/d/alias.txt"), "replaced");
    EXPECT_EQ(dir.read("outside/secret.txt"), "s");
}
