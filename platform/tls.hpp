#pragma once
// TLS for the server's connections: a context made from a certificate and its key, and a
// stream that runs the server side of a handshake and moves bytes over a connected socket.
// OpenSSL stays inside tls.cpp.
#include "platform/byte_mover.hpp"

#include <atomic>
#include <memory>
#include <string>

namespace orv {

class TlsContext {
  public:
    // TLS 1.2 and 1.3 only, forward-secret AEAD suites, the server's order of preference.
    // Null when the files cannot be used; `error` then says why. A key file that others may
    // read is refused.
    static std::shared_ptr<TlsContext> create(const std::string& certificate_path,
                                              const std::string& key_path, std::string& error);
    ~TlsContext();
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    struct Impl;
    Impl& impl() const { return *impl_; }

  private:
    TlsContext();
    std::unique_ptr<Impl> impl_;
};

// True when the kernel can take over the record layer of a TCP socket (kernel TLS), checked
// once on a loopback connection.
bool kernel_tls_available();

class TlsStream {
  public:
    // The server side of a connection on `fd` (the stream keeps a duplicate of it, so the
    // caller may close its own number at any time; shut the socket down to end the stream).
    TlsStream(std::shared_ptr<TlsContext> context, int fd);
    ~TlsStream();
    TlsStream(const TlsStream&) = delete;
    TlsStream& operator=(const TlsStream&) = delete;

    bool valid() const;
    // No session tickets on this connection (a data connection resumes the control
    // connection's session and needs none; a client that never reads an upload's connection
    // would close it with them unread, which turns its close into a reset). Before handshake().
    void issue_no_tickets();
    const std::shared_ptr<TlsContext>& context() const;
    // Runs the handshake within `timeout_ms` in all; ends early when *stop becomes non-zero.
    // False on failure, with the reason in `error`.
    bool handshake(int timeout_ms, std::string& error, const std::atomic<int>* stop = nullptr);

    // Non-blocking, as recv and send are: bytes moved, 0 when the peer ended the stream
    // (receive), or -1 with errno set (EAGAIN: try again once the socket is ready). Safe to
    // call from several threads: every use of the connection is serialised.
    long receive(void* data, size_t size);
    long send(const void* data, size_t size);
    // Decoded bytes waiting that no readiness of the socket would announce.
    bool pending() const;

    // Blocking sends for data connections: all of it, or false on an error, a stop request or
    // no progress for `idle_ms`.
    bool send_all(const void* data, size_t size, const std::atomic<int>* stop, int idle_ms);
    // Tells the peer the stream ends (bounded wait), so that it can tell an end from a cut.
    void close_notify(int wait_ms = 2000);

    // True when this (data) connection resumed the session of `control`: a connection from
    // anyone else cannot.
    bool resumed_from(const TlsStream& control) const;
    // "TLSv1.3 TLS_AES_256_GCM_SHA384", for the log.
    std::string description() const;
    // The kernel encrypts what this stream sends (kernel TLS is on for it).
    bool kernel_send() const;

    // A download over the stream: as send_file_to_socket, with kernel TLS and sendfile when
    // the stream has it, SSL writes of large blocks otherwise.
    MoveResult send_file(int file_fd, long long size, const MoveControl& control);
    // An upload: as receive_socket_to_file, until the peer ends the stream.
    MoveResult receive_to_file(int file_fd, const MoveControl& control);

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace orv
