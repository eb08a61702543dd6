#include "platform/byte_mover.hpp"

#include "platform/buffer.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace orv {

namespace {

// Blocking calls on the socket return after a second without progress (EAGAIN), which is
// when the stop requests and the idle limit are looked at.
void set_wakeups(int fd) {
    timeval tv{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

bool stop_now(const MoveControl& c) {
    return c.stop && c.stop();
}

// Counts a wake-up without progress. Returns true (with `end` set) when the move is over.
class IdleClock {
  public:
    explicit IdleClock(const MoveControl& c) : c_(c) {}
    void moved() { idle_ms_ = 0; }
    bool give_up(MoveEnd& end) {
        idle_ms_ += 1000;
        if (stop_now(c_) || (c_.stop_when_idle && c_.stop_when_idle())) {
            end = MoveEnd::stopped;
            return true;
        }
        if (idle_ms_ >= c_.idle_limit_ms) {
            end = MoveEnd::peer_failed;
            return true;
        }
        return false;
    }

  private:
    const MoveControl& c_;
    int idle_ms_ = 0;
};

void report(const MoveControl& c, long long total) {
    if (c.progress)
        c.progress(total);
}

bool is_wakeup(int err) {
    return err == EAGAIN || err == EWOULDBLOCK;
}

// ---- Downloads ----

// Read in blocks of 1 MiB, sent with MSG_MORE on every block but the one that reaches the
// size, so that the stream is cut into full segments.
constexpr size_t kReadBlock = 1 << 20;
// sendfile() is asked for this much per call: large, so that one call usually moves what the
// socket buffer takes, and a stop request is still seen between calls.
constexpr size_t kSendfilePiece = 16 << 20;

// Sends `n` bytes of `p`; false (with `r.end` set) when the move is over.
bool send_all(int sock, const char* p, size_t n, int flags, const MoveControl& c, IdleClock& idle,
              MoveResult& r) {
    size_t sent = 0;
    while (sent < n) {
        if (stop_now(c)) {
            r.end = MoveEnd::stopped;
            return false;
        }
        ssize_t m = ::send(sock, p + sent, n - sent, flags | MSG_NOSIGNAL);
        if (m > 0) {
            sent += static_cast<size_t>(m);
            r.written += m;
            idle.moved();
            continue;
        }
        int err = m < 0 ? errno : 0;
        if (err == EINTR)
            continue;
        if (is_wakeup(err)) {
            if (!idle.give_up(r.end))
                continue;
            return false;
        }
        r.end = MoveEnd::peer_failed;
        return false;
    }
    return true;
}

MoveResult send_by_reading(int file_fd, int sock, long long size, const MoveControl& c,
                           MoveResult r = {}) {
    TransferBuffer block(kReadBlock);
    IdleClock idle(c);
    if (block.size() == 0) {
        r.end = MoveEnd::source_failed;
        return r;
    }
    for (;;) {
        if (stop_now(c)) {
            r.end = MoveEnd::stopped;
            return r;
        }
        ssize_t n = ::read(file_fd, block.data(), block.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            r.end = MoveEnd::source_failed;
            return r;
        }
        if (n == 0)
            break;
        r.bytes += n;
        int more = r.bytes < size ? MSG_MORE : 0;
        if (!send_all(sock, block.data(), static_cast<size_t>(n), more, c, idle, r))
            return r;
        report(c, r.written);
    }
    if (r.bytes < size)
        r.end = MoveEnd::source_failed;
    return r;
}

// Errors of sendfile() and splice() that come from the connection rather than the file.
bool is_peer_error(int err) {
    return err == EPIPE || err == ECONNRESET || err == ENOTCONN || err == ETIMEDOUT ||
           err == ECONNABORTED || err == EHOSTUNREACH || err == ENETUNREACH;
}

void set_cork(int sock, int on) {
    ::setsockopt(sock, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

MoveResult send_by_sendfile(int file_fd, int sock, long long size, const MoveControl& c,
                            bool cork) {
    MoveResult r;
    IdleClock idle(c);
    if (cork)
        set_cork(sock, 1);
    for (;;) {
        if (stop_now(c)) {
            r.end = MoveEnd::stopped;
            break;
        }
        ssize_t n = ::sendfile(sock, file_fd, nullptr, kSendfilePiece);
        if (n > 0) {
            r.bytes += n;
            r.written += n;
            idle.moved();
            report(c, r.written);
            continue;
        }
        if (n == 0) {
            if (r.bytes < size)
                r.end = MoveEnd::source_failed;
            break;
        }
        int err = errno;
        if (err == EINTR)
            continue;
        if (is_wakeup(err)) {
            if (idle.give_up(r.end))
                break;
            continue;
        }
        if ((err == EINVAL || err == ENOSYS) && r.bytes == 0) {
            // A file system without sendfile support: the plain loop does it.
            if (cork)
                set_cork(sock, 0);
            return send_by_reading(file_fd, sock, size, c);
        }
        r.end = is_peer_error(err) ? MoveEnd::peer_failed : MoveEnd::source_failed;
        break;
    }
    if (cork)
        set_cork(sock, 0); // pushes the last partial segment out
    return r;
}

// A pipe of `size` bytes (as large as the system grants), both ends closed with the object.
struct Pipe {
    int rd = -1, wr = -1;
    explicit Pipe(int size) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) == 0) {
            rd = fds[0];
            wr = fds[1];
            ::fcntl(wr, F_SETPIPE_SZ, size);
        }
    }
    ~Pipe() {
        if (rd >= 0)
            ::close(rd);
        if (wr >= 0)
            ::close(wr);
    }
    bool ok() const { return rd >= 0; }
};

constexpr int kPipeSize = 1 << 20;

MoveResult send_by_splice(int file_fd, int sock, long long size, const MoveControl& c) {
    Pipe pipe(kPipeSize);
    if (!pipe.ok())
        return send_by_reading(file_fd, sock, size, c);
    MoveResult r;
    IdleClock idle(c);
    for (;;) {
        if (stop_now(c)) {
            r.end = MoveEnd::stopped;
            return r;
        }
        ssize_t n = ::splice(file_fd, nullptr, pipe.wr, nullptr, kPipeSize, SPLICE_F_MOVE);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && r.bytes == 0 && (errno == EINVAL || errno == ENOSYS))
            return send_by_reading(file_fd, sock, size, c);
        if (n < 0) {
            r.end = MoveEnd::source_failed;
            return r;
        }
        if (n == 0)
            break;
        r.bytes += n;
        unsigned more = r.bytes < size ? SPLICE_F_MORE : 0;
        for (ssize_t left = n; left > 0;) {
            if (stop_now(c)) {
                r.end = MoveEnd::stopped;
                return r;
            }
            ssize_t m = ::splice(pipe.rd, nullptr, sock, nullptr, static_cast<size_t>(left),
                                 SPLICE_F_MOVE | more);
            if (m > 0) {
                left -= m;
                r.written += m;
                idle.moved();
                continue;
            }
            int err = m < 0 ? errno : 0;
            if (err == EINTR)
                continue;
            if (is_wakeup(err)) {
                if (!idle.give_up(r.end))
                    continue;
                return r;
            }
            r.end = MoveEnd::peer_failed;
            return r;
        }
        report(c, r.written);
    }
    if (r.bytes < size)
        r.end = MoveEnd::source_failed;
    return r;
}

// ---- Uploads ----

constexpr size_t kReceiveBlock = 256 * 1024;
// Write-behind: every this many bytes the range just written is handed to the disk, and the
// one before it is waited for, so dirty pages never pile up behind a fast client.
constexpr long long kWriteBehindStep = 8 << 20;

// The bytes that went to the file; fewer than `size` after a write error.
long long write_all(int fd, const char* p, size_t size) {
    long long done = 0;
    while (done < static_cast<long long>(size)) {
        ssize_t n = ::write(fd, p + done, size - static_cast<size_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += n;
    }
    return done;
}

class WriteBehind {
  public:
    WriteBehind(int fd, bool on) : fd_(fd), on_(on) {
        off_t at = on ? ::lseek(fd, 0, SEEK_CUR) : 0;
        start_ = at < 0 ? 0 : at;
        flushed_ = start_;
    }
    void wrote(long long total) {
        if (!on_)
            return;
        long long end = start_ + total;
        if (end - flushed_ < kWriteBehindStep)
            return;
        ::sync_file_range(fd_, flushed_, end - flushed_, SYNC_FILE_RANGE_WRITE);
        if (flushed_ - kWriteBehindStep >= start_)
            ::sync_file_range(fd_, flushed_ - kWriteBehindStep, kWriteBehindStep,
                              SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                                  SYNC_FILE_RANGE_WAIT_AFTER);
        flushed_ = end;
    }

  private:
    int fd_;
    bool on_;
    long long start_ = 0;
    long long flushed_ = 0;
};

MoveResult receive_by_recv(int sock, int file_fd, const MoveControl& c, bool write_behind) {
    MoveResult r;
    TransferBuffer block(kReceiveBlock);
    if (block.size() == 0) {
        r.end = MoveEnd::sink_failed; // nothing could be stored: never pass for done
        return r;
    }
    IdleClock idle(c);
    WriteBehind behind(file_fd, write_behind);
    for (;;) {
        if (stop_now(c)) {
            r.end = MoveEnd::stopped;
            return r;
        }
        ssize_t n = ::recv(sock, block.data(), block.size(), 0);
        if (n > 0) {
            r.bytes += n;
            idle.moved();
            long long done = write_all(file_fd, block.data(), static_cast<size_t>(n));
            r.written += done;
            if (done < n) {
                r.end = MoveEnd::sink_failed;
                return r;
            }
            behind.wrote(r.written);
            report(c, r.written);
            continue;
        }
        if (n == 0)
            return r;
        if (errno == EINTR)
            continue;
        if (is_wakeup(errno)) {
            if (idle.give_up(r.end))
                return r;
            continue;
        }
        r.end = MoveEnd::peer_failed;
        return r;
    }
}

// Direct I/O: full aligned blocks go from the buffer to the disk without a copy into the
// page cache; the last, partial block is written through the page cache. Where the file system
// refuses direct I/O, everything goes through the page cache.
constexpr size_t kDirectBlock = 1 << 20;

MoveResult receive_direct(int sock, int file_fd, const MoveControl& c) {
    int flags = ::fcntl(file_fd, F_GETFL);
    if (flags < 0 || ::fcntl(file_fd, F_SETFL, flags | O_DIRECT) != 0)
        return receive_by_recv(sock, file_fd, c, false);
    MoveResult r;
    TransferBuffer block(kDirectBlock); // page-aligned, as direct I/O needs
    if (block.size() == 0) {
        r.end = MoveEnd::sink_failed;
        return r;
    }
    bool direct = true;
    IdleClock idle(c);
    size_t filled = 0;
    bool at_end = false;
    while (!at_end) {
        if (stop_now(c)) {
            r.end = MoveEnd::stopped;
            return r;
        }
        ssize_t n = ::recv(sock, block.data() + filled, block.size() - filled, 0);
        if (n > 0) {
            r.bytes += n;
            filled += static_cast<size_t>(n);
            idle.moved();
        } else if (n == 0) {
            at_end = true;
        } else if (errno == EINTR) {
            continue;
        } else if (is_wakeup(errno)) {
            if (idle.give_up(r.end))
                return r;
            continue;
        } else {
            r.end = MoveEnd::peer_failed;
            return r;
        }
        if (filled < block.size() && !at_end)
            continue;
        if (direct && (filled % 4096 != 0)) {
            ::fcntl(file_fd, F_SETFL, flags); // the tail goes through the page cache
            direct = false;
        }
        long long done = write_all(file_fd, block.data(), filled);
        if (done < static_cast<long long>(filled) && direct && errno == EINVAL) {
            ::fcntl(file_fd, F_SETFL, flags);
            direct = false;
            done += write_all(file_fd, block.data() + done, filled - static_cast<size_t>(done));
        }
        r.written += done;
        if (done < static_cast<long long>(filled)) {
            r.end = MoveEnd::sink_failed;
            return r;
        }
        filled = 0;
        report(c, r.written);
    }
    if (direct)
        ::fcntl(file_fd, F_SETFL, flags);
    return r;
}

MoveResult receive_by_splice(int sock, int file_fd, const MoveControl& c) {
    Pipe pipe(kPipeSize);
    if (!pipe.ok())
        return receive_by_recv(sock, file_fd, c, false);
    MoveResult r;
    IdleClock idle(c);
    for (;;) {
        if (stop_now(c)) {
            r.end = MoveEnd::stopped;
            return r;
        }
        ssize_t n = ::splice(sock, nullptr, pipe.wr, nullptr, kPipeSize, SPLICE_F_MOVE);
        if (n == 0)
            return r;
        if (n < 0) {
            int err = errno;
            if (err == EINTR)
                continue;
            if (is_wakeup(err)) {
                if (idle.give_up(r.end))
                    return r;
                continue;
            }
            if (r.bytes == 0 && (err == EINVAL || err == ENOSYS))
                return receive_by_recv(sock, file_fd, c, false);
            r.end = MoveEnd::peer_failed;
            return r;
        }
        r.bytes += n;
        idle.moved();
        for (ssize_t left = n; left > 0;) {
            ssize_t m = ::splice(pipe.rd, nullptr, file_fd, nullptr, static_cast<size_t>(left),
                                 SPLICE_F_MOVE);
            if (m < 0 && errno == EINTR)
                continue;
            if (m <= 0) {
                r.end = MoveEnd::sink_failed;
                return r;
            }
            left -= m;
            r.written += m;
        }
        report(c, r.written);
    }
}

// The benchmark compares the ways on the built server: ORVANE_SEND_METHOD (read_send,
// sendfile_cork, sendfile_plain, splice_pipe) and ORVANE_RECEIVE_METHOD (recv_write,
// recv_write_behind, splice_pipe, recv_direct) replace the automatic choice. Read once.
int method_override(const char* variable, std::initializer_list<const char*> names) {
    const char* value = std::getenv(variable);
    if (!value)
        return 0;
    int i = 1;
    for (const char* name : names) {
        if (std::strcmp(value, name) == 0)
            return i;
        ++i;
    }
    return 0;
}

SendMethod chosen_send() {
    static const int i = method_override(
        "ORVANE_SEND_METHOD", {"read_send", "sendfile_cork", "sendfile_plain", "splice_pipe"});
    return static_cast<SendMethod>(i);
}

ReceiveMethod chosen_receive() {
    static const int i = method_override(
        "ORVANE_RECEIVE_METHOD", {"recv_write", "recv_write_behind", "splice_pipe", "recv_direct"});
    return static_cast<ReceiveMethod>(i);
}

} // namespace

MoveResult send_file_to_socket(int file_fd, int sock_fd, long long size, const MoveControl& control,
                               SendMethod method) {
    set_wakeups(sock_fd);
    if (method == SendMethod::automatic)
        method = chosen_send();
    switch (method) {
    case SendMethod::read_send:
        return send_by_reading(file_fd, sock_fd, size, control);
    case SendMethod::sendfile_cork:
        return send_by_sendfile(file_fd, sock_fd, size, control, true);
    case SendMethod::splice_pipe:
        return send_by_splice(file_fd, sock_fd, size, control);
    case SendMethod::sendfile_plain:
    case SendMethod::automatic:
        break;
    }
    // sendfile() in large pieces: the least CPU per GiB of the four ways, for one download and
    // for 32 at once, with no copy through user space; corking it only adds the cost of the
    // extra socket option calls (figures in bench/README.md).
    return send_by_sendfile(file_fd, sock_fd, size, control, false);
}

MoveResult receive_socket_to_file(int sock_fd, int file_fd, const MoveControl& control,
                                  ReceiveMethod method) {
    set_wakeups(sock_fd);
    if (method == ReceiveMethod::automatic)
        method = chosen_receive();
    // Direct I/O in 1 MiB blocks: on this kind of machine most of an upload's CPU time is the
    // copy into the page cache (three quarters of it in a profile); without it an upload took
    // a quarter to a third of the CPU per GiB of 256 KiB receives and buffered writes, at a
    // higher rate. A splice through a pipe cost more, write-behind made no difference that
    // stood out of the noise. A file system without direct I/O gets buffered writes.
    switch (method) {
    case ReceiveMethod::recv_write_behind:
        return receive_by_recv(sock_fd, file_fd, control, true);
    case ReceiveMethod::splice_pipe:
        return receive_by_splice(sock_fd, file_fd, control);
    case ReceiveMethod::recv_write:
        break;
    case ReceiveMethod::recv_direct:
    case ReceiveMethod::automatic:
        return receive_direct(sock_fd, file_fd, control);
    }
    return receive_by_recv(sock_fd, file_fd, control, false);
}

// ---- Copies between files ----

MoveResult copy_file_to_file(int in_fd, int out_fd, const MoveControl& control) {
    constexpr size_t kCopyChunk = 8 << 20;
    MoveResult r;
    std::vector<char> buffer; // only where the kernel cannot copy between these files
    for (;;) {
        if (stop_now(control)) {
            r.end = MoveEnd::stopped;
            return r;
        }
        ssize_t n = -1;
        if (buffer.empty()) {
            n = ::copy_file_range(in_fd, nullptr, out_fd, nullptr, kCopyChunk, 0);
            if (n < 0 &&
                (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP))
                buffer.resize(1 << 20);
        }
        if (!buffer.empty()) {
            n = ::read(in_fd, buffer.data(), buffer.size());
            if (n > 0) {
                r.bytes += n;
                long long done = write_all(out_fd, buffer.data(), static_cast<size_t>(n));
                r.written += done;
                if (done < n) {
                    r.end = MoveEnd::sink_failed;
                    return r;
                }
                report(control, r.written);
                continue;
            }
        } else if (n > 0) {
            r.bytes += n;
            r.written += n;
            report(control, r.written);
            continue;
        }
        if (n == 0)
            return r;
        if (errno != EINTR) {
            bool full = errno == ENOSPC || errno == EFBIG || errno == EDQUOT;
            r.end = full ? MoveEnd::sink_failed : MoveEnd::source_failed;
            return r;
        }
    }
}

} // namespace orv
