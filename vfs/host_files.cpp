#include "vfs/host_files.hpp"

#include "platform/files.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orv {
namespace {

// Closes a descriptor on every way out, keeping errno.
struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) {
            int saved = errno;
            ::close(fd);
            errno = saved;
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

// The directory that holds `path`, opened beneath its base, and the name inside it.
int open_parent(const HostPath& path, std::string& name) {
    HostPath dir;
    if (!split_host_path(path, dir, name)) {
        errno = EPERM;
        return -1;
    }
    return open_host_dir(dir);
}

} // namespace

HostPath child_host_path(const HostPath& dir, std::string_view name) {
    HostPath out = dir;
    if (out.base.empty())
        return out;
    if (!out.relative.empty())
        out.relative += '/';
    out.relative += name;
    return out;
}

bool split_host_path(const HostPath& path, HostPath& dir, std::string& name) {
    if (path.base.empty() || path.relative.empty())
        return false;
    size_t cut = path.relative.rfind('/');
    dir.base = path.base;
    dir.relative = cut == std::string::npos ? std::string() : path.relative.substr(0, cut);
    name = cut == std::string::npos ? path.relative : path.relative.substr(cut + 1);
    return !name.empty();
}

int open_host_file(const HostPath& path, bool write) {
    if (path.base.empty()) {
        errno = ENOENT;
        return -1;
    }
    // Non-blocking open: a FIFO must not hang the caller; the flag is taken back afterwards.
    int fd = open_beneath(path.base, path.relative, (write ? O_RDWR : O_RDONLY) | O_NONBLOCK);
    if (fd < 0)
        return -1;
    if (!is_regular_file(fd) || ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

int open_host_dir(const HostPath& path) {
    if (path.base.empty()) {
        errno = ENOENT;
        return -1;
    }
    return open_beneath(path.base, path.relative, O_PATH | O_DIRECTORY);
}

bool make_host_dir(const HostPath& path, unsigned mode) {
    std::string name;
    Fd dir(open_parent(path, name));
    return dir.fd >= 0 && ::mkdirat(dir.fd, name.c_str(), mode) == 0;
}

bool remove_host_file(const HostPath& path) {
    std::string name;
    Fd dir(open_parent(path, name));
    return dir.fd >= 0 && ::unlinkat(dir.fd, name.c_str(), 0) == 0;
}

bool remove_host_dir(const HostPath& path) {
    std::string name;
    Fd dir(open_parent(path, name));
    return dir.fd >= 0 && ::unlinkat(dir.fd, name.c_str(), AT_REMOVEDIR) == 0;
}

bool rename_host(const HostPath& from, const HostPath& to) {
    std::string from_name, to_name;
    Fd from_dir(open_parent(from, from_name));
    if (from_dir.fd < 0)
        return false;
    Fd to_dir(open_parent(to, to_name));
    if (to_dir.fd < 0)
        return false;
    if (::renameat2(from_dir.fd, from_name.c_str(), to_dir.fd, to_name.c_str(), RENAME_NOREPLACE) ==
        0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // File systems without the no-replace flag: check first (a narrow window, but never a
    // silent overwrite of something that was there before).
    struct stat st;
    if (::fstatat(to_dir.fd, to_name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::renameat(from_dir.fd, from_name.c_str(), to_dir.fd, to_name.c_str()) == 0;
}

} // namespace orv
