#include "platform/staged_file.hpp"

#include "platform/files.hpp"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orv {

namespace {

std::string temp_name() {
    static std::atomic<unsigned> counter{0};
    return ".orvane-part-" + std::to_string(::getpid()) + "-" +
           std::to_string(counter.fetch_add(1));
}

} // namespace

StagedFile::~StagedFile() {
    discard();
}

bool StagedFile::open(const std::string& base, std::string_view dir_relative, std::string_view name,
                      unsigned mode) {
    discard();
    name_ = std::string(name);
    dir_ = open_beneath(base, dir_relative, O_PATH | O_DIRECTORY);
    if (dir_ < 0)
        return false;
    struct stat old {};
    if (::fstatat(dir_, name_.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.st_mode))
        mode = old.st_mode & 07777;
    fd_ = ::openat(dir_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
    if (fd_ < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
        // No unnamed files here: a hidden name of our own, never one that exists.
        for (int attempt = 0; fd_ < 0 && attempt < 16; ++attempt) {
            temp_ = temp_name();
            fd_ = ::openat(dir_, temp_.c_str(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
            if (fd_ < 0 && errno != EEXIST)
                break;
        }
        if (fd_ < 0)
            temp_.clear();
    }
    if (fd_ < 0) {
        int saved = errno;
        close_all();
        errno = saved;
        return false;
    }
    ::fchmod(fd_, mode); // exactly these bits, whatever the umask
    return true;
}

// Gives the unnamed file a temporary name in its directory.
bool StagedFile::link_unnamed() {
    std::string proc = "/proc/self/fd/" + std::to_string(fd_);
    for (int attempt = 0; attempt < 16; ++attempt) {
        std::string temp = temp_name();
        if (::linkat(AT_FDCWD, proc.c_str(), dir_, temp.c_str(), AT_SYMLINK_FOLLOW) == 0 ||
            ::linkat(fd_, "", dir_, temp.c_str(), AT_EMPTY_PATH) == 0) {
            temp_ = temp;
            return true;
        }
        if (errno != EEXIST)
            return false;
    }
    return false;
}

bool StagedFile::commit() {
    if (fd_ < 0)
        return false;
    bool ok = temp_.empty() ? link_unnamed() : true;
    // A delayed write error (a full network disk) shows at the close.
    if (::close(fd_) != 0)
        ok = false;
    fd_ = -1;
    struct stat target {};
    if (ok && ::fstatat(dir_, name_.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISDIR(target.st_mode))
        ok = false;
    if (ok && ::renameat(dir_, temp_.c_str(), dir_, name_.c_str()) == 0) {
        temp_.clear();
        close_all();
        return true;
    }
    discard();
    return false;
}

void StagedFile::discard() {
    if (dir_ >= 0 && !temp_.empty())
        ::unlinkat(dir_, temp_.c_str(), 0);
    temp_.clear();
    close_all();
}

void StagedFile::close_all() {
    if (fd_ >= 0)
        ::close(fd_);
    if (dir_ >= 0)
        ::close(dir_);
    fd_ = dir_ = -1;
}

} // namespace orv
