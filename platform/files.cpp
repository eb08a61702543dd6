#include "platform/files.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace orv {

bool read_whole_file(const std::filesystem::path& path, std::string& out) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    out.clear();
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    std::fclose(f);
    return true;
}

bool for_each_fgets_line(const std::filesystem::path& path, size_t buffer_size,
                         const std::function<void(std::string_view)>& line) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    std::string buf(buffer_size, '\0');
    while (std::fgets(buf.data(), static_cast<int>(buffer_size), f)) {
        // fgets stops at a NUL byte in the data as far as strlen is concerned.
        line(std::string_view(buf.c_str()));
    }
    std::fclose(f);
    return true;
}

std::string_view cut_line_end(std::string_view line) {
    size_t lf = line.find('\n');
    if (lf != std::string_view::npos)
        line = line.substr(0, lf);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

namespace {
constexpr size_t kWriteChunk = 1 << 16;
}

AtomicFileWriter::AtomicFileWriter(std::filesystem::path path, unsigned mode)
    : path_(std::move(path)) {
    tmp_ = path_;
    tmp_ += ".tmp";
    // Always a new file of our own: a leftover (or planted) temporary file or link is removed,
    // never written through, so the table's contents cannot end up anywhere else.
    ::unlink(tmp_.c_str());
    fd_ = ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd_ >= 0)
        ::fchmod(fd_, mode);
    buffer_.reserve(kWriteChunk);
}

AtomicFileWriter::~AtomicFileWriter() {
    abandon();
}

void AtomicFileWriter::abandon() {
    if (fd_ < 0)
        return;
    int error = errno; // the reason of the failure, for the caller's message
    ::close(fd_);
    fd_ = -1;
    ::unlink(tmp_.c_str());
    errno = error;
}

bool AtomicFileWriter::flush() {
    const char* p = buffer_.data();
    size_t left = buffer_.size();
    while (left > 0) {
        ssize_t n = ::write(fd_, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            abandon();
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    buffer_.clear();
    return true;
}

void AtomicFileWriter::append(std::string_view text) {
    if (fd_ < 0)
        return;
    buffer_.append(text);
    if (buffer_.size() >= kWriteChunk)
        flush();
}

bool AtomicFileWriter::commit() {
    if (fd_ < 0 || !flush())
        return false;
    int fd = fd_;
    fd_ = -1;
    bool synced = ::fsync(fd) == 0;
    int error = errno;
    if (::close(fd) != 0 || !synced || ::rename(tmp_.c_str(), path_.c_str()) != 0) {
        error = synced ? errno : error;
        ::unlink(tmp_.c_str());
        errno = error;
        return false;
    }
    return true;
}

bool write_file_atomic(const std::filesystem::path& path, std::string_view content, unsigned mode) {
    AtomicFileWriter writer(path, mode);
    if (!writer.ok())
        return false;
    writer.append(content);
    return writer.commit();
}

int open_beneath(const std::string& base, std::string_view relative, int flags, unsigned mode) {
    int dir = ::open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return -1;
    std::string rel(relative.empty() ? "." : relative);
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
    how.mode = (flags & (O_CREAT | O_TMPFILE)) ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    long fd;
    do
        fd = ::syscall(SYS_openat2, dir, rel.c_str(), &how, sizeof how);
    while (fd < 0 && errno == EINTR);
    int saved = errno;
    ::close(dir);
    errno = saved;
    return static_cast<int>(fd);
}

bool is_regular_file(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

} // namespace orv
