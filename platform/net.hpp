#pragma once
// Thin POSIX socket helpers for blocking data connections and non-blocking control sends.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace orv {

// One non-blocking send (MSG_NOSIGNAL | MSG_DONTWAIT); returns what send returns.
ssize_t send_nowait(int fd, const void* data, size_t size);
bool would_block_error();
// Waits until the socket is writable or the time is up; true when writable.
bool wait_writable(int fd, int timeout_ms);
bool wait_readable(int fd, int timeout_ms);

// A blocking TCP stream socket (close-on-exec), or -1.
int tcp_socket();
void close_fd(int fd);
bool set_nodelay(int fd);
bool set_reuseaddr(int fd);
bool set_keepalive(int fd);

// Parses a dotted IPv4 address ("127.0.0.1") into network-order bytes.
bool parse_ipv4(const std::string& text, uint32_t& addr_be);
// Reads an address the way the classic inet_addr does (inet_aton): each part may be decimal,
// octal with a leading 0 or hex with 0x, and fewer than four parts fill the lower bytes, so
// "127.000.000.001" and "127.1" both name 127.0.0.1.
bool parse_ipv4_classic(const std::string& text, uint32_t& addr_be);
std::string ipv4_text(uint32_t addr_be);

// Binds to INADDR_ANY:port. Returns 0 or the errno value.
int bind_any(int fd, int port);
// Connects with a time-out (the socket stays blocking afterwards). Returns 0 or an errno value
// (ETIMEDOUT also when `*stop` became non-zero while waiting).
int connect_ipv4(int fd, uint32_t addr_be, int port, int timeout_ms,
                 const std::atomic<int>* stop = nullptr);

// Local and peer IPv4 address of a connected socket (network order); false when unknown.
bool local_ipv4(int fd, uint32_t& addr_be, int& port);
bool peer_ipv4(int fd, uint32_t& addr_be, int& port);
// The peer's address as text: dotted IPv4 (also for an IPv4-mapped IPv6 peer) or IPv6; empty
// when unknown.
std::string peer_address_text(int fd);

// Sends everything, retrying partial sends; stops early (returning false) when *stop becomes
// non-zero, on an error, or when no progress is made for idle_timeout_ms.
bool send_all(int fd, const void* data, size_t size, const std::atomic<int>* stop = nullptr,
              int idle_timeout_ms = 60000);

// Raises the open-file soft limit to the hard limit.
void raise_open_file_limit();

} // namespace orv
