// Load client for the FTP comparisons (ftp_bench.py drives it). It speaks FTP to any server on
// 127.0.0.1, so the same workloads run against every server, and it is kept cheap so that it is
// not what a figure measures: downloads are read in 1 MiB calls (one copy to user space, as any
// client makes), uploads send the source's first MiB over and over, and every client is a thread
// of its own doing blocking calls.
//
//   ftp_load PORT USER PASSWORD MODE [ARGS...]
//     retr FILE SIZE RUNS          download FILE RUNS times, one after the other
//     stor SOURCE NAME RUNS DIR    upload SOURCE as NAME.<run>; DIR/NAME.<run> (the server's
//                                  side) is deleted after each run, so that the dirty pages of
//                                  one run do not slow the next
//     par DIR PREFIX CLIENTS SIZE RUNS  CLIENTS sessions in DIR download PREFIX<nn> at once
//     logins CLIENTS SECONDS       connect+USER+PASS+QUIT in a loop on CLIENTS threads
//     list DIR RUNS                LIST DIR, RUNS times
//     idle SESSIONS                hold SESSIONS logged-in sessions until a line on stdin
//
// The environment chooses how the data connections are made and protected:
//   FTP_LOAD_PASSIVE=1   EPSV and a connection to the server's port (default: PORT, the server
//                        connects to the client)
//   FTP_LOAD_TLS=1       AUTH TLS, PBSZ 0 and PROT P: control and data connections under TLS,
//                        every data connection resuming the control connection's TLS session
//   FTP_LOAD_TLS_VERSION 1.2 or 1.3 (default 1.2); FTP_LOAD_CIPHERS pins the cipher (an
//                        OpenSSL cipher list for 1.2, a ciphersuite name for 1.3)
//
// With FTP_LOAD_SYNC=1 in the environment, retr, stor, par and list print "ready" once their
// sessions are logged in and wait for a line on stdin before the work starts, so that the
// driver can leave the logins out of the server's CPU time.
//
// Results go to standard output as "key value" lines; errors to standard error and exit 1.
// Every wait has a time-out.
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWaitSeconds = 60;

struct Failure {
    std::string what;
};

[[noreturn]] void fail(const std::string& what) {
    throw Failure{what + (errno ? std::string(": ") + std::strerror(errno) : std::string())};
}

double seconds_since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

void set_timeouts(int fd) {
    timeval tv{kWaitSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

sockaddr_in loopback(int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    return sa;
}

class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) {
            reset();
            fd_ = o.fd_;
            o.fd_ = -1;
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

// How the data connections are made and protected, read once from the environment.
struct Options {
    bool passive = false;
    bool tls = false;
};

bool env_on(const char* name) {
    const char* v = std::getenv(name);
    return v && std::strcmp(v, "1") == 0;
}

const Options& options() {
    static const Options o{env_on("FTP_LOAD_PASSIVE"), env_on("FTP_LOAD_TLS")};
    return o;
}

std::string ssl_errors() {
    std::string text;
    while (unsigned long e = ::ERR_get_error()) {
        char buf[256];
        ::ERR_error_string_n(e, buf, sizeof buf);
        text += text.empty() ? "" : "; ";
        text += buf;
    }
    return text;
}

// The one TLS client context. Certificates are not checked: every server runs on loopback with
// the same self-signed certificate, and the figure is about the transfer, not the trust.
SSL_CTX* tls_context() {
    static SSL_CTX* ctx = [] {
        SSL_CTX* c = ::SSL_CTX_new(::TLS_client_method());
        if (!c)
            fail("TLS context: " + ssl_errors());
        const char* version = std::getenv("FTP_LOAD_TLS_VERSION");
        int v = version && std::strcmp(version, "1.3") == 0 ? TLS1_3_VERSION : TLS1_2_VERSION;
        ::SSL_CTX_set_min_proto_version(c, v);
        ::SSL_CTX_set_max_proto_version(c, v);
        if (const char* ciphers = std::getenv("FTP_LOAD_CIPHERS")) {
            int ok = v == TLS1_3_VERSION ? ::SSL_CTX_set_ciphersuites(c, ciphers)
                                         : ::SSL_CTX_set_cipher_list(c, ciphers);
            if (!ok)
                fail(std::string("cipher ") + ciphers + ": " + ssl_errors());
        }
        ::SSL_CTX_set_verify(c, SSL_VERIFY_NONE, nullptr);
        ::SSL_CTX_set_mode(c, SSL_MODE_AUTO_RETRY);
        return c;
    }();
    return ctx;
}

struct SslFree {
    void operator()(SSL* s) const { ::SSL_free(s); }
};
struct SessionFree {
    void operator()(SSL_SESSION* s) const { ::SSL_SESSION_free(s); }
};
using Session = std::unique_ptr<SSL_SESSION, SessionFree>;

// A connected socket, in the clear or under TLS once `start_tls` has run.
class Stream {
  public:
    explicit Stream(Fd fd) : fd_(std::move(fd)) {}

    // The client's side of the TLS handshake; `resume` is the session a data connection must
    // take over from its control connection.
    void start_tls(SSL_SESSION* resume) {
        ssl_.reset(::SSL_new(tls_context()));
        if (!ssl_ || ::SSL_set_fd(ssl_.get(), fd_.get()) != 1)
            fail("TLS setup: " + ssl_errors());
        if (resume)
            ::SSL_set_session(ssl_.get(), resume);
        if (::SSL_connect(ssl_.get()) != 1)
            fail("TLS handshake: " + ssl_errors());
        if (resume && !::SSL_session_reused(ssl_.get())) {
            errno = 0;
            fail("the data connection's TLS session was not resumed");
        }
    }

    Session session() const { return Session(ssl_ ? ::SSL_get1_session(ssl_.get()) : nullptr); }

    // Up to `size` bytes; 0 at the end of the stream (a TLS peer that closes without its
    // close_notify ends the stream as well: the byte count tells whether all came).
    size_t read_some(char* p, size_t size, const char* what) {
        for (;;) {
            if (ssl_) {
                errno = 0;
                int n =
                    ::SSL_read(ssl_.get(), p, static_cast<int>(std::min<size_t>(size, 1 << 30)));
                if (n > 0)
                    return static_cast<size_t>(n);
                int e = ::SSL_get_error(ssl_.get(), n);
                if (e == SSL_ERROR_ZERO_RETURN || (e == SSL_ERROR_SYSCALL && errno == 0))
                    return 0;
                fail(std::string("TLS receive on the ") + what + ": " + ssl_errors());
            }
            ssize_t n = ::recv(fd_.get(), p, size, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                fail(std::string("receive on the ") + what);
            return static_cast<size_t>(n);
        }
    }

    void write_all(const char* p, size_t size, bool more, const char* what) {
        while (size > 0) {
            ssize_t n;
            if (ssl_) {
                n = ::SSL_write(ssl_.get(), p, static_cast<int>(std::min<size_t>(size, 1 << 30)));
                if (n <= 0)
                    fail(std::string("TLS send on the ") + what + ": " + ssl_errors());
            } else {
                n = ::send(fd_.get(), p, size, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
                if (n < 0 && errno == EINTR)
                    continue;
                if (n <= 0)
                    fail(std::string("send on the ") + what);
            }
            p += n;
            size -= static_cast<size_t>(n);
        }
    }

    // Ends the stream: under TLS with a close_notify, so that an upload's end is a clean one.
    void close() {
        if (ssl_ && fd_.get() >= 0)
            ::SSL_shutdown(ssl_.get());
        ssl_.reset();
        fd_.reset();
    }

    ~Stream() { close(); }
    Stream(Stream&&) = default;
    Stream& operator=(Stream&&) = default;

  private:
    Fd fd_;
    std::unique_ptr<SSL, SslFree> ssl_;
};

Fd connect_to(const sockaddr_in& sa, const char* what) {
    Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        fail("socket");
    set_timeouts(fd.get());
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0)
        fail(std::string("connect to the ") + what);
    return fd;
}

Fd control_socket(int port) {
    Fd fd = connect_to(loopback(port), "server");
    int one = 1;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// One control connection with its own small read buffer; under TLS from AUTH TLS on when the
// options ask for it.
class Control {
  public:
    explicit Control(int port) : stream_(control_socket(port)) {
        expect(220, "greeting");
        if (options().tls) {
            send_line("AUTH TLS");
            expect(234, "AUTH TLS");
            stream_.start_tls(nullptr);
        }
    }

    void send_line(const std::string& line) {
        std::string text = line + "\r\n";
        stream_.write_all(text.data(), text.size(), false, "control connection");
    }

    // The code of the next complete reply (multi-line replies end with "ddd ").
    int reply() {
        for (;;) {
            std::string line = next_line();
            if (line.size() >= 4 && std::isdigit(static_cast<unsigned char>(line[0])) &&
                std::isdigit(static_cast<unsigned char>(line[1])) &&
                std::isdigit(static_cast<unsigned char>(line[2])) && line[3] == ' ') {
                last_ = line;
                return std::atoi(line.substr(0, 3).c_str());
            }
        }
    }

    void expect(int code, const char* what) {
        int got = reply();
        if (got != code) {
            errno = 0;
            fail(std::string(what) + ": expected " + std::to_string(code) + ", got \"" + last_ +
                 "\"");
        }
    }

    void login(const std::string& user, const std::string& password) {
        send_line("USER " + user);
        expect(331, "USER");
        send_line("PASS " + password);
        expect(230, "PASS");
        if (options().tls) {
            send_line("PBSZ 0");
            expect(200, "PBSZ");
            send_line("PROT P");
            expect(200, "PROT P");
        }
    }

    // Waits for the server to close after QUIT, so that a session is over when this returns.
    void quit() {
        send_line("QUIT");
        expect(221, "QUIT");
        char sink[512];
        try {
            while (stream_.read_some(sink, sizeof sink, "control connection") > 0) {
            }
        } catch (const Failure&) {
            // A TLS server may simply close after its 221; the session is over either way.
        }
    }

    // The TLS session a data connection resumes (none in the clear). Taken after the login, by
    // when the server's session tickets have been read.
    Session tls_session() const { return stream_.session(); }

    const std::string& last() const { return last_; }

  private:
    std::string next_line() {
        for (;;) {
            size_t end = buffer_.find("\r\n");
            if (end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 2);
                return line;
            }
            char chunk[4096];
            size_t n = stream_.read_some(chunk, sizeof chunk, "control connection");
            if (n == 0) {
                errno = 0;
                fail("control connection ended while waiting for a reply (last \"" + last_ +
                     "\", pending \"" + buffer_ + "\")");
            }
            buffer_.append(chunk, n);
        }
    }

    Stream stream_;
    std::string buffer_;
    std::string last_;
};

// The client's side of an active-mode data connection: a listener whose address goes out in
// PORT, accepted once the server connects.
class DataListener {
  public:
    DataListener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (fd_.get() < 0)
            fail("data socket");
        sockaddr_in sa = loopback(0);
        if (::bind(fd_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
            ::listen(fd_.get(), 1) != 0)
            fail("data listener");
        socklen_t len = sizeof sa;
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&sa), &len);
        port_ = ntohs(sa.sin_port);
    }

    std::string port_command() const {
        return "PORT 127,0,0,1," + std::to_string(port_ / 256) + "," + std::to_string(port_ % 256);
    }

    Fd accept_one() {
        pollfd p{fd_.get(), POLLIN, 0};
        int r;
        do {
            r = ::poll(&p, 1, kWaitSeconds * 1000);
        } while (r < 0 && errno == EINTR);
        if (r <= 0) {
            errno = r == 0 ? ETIMEDOUT : errno;
            fail("waiting for the data connection");
        }
        Fd data(::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (data.get() < 0)
            fail("accept of the data connection");
        set_timeouts(data.get());
        return data;
    }

  private:
    Fd fd_;
    int port_ = 0;
};

// The port of a "229 Entering Extended Passive Mode (|||port|)" reply; 0 if there is none.
int epsv_port(const std::string& reply) {
    size_t open = reply.find("(|||");
    if (open == std::string::npos)
        return 0;
    int port = std::atoi(reply.c_str() + open + 4);
    return port > 0 && port < 65536 ? port : 0;
}

// Reads a data connection to its end. The bytes are copied into user space, as every real
// client does (the copy is part of what a loopback download costs); the buffer is large, so
// that the client makes few calls.
long long drain(Stream& data) {
    static thread_local std::vector<char> block(1 << 20);
    long long total = 0;
    while (size_t n = data.read_some(block.data(), block.size(), "data connection"))
        total += static_cast<long long>(n);
    return total;
}

// Reads a listing, counting its lines.
long long read_counting_lines(Stream& data, long long& lines) {
    std::vector<char> block(1 << 16);
    long long total = 0;
    while (size_t n = data.read_some(block.data(), block.size(), "data connection")) {
        lines += std::count(block.data(), block.data() + n, '\n');
        total += static_cast<long long>(n);
    }
    return total;
}

struct Target {
    int port;
    std::string user;
    std::string password;
};

std::unique_ptr<Control> session(const Target& t) {
    auto c = std::make_unique<Control>(t.port);
    c->login(t.user, t.password);
    c->send_line("TYPE I");
    c->expect(200, "TYPE I");
    return c;
}

// `command` (RETR, STOR or LIST with its argument) with a data connection made the way the
// options say; returns it once the server's 150 (or 125) is in, under TLS when asked.
Stream open_data(Control& c, const std::string& command) {
    Fd fd;
    std::unique_ptr<DataListener> listener;
    if (options().passive) {
        c.send_line("EPSV");
        c.expect(229, "EPSV");
        int port = epsv_port(c.last());
        if (port == 0) {
            errno = 0;
            fail("EPSV reply without a port: \"" + c.last() + "\"");
        }
        // Connected before the command, as clients do; the server accepts it meanwhile.
        fd = connect_to(loopback(port), "passive data port");
    } else {
        listener = std::make_unique<DataListener>();
        c.send_line(listener->port_command());
        c.expect(200, "PORT");
    }
    c.send_line(command);
    int code = c.reply();
    if (code != 150 && code != 125) {
        errno = 0;
        fail(command + ": \"" + c.last() + "\"");
    }
    if (listener)
        fd = listener->accept_one();
    Stream data(std::move(fd));
    if (options().tls)
        data.start_tls(c.tls_session().get());
    return data;
}

// One download; returns the bytes received. The time ends when both the data and the 226 are
// in.
long long download(Control& c, const std::string& file) {
    Stream data = open_data(c, "RETR " + file);
    long long bytes = drain(data);
    data.close(); // some servers wait for the client's close before their 226
    c.expect(226, "end of RETR");
    return bytes;
}

void upload(Control& c, const std::string& source, const std::string& name, long long& bytes) {
    Fd file(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (file.get() < 0 || ::fstat(file.get(), &st) != 0)
        fail("open " + source);
    Stream data = open_data(c, "STOR " + name);
    // The source's first MiB, sent over and over with MSG_MORE until the source's size has gone.
    // On loopback the sender pays for most of a stream: with a read of the file per block the
    // client would be the bottleneck of an upload (the read copy was a third of its CPU time),
    // and with sendfile the receiving server pays half again as much per byte.
    static thread_local std::vector<char> block(1 << 20);
    ssize_t filled = ::pread(file.get(), block.data(), block.size(), 0);
    if (filled <= 0 && st.st_size > 0)
        fail("read " + source);
    bytes = 0;
    while (bytes < st.st_size) {
        ssize_t n = static_cast<ssize_t>(std::min<long long>(filled, st.st_size - bytes));
        bytes += n;
        data.write_all(block.data(), static_cast<size_t>(n), bytes < st.st_size, "data connection");
    }
    data.close();
    c.expect(226, "end of STOR");
}

void print(const char* key, double value) {
    std::printf("%s %.6f\n", key, value);
    std::fflush(stdout);
}

// See FTP_LOAD_SYNC above.
void ready() {
    const char* sync = std::getenv("FTP_LOAD_SYNC");
    if (!sync || std::strcmp(sync, "1") != 0)
        return;
    std::printf("ready\n");
    std::fflush(stdout);
    std::string line;
    std::getline(std::cin, line);
}

int run_retr(const Target& t, const std::string& file, long long size, int runs) {
    auto c = session(t);
    ready();
    for (int i = 0; i < runs; ++i) {
        auto start = Clock::now();
        long long bytes = download(*c, file);
        double s = seconds_since(start);
        if (bytes != size) {
            errno = 0;
            fail("RETR moved " + std::to_string(bytes) + " bytes, not " + std::to_string(size));
        }
        print("retr_mbps", static_cast<double>(bytes) / 1e6 / s);
    }
    c->quit();
    return 0;
}

int run_stor(const Target& t, const std::string& source, const std::string& name, int runs,
             const std::string& dir) {
    auto c = session(t);
    ready();
    for (int i = 0; i < runs; ++i) {
        long long bytes = 0;
        std::string stored = name + "." + std::to_string(i);
        auto start = Clock::now();
        upload(*c, source, stored, bytes);
        print("stor_mbps", static_cast<double>(bytes) / 1e6 / seconds_since(start));
        ::unlink((dir + "/" + stored).c_str());
    }
    c->quit();
    return 0;
}

// A start line for several threads. The time it opens is taken by the last thread to arrive,
// under the lock, so that a timer thread scheduled late cannot shorten a measurement.
class Gate {
  public:
    explicit Gate(int parties) : waiting_(parties) {}
    void arrive_and_wait() {
        std::unique_lock lock(m_);
        if (--waiting_ == 0) {
            opened_ = Clock::now();
            cv_.notify_all();
        } else {
            cv_.wait_for(lock, std::chrono::seconds(kWaitSeconds), [&] { return waiting_ <= 0; });
        }
    }
    Clock::time_point opened() {
        std::lock_guard lock(m_);
        return opened_;
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    int waiting_;
    Clock::time_point opened_;
};

// Runs `body(i)` on `n` threads and rethrows the first failure.
template <class Body> void on_threads(int n, Body body) {
    std::vector<std::thread> threads;
    std::mutex m;
    std::string first_error;
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&, i] {
            try {
                body(i);
            } catch (const Failure& f) {
                std::lock_guard lock(m);
                if (first_error.empty())
                    first_error = f.what;
            }
        });
    for (auto& th : threads)
        th.join();
    if (!first_error.empty()) {
        errno = 0;
        fail(first_error);
    }
}

std::string numbered(const std::string& prefix, int i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02d", i);
    return prefix + buf;
}

int run_par(const Target& t, const std::string& dir, const std::string& prefix, int clients,
            long long size, int runs) {
    std::vector<std::unique_ptr<Control>> sessions(static_cast<size_t>(clients));
    on_threads(clients, [&](int i) {
        auto c = session(t);
        c->send_line("CWD " + dir);
        c->expect(250, "CWD");
        sessions[static_cast<size_t>(i)] = std::move(c);
    });
    ready();
    for (int r = 0; r < runs; ++r) {
        Gate gate(clients);
        std::atomic<long long> total{0};
        on_threads(clients, [&](int i) {
            gate.arrive_and_wait();
            long long bytes = download(*sessions[static_cast<size_t>(i)], numbered(prefix, i));
            if (bytes != size) {
                errno = 0;
                fail("parallel RETR moved " + std::to_string(bytes) + " bytes");
            }
            total += bytes;
        });
        print("par_mbps", static_cast<double>(total.load()) / 1e6 / seconds_since(gate.opened()));
    }
    on_threads(clients, [&](int i) { sessions[static_cast<size_t>(i)]->quit(); });
    return 0;
}

int run_logins(const Target& t, int clients, double seconds) {
    std::atomic<long> done{0};
    std::atomic<bool> over{false};
    auto start = Clock::now();
    std::thread clock([&] {
        while (seconds_since(start) < seconds)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        over = true;
    });
    try {
        on_threads(clients, [&](int) {
            while (!over) {
                Control c(t.port);
                c.login(t.user, t.password);
                c.quit();
                ++done;
            }
        });
    } catch (...) {
        over = true;
        clock.join();
        throw;
    }
    double elapsed = seconds_since(start);
    clock.join();
    print("logins_per_s", static_cast<double>(done.load()) / elapsed);
    return 0;
}

int run_list(const Target& t, const std::string& dir, int runs) {
    auto c = session(t);
    ready();
    for (int i = 0; i < runs; ++i) {
        auto start = Clock::now();
        Stream data = open_data(*c, "LIST " + dir);
        long long lines = 0;
        read_counting_lines(data, lines);
        data.close();
        c->expect(226, "end of LIST");
        print("list_ms", seconds_since(start) * 1000.0);
        print("list_lines", static_cast<double>(lines));
    }
    c->quit();
    return 0;
}

int run_idle(const Target& t, int count) {
    rlimit rl{};
    if (::getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &rl);
    }
    constexpr int kOpeners = 8;
    std::vector<std::unique_ptr<Control>> sessions(static_cast<size_t>(count));
    auto start = Clock::now();
    on_threads(kOpeners, [&](int k) {
        for (int i = k; i < count; i += kOpeners) {
            auto c = std::make_unique<Control>(t.port);
            c->login(t.user, t.password);
            sessions[static_cast<size_t>(i)] = std::move(c);
        }
    });
    print("idle_sessions", count);
    print("idle_open_seconds", seconds_since(start));
    // Held until the driver has measured the server.
    std::string line;
    std::getline(std::cin, line);
    return 0;
}

int usage() {
    std::fprintf(stderr, "usage: ftp_load PORT USER PASSWORD MODE [ARGS...] (see the source)\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> a(argv + 1, argv + argc);
    if (a.size() < 4)
        return usage();
    Target t{std::atoi(a[0].c_str()), a[1], a[2]};
    const std::string& mode = a[3];
    auto arg = [&](size_t i) { return i + 4 < a.size() ? a[i + 4] : std::string(); };
    auto num = [&](size_t i) { return std::atoll(arg(i).c_str()); };
    // The client's own CPU time, so that a report can show where the client is what limits a
    // figure.
    struct ReportCpu {
        ~ReportCpu() {
            rusage ru{};
            ::getrusage(RUSAGE_SELF, &ru);
            print("client_cpu_seconds",
                  static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                      static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6);
        }
    } report_cpu;
    try {
        if (mode == "retr" && a.size() == 7)
            return run_retr(t, arg(0), num(1), static_cast<int>(num(2)));
        if (mode == "stor" && a.size() == 8)
            return run_stor(t, arg(0), arg(1), static_cast<int>(num(2)), arg(3));
        if (mode == "par" && a.size() == 9)
            return run_par(t, arg(0), arg(1), static_cast<int>(num(2)), num(3),
                           static_cast<int>(num(4)));
        if (mode == "logins" && a.size() == 6)
            return run_logins(t, static_cast<int>(num(0)), std::atof(arg(1).c_str()));
        if (mode == "list" && a.size() == 6)
            return run_list(t, arg(0), static_cast<int>(num(1)));
        if (mode == "idle" && a.size() == 5)
            return run_idle(t, static_cast<int>(num(0)));
    } catch (const Failure& f) {
        std::fprintf(stderr, "ftp_load: %s\n", f.what.c_str());
        return 1;
    }
    return usage();
}
