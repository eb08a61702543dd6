// The tables are written through a temporary file beside them. Whatever is found at that name
// (a leftover of a killed shutdown, or a link somebody planted) is replaced, never written
// through, and the users file never becomes readable by others.
#include "platform/files.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orv::test {
namespace {

unsigned mode_of(const std::filesystem::path& path) {
    struct stat st {};
    ::lstat(path.c_str(), &st);
    return st.st_mode;
}

TEST(TableWrite, NeverWritesThroughALinkAtTheTemporaryName) {
    TempDir dir;
    dir.write("bait", "bait\n");
    ::chmod((dir / "bait").c_str(), 0644);
    ASSERT_EQ(::symlink((dir / "bait").c_str(), (dir / "users.tmp").c_str()), 0);

    ASSERT_TRUE(write_file_atomic(dir / "users", "anna:101:x:1:4:\\\n", 0600));
    EXPECT_EQ(dir.read("bait"), "bait\n");
    EXPECT_EQ(mode_of(dir / "bait") & 07777, 0644u);
    EXPECT_TRUE(S_ISREG(mode_of(dir / "users")));
    EXPECT_EQ(mode_of(dir / "users") & 07777, 0600u);
    EXPECT_EQ(dir.read("users"), "anna:101:x:1:4:\\\n");
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(dir / "users.tmp")));
}

TEST(TableWrite, ALeftoverTemporaryFileIsReplaced) {
    TempDir dir;
    dir.write("users", "old\n");
    dir.write("users.tmp", "half a tab");
    ::chmod((dir / "users.tmp").c_str(), 0666);
    mode_t old_mask = ::umask(0);
    bool written = write_file_atomic(dir / "users", "new\n", 0600);
    ::umask(old_mask);
    ASSERT_TRUE(written);
    EXPECT_EQ(dir.read("users"), "new\n");
    EXPECT_EQ(mode_of(dir / "users") & 07777, 0600u);
}

TEST(TableWrite, AFailedWriteLeavesTheOldTable) {
    TempDir dir;
    dir.write("groups", "staff:101\n");
    // The temporary name is taken by a directory that cannot be removed: nothing is written.
    dir.write("groups.tmp/keep", "x");
    EXPECT_FALSE(write_file_atomic(dir / "groups", "other:102\n", 0644));
    EXPECT_EQ(dir.read("groups"), "staff:101\n");
}

} // namespace
} // namespace orv::test
