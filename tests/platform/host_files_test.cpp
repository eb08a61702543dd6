#include "platform/files.hpp"
#include "platform/text.hpp"
#include "support/temp_dir.hpp"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orv;

namespace {

// Opens and closes at once; the errno of a failure, 0 on success.
int open_error(const std::string& base, std::string_view relative, int flags = O_RDONLY) {
    int fd = open_beneath(base, relative, flags);
    if (fd < 0)
        return errno;
    ::close(fd);
    return 0;
}

} // namespace

TEST(HostFiles, OpenBeneathKeepsInsideTheBase) {
    test::TempDir dir;
    dir.write("home/pub/a.txt", "a");
    dir.write("secret.txt", "s");
    const std::string home = (dir / "home").string();
    std::filesystem::create_symlink(dir / "secret.txt", dir / "home/pub/out.txt");
    std::filesystem::create_symlink("a.txt", dir / "home/pub/in.txt");
    std::filesystem::create_directory_symlink(dir.path(), dir / "home/up");
    std::filesystem::create_directory_symlink("pub", dir / "home/pub2");

    EXPECT_EQ(open_error(home, "pub/a.txt"), 0);
    EXPECT_EQ(open_error(home, ""), 0) << "the base itself";
    EXPECT_EQ(open_error(home, "pub2/a.txt"), 0) << "a link on the way that stays inside";
    EXPECT_EQ(open_error(home, "pub/out.txt"), ELOOP) << "a link at the last component";
    EXPECT_EQ(open_error(home, "pub/in.txt"), ELOOP) << "even one that stays inside";
    EXPECT_EQ(open_error(home, "up/secret.txt"), EXDEV) << "a link on the way out";
    EXPECT_EQ(open_error(home, "../secret.txt"), EXDEV);
    EXPECT_EQ(open_error(home, (dir / "secret.txt").string()), EXDEV) << "an absolute path";
    EXPECT_EQ(open_error(home, "pub/none.txt"), ENOENT);

    int made = open_beneath(home, "pub/new.txt", O_WRONLY | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(made, 0);
    struct stat st {};
    ASSERT_EQ(::fstat(made, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_TRUE(is_regular_file(made));
    ::close(made);

    int pub = open_beneath(home, "pub", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(pub, 0);
    EXPECT_FALSE(is_regular_file(pub));
    ::close(pub);
}

TEST(HostFiles, LogSafeEscapesControlBytes) {
    EXPECT_EQ(log_safe("plain name"), "plain name");
    EXPECT_EQ(log_safe("bob\n(3) forged"), "bob\\x0A(3) forged");
    EXPECT_EQ(log_safe(std::string("a\0b\r\x7f\x1b", 6)), "a\\x00b\\x0D\\x7F\\x1B");
    EXPECT_EQ(log_safe("caf\xc3\xa9"), "caf\xc3\xa9") << "bytes above 127 are text";
}
