#include "platform/tls.hpp"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace orv {

namespace {

using Clock = std::chrono::steady_clock;

// Forward-secret AEAD suites only: no RC4, 3DES, CBC, export-grade or anonymous ones.
constexpr const char* kCiphers12 = "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
                                   "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
                                   "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256";
constexpr const char* kCiphers13 =
    "TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256";
constexpr const char* kGroups = "X25519:P-256:P-384";
constexpr unsigned char kSessionContext[] = "orvane-ftp";
constexpr size_t kTokenSize = 16;
constexpr size_t kBlock = 256 * 1024;

std::string openssl_error(const char* fallback) {
    unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    if (code == 0)
        return fallback;
    const char* reason = ERR_reason_error_string(code);
    return reason ? reason : fallback;
}

// What each connection keeps for the tickets: its own mark, put into every ticket it is
// given, and the mark of the ticket it resumed, if any. So a later connection resuming a
// ticket can be traced to the connection that ticket was issued on (and to nobody else's).
struct TicketMarks {
    std::array<unsigned char, kTokenSize> own{};
    std::array<unsigned char, kTokenSize> resumed{};
    bool resumed_known = false;
};

int marks_index() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

int on_ticket_made(SSL* ssl, void*) {
    auto* marks = static_cast<const TicketMarks*>(SSL_get_ex_data(ssl, marks_index()));
    if (marks)
        SSL_SESSION_set1_ticket_appdata(SSL_get_session(ssl), marks->own.data(), kTokenSize);
    return 1;
}

SSL_TICKET_RETURN on_ticket_read(SSL* ssl, SSL_SESSION* session, const unsigned char*, size_t,
                                 SSL_TICKET_STATUS status, void*) {
    if (status == SSL_TICKET_SUCCESS || status == SSL_TICKET_SUCCESS_RENEW) {
        auto* marks = static_cast<TicketMarks*>(SSL_get_ex_data(ssl, marks_index()));
        void* data = nullptr;
        size_t length = 0;
        if (marks && SSL_SESSION_get0_ticket_appdata(session, &data, &length) == 1 &&
            length == kTokenSize) {
            std::memcpy(marks->resumed.data(), data, kTokenSize);
            marks->resumed_known = true;
        }
    }
    switch (status) {
    case SSL_TICKET_SUCCESS:
        return SSL_TICKET_RETURN_USE;
    case SSL_TICKET_SUCCESS_RENEW:
        return SSL_TICKET_RETURN_USE_RENEW;
    case SSL_TICKET_EMPTY:
    case SSL_TICKET_NO_DECRYPT:
        return SSL_TICKET_RETURN_IGNORE_RENEW;
    default:
        return SSL_TICKET_RETURN_ABORT;
    }
}

// Waits for the socket as OpenSSL asked; false when the time is up or the socket failed.
bool wait_for(int fd, int ssl_error, int ms) {
    pollfd p{fd, static_cast<short>(ssl_error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN), 0};
    int rc;
    do {
        rc = ::poll(&p, 1, ms);
    } while (rc < 0 && errno == EINTR);
    return rc > 0 && !(p.revents & POLLNVAL);
}

int ms_left(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<long long>(0, left.count()));
}

bool stop_asked(const std::function<bool()>& stop) {
    return stop && stop();
}

} // namespace

struct TlsContext::Impl {
    SSL_CTX* ctx = nullptr;
    ~Impl() { SSL_CTX_free(ctx); }
};

TlsContext::TlsContext() : impl_(std::make_unique<Impl>()) {}
TlsContext::~TlsContext() = default;

std::shared_ptr<TlsContext> TlsContext::create(const std::string& certificate_path,
                                               const std::string& key_path, std::string& error) {
    struct stat st {};
    if (::stat(key_path.c_str(), &st) != 0) {
        error = "cannot read the private key " + key_path + ": " + std::strerror(errno);
        return nullptr;
    }
    if (st.st_mode & (S_IROTH | S_IWOTH)) {
        error = "the private key " + key_path + " can be read by others (chmod 600 it)";
        return nullptr;
    }
    std::shared_ptr<TlsContext> out(new TlsContext());
    ERR_clear_error();
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx) {
        error = openssl_error("no TLS context");
        return nullptr;
    }
    out->impl_->ctx = ctx;
    uint64_t options = SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_RENEGOTIATION |
                       SSL_OP_NO_COMPRESSION | SSL_OP_IGNORE_UNEXPECTED_EOF;
#ifdef SSL_OP_ENABLE_KTLS
    options |= SSL_OP_ENABLE_KTLS;
#endif
    SSL_CTX_set_options(ctx, options);
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_cipher_list(ctx, kCiphers12) != 1 ||
        SSL_CTX_set_ciphersuites(ctx, kCiphers13) != 1 ||
        SSL_CTX_set1_groups_list(ctx, kGroups) != 1) {
        error = openssl_error("the cipher settings were refused");
        return nullptr;
    }
    if (SSL_CTX_use_certificate_chain_file(ctx, certificate_path.c_str()) != 1) {
        error = "cannot use the certificate " + certificate_path + ": " +
                openssl_error("not a PEM certificate");
        return nullptr;
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, key_path.c_str(), SSL_FILETYPE_PEM) != 1) {
        error = "cannot use the private key " + key_path + ": " + openssl_error("not a PEM key");
        return nullptr;
    }
    if (SSL_CTX_check_private_key(ctx) != 1) {
        error = "the private key " + key_path + " does not belong to the certificate";
        ERR_clear_error();
        return nullptr;
    }
    SSL_CTX_set_session_id_context(ctx, kSessionContext, sizeof kSessionContext - 1);
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_SERVER);
    SSL_CTX_set_session_ticket_cb(ctx, on_ticket_made, on_ticket_read, nullptr);
    return out;
}

bool kernel_tls_available() {
    static const bool available = [] {
        int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        bool ok = false;
        if (listener >= 0 && ::bind(listener, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
            ::listen(listener, 1) == 0 &&
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
            int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (client >= 0 &&
                ::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
                // The upper layer protocol "tls" is what OpenSSL hands the keys to.
                ok = ::setsockopt(client, SOL_TCP, TCP_ULP, "tls", 3) == 0;
            }
            if (client >= 0)
                ::close(client);
        }
        if (listener >= 0)
            ::close(listener);
        return ok;
    }();
    return available;
}

struct TlsStream::Impl {
    std::shared_ptr<TlsContext> context;
    SSL* ssl = nullptr;
    int fd = -1;
    // OpenSSL's connection object is not safe for concurrent use: the event thread reads,
    // command threads write.
    mutable std::mutex mutex;
    TicketMarks marks;
    std::string session_id; // of the first handshake, for resumption without tickets
    bool ktls_send = false;

    ~Impl() {
        SSL_free(ssl);
        if (fd >= 0)
            ::close(fd);
    }

    // One OpenSSL call under the lock: its result and SSL_get_error's verdict.
    template <class Call> int call(Call&& c, int& ssl_error) {
        std::lock_guard lock(mutex);
        ERR_clear_error();
        errno = 0; // SSL_ERROR_SYSCALL with errno 0 is an end of stream
        int r = c();
        ssl_error = r > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl, r);
        return r;
    }
};

TlsStream::TlsStream(std::shared_ptr<TlsContext> context, int fd)
    : impl_(std::make_unique<Impl>()) {
    impl_->context = std::move(context);
    impl_->fd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (impl_->fd < 0 || !impl_->context)
        return;
    int flags = ::fcntl(impl_->fd, F_GETFL);
    ::fcntl(impl_->fd, F_SETFL, flags | O_NONBLOCK);
    impl_->ssl = SSL_new(impl_->context->impl().ctx);
    if (!impl_->ssl)
        return;
    RAND_bytes(impl_->marks.own.data(), static_cast<int>(kTokenSize));
    SSL_set_ex_data(impl_->ssl, marks_index(), &impl_->marks);
    SSL_set_fd(impl_->ssl, impl_->fd);
}

TlsStream::~TlsStream() = default;

const std::shared_ptr<TlsContext>& TlsStream::context() const {
    return impl_->context;
}

void TlsStream::issue_no_tickets() {
    if (valid())
        SSL_set_num_tickets(impl_->ssl, 0);
}

bool TlsStream::valid() const {
    return impl_->ssl != nullptr;
}

bool TlsStream::handshake(int timeout_ms, std::string& error, const std::atomic<int>* stop) {
    if (!valid()) {
        error = "no TLS connection could be made";
        return false;
    }
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int ssl_error = 0;
        int r = impl_->call([&] { return SSL_accept(impl_->ssl); }, ssl_error);
        if (r == 1)
            break;
        if (ssl_error != SSL_ERROR_WANT_READ && ssl_error != SSL_ERROR_WANT_WRITE) {
            error = ssl_error == SSL_ERROR_SYSCALL || ssl_error == SSL_ERROR_ZERO_RETURN
                        ? std::string("the client closed the connection")
                        : openssl_error("protocol error");
            return false;
        }
        // Short waits, so that a stop request is seen soon.
        int left = ms_left(deadline);
        if (left == 0 || (stop && stop->load() != 0)) {
            error = left == 0 ? "time-out" : "stopped";
            return false;
        }
        wait_for(impl_->fd, ssl_error, std::min(left, 250));
    }
    std::lock_guard lock(impl_->mutex);
    unsigned int length = 0;
    const unsigned char* id = SSL_SESSION_get_id(SSL_get_session(impl_->ssl), &length);
    impl_->session_id.assign(reinterpret_cast<const char*>(id), length);
#if defined(SSL_OP_ENABLE_KTLS) && !defined(OPENSSL_NO_KTLS)
    impl_->ktls_send = BIO_get_ktls_send(SSL_get_wbio(impl_->ssl)) != 0;
#endif
    return true;
}

long TlsStream::receive(void* data, size_t size) {
    if (!valid()) {
        errno = EBADF;
        return -1;
    }
    int ssl_error = 0;
    int n = impl_->call(
        [&] {
            return SSL_read(impl_->ssl, data, static_cast<int>(std::min<size_t>(size, INT_MAX)));
        },
        ssl_error);
    if (n > 0)
        return n;
    switch (ssl_error) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        errno = EAGAIN;
        return -1;
    case SSL_ERROR_SYSCALL:
        if (errno == 0)
            return 0;
        return -1;
    default:
        // The peer's close_notify, or bytes that are not TLS: the stream is over either way.
        return 0;
    }
}

long TlsStream::send(const void* data, size_t size) {
    if (!valid()) {
        errno = EBADF;
        return -1;
    }
    if (size == 0)
        return 0;
    int ssl_error = 0;
    int n = impl_->call(
        [&] {
            return SSL_write(impl_->ssl, data, static_cast<int>(std::min<size_t>(size, INT_MAX)));
        },
        ssl_error);
    if (n > 0)
        return n;
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) {
        errno = EAGAIN;
        return -1;
    }
    if (ssl_error != SSL_ERROR_SYSCALL || errno == 0)
        errno = EPIPE;
    return -1;
}

bool TlsStream::pending() const {
    if (!valid())
        return false;
    std::lock_guard lock(impl_->mutex);
    return SSL_pending(impl_->ssl) > 0;
}

bool TlsStream::send_all(const void* data, size_t size, const std::atomic<int>* stop, int idle_ms) {
    const char* p = static_cast<const char*>(data);
    int idle = 0;
    while (size > 0) {
        if (stop && stop->load() != 0)
            return false;
        long n = send(p, size);
        if (n > 0) {
            p += n;
            size -= static_cast<size_t>(n);
            idle = 0;
            continue;
        }
        if (errno != EAGAIN || idle >= idle_ms)
            return false;
        wait_for(impl_->fd, SSL_ERROR_WANT_WRITE, 250);
        idle += 250;
    }
    return true;
}

void TlsStream::close_notify(int wait_ms) {
    if (!valid())
        return;
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
        int ssl_error = 0;
        int r = impl_->call([&] { return SSL_shutdown(impl_->ssl); }, ssl_error);
        if (r >= 0)
            break; // ours is sent; the peer's answer is not waited for
        if ((ssl_error != SSL_ERROR_WANT_WRITE && ssl_error != SSL_ERROR_WANT_READ) ||
            ms_left(deadline) == 0)
            return;
        wait_for(impl_->fd, ssl_error, std::min(ms_left(deadline), 250));
    }
    // Our side is done. Take in what the peer still sends (its own close_notify) until it
    // closes, so that closing with unread bytes never turns into a reset that could cost the
    // peer the end of the data it has not read yet.
    ::shutdown(impl_->fd, SHUT_WR);
    char sink[4096];
    while (ms_left(deadline) > 0) {
        if (!wait_for(impl_->fd, SSL_ERROR_WANT_READ, std::min(ms_left(deadline), 250)))
            continue;
        ssize_t n = ::recv(impl_->fd, sink, sizeof sink, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
            return;
    }
}

bool TlsStream::resumed_from(const TlsStream& control) const {
    if (!valid() || !control.valid())
        return false;
    std::lock_guard lock(impl_->mutex);
    if (!SSL_session_reused(impl_->ssl))
        return false;
    // A ticket issued on the control connection, or the one the control connection itself
    // resumed (a client may offer that again): either way only that client holds its secret.
    const TicketMarks& theirs = control.impl_->marks;
    if (impl_->marks.resumed_known)
        return impl_->marks.resumed == theirs.own ||
               (theirs.resumed_known && impl_->marks.resumed == theirs.resumed);
    // Resumed by session id (a client without tickets): the very session of the control
    // connection.
    unsigned int id_length = 0;
    const unsigned char* id = SSL_SESSION_get_id(SSL_get_session(impl_->ssl), &id_length);
    return id_length > 0 && !control.impl_->session_id.empty() &&
           control.impl_->session_id ==
               std::string_view(reinterpret_cast<const char*>(id), id_length);
}

std::string TlsStream::description() const {
    if (!valid())
        return {};
    std::lock_guard lock(impl_->mutex);
    return std::string(SSL_get_version(impl_->ssl)) + " " + SSL_get_cipher_name(impl_->ssl);
}

bool TlsStream::kernel_send() const {
    return impl_->ktls_send;
}

MoveResult TlsStream::send_file(int file_fd, long long size, const MoveControl& control) {
    MoveResult out;
    int idle = 0;
    auto wait_or_fail = [&](int ssl_error) {
        if (idle >= control.idle_limit_ms)
            return false;
        wait_for(impl_->fd, ssl_error, 1000);
        idle += 1000;
        return !stop_asked(control.stop);
    };
#if defined(SSL_OP_ENABLE_KTLS) && !defined(OPENSSL_NO_KTLS)
    if (impl_->ktls_send) {
        off_t offset = ::lseek(file_fd, 0, SEEK_CUR);
        for (;;) {
            if (stop_asked(control.stop)) {
                out.end = MoveEnd::stopped;
                return out;
            }
            int ssl_error = 0;
            ossl_ssize_t n = 0;
            {
                std::lock_guard lock(impl_->mutex);
                ERR_clear_error();
                n = SSL_sendfile(impl_->ssl, file_fd, offset, kBlock * 4, 0);
                ssl_error = n > 0 ? SSL_ERROR_NONE : SSL_get_error(impl_->ssl, static_cast<int>(n));
            }
            if (n > 0) {
                offset += n;
                out.bytes += n;
                out.written += n;
                idle = 0;
                if (control.progress)
                    control.progress(out.written);
                continue;
            }
            if (ssl_error == SSL_ERROR_WANT_WRITE || ssl_error == SSL_ERROR_WANT_READ) {
                if (!wait_or_fail(ssl_error)) {
                    out.end = stop_asked(control.stop) ? MoveEnd::stopped : MoveEnd::peer_failed;
                    return out;
                }
                continue;
            }
            // sendfile's 0 is the end of the file; anything else a broken connection.
            struct stat st {};
            if (::fstat(file_fd, &st) == 0 && offset >= st.st_size) {
                out.end = out.bytes < size ? MoveEnd::source_failed : MoveEnd::complete;
                return out;
            }
            out.end = MoveEnd::peer_failed;
            return out;
        }
    }
#endif
    std::vector<char> block(kBlock);
    for (;;) {
        if (stop_asked(control.stop)) {
            out.end = MoveEnd::stopped;
            return out;
        }
        ssize_t got;
        do {
            got = ::read(file_fd, block.data(), block.size());
        } while (got < 0 && errno == EINTR);
        if (got < 0) {
            out.end = MoveEnd::source_failed;
            return out;
        }
        if (got == 0) {
            out.end = out.bytes < size ? MoveEnd::source_failed : MoveEnd::complete;
            return out;
        }
        out.bytes += got;
        const char* p = block.data();
        size_t left = static_cast<size_t>(got);
        while (left > 0) {
            long n = send(p, left);
            if (n > 0) {
                p += n;
                left -= static_cast<size_t>(n);
                out.written += n;
                idle = 0;
                continue;
            }
            if (errno != EAGAIN || !wait_or_fail(SSL_ERROR_WANT_WRITE)) {
                out.end = stop_asked(control.stop) ? MoveEnd::stopped : MoveEnd::peer_failed;
                return out;
            }
        }
        if (control.progress)
            control.progress(out.written);
    }
}

MoveResult TlsStream::receive_to_file(int file_fd, const MoveControl& control) {
    MoveResult out;
    std::vector<char> block(kBlock);
    int idle = 0;
    for (;;) {
        if (stop_asked(control.stop)) {
            out.end = MoveEnd::stopped;
            return out;
        }
        long n = receive(block.data(), block.size());
        if (n == 0) {
            out.end = MoveEnd::complete;
            return out;
        }
        if (n < 0) {
            if (errno != EAGAIN) {
                out.end = MoveEnd::peer_failed;
                return out;
            }
            if (!wait_for(impl_->fd, SSL_ERROR_WANT_READ, 1000)) {
                idle += 1000;
                if (stop_asked(control.stop_when_idle)) {
                    out.end = MoveEnd::stopped;
                    return out;
                }
                if (idle >= control.idle_limit_ms) {
                    out.end = MoveEnd::peer_failed;
                    return out;
                }
            }
            continue;
        }
        idle = 0;
        out.bytes += n;
        const char* p = block.data();
        size_t left = static_cast<size_t>(n);
        while (left > 0) {
            ssize_t w = ::write(file_fd, p, left);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0) {
                out.end = MoveEnd::sink_failed;
                return out;
            }
            p += w;
            left -= static_cast<size_t>(w);
            out.written += w;
        }
        if (control.progress)
            control.progress(out.written);
    }
}

} // namespace orv
