#pragma once
// One outgoing TCP connection of a shell user: the FTP client's control connection or the
// relay's socket to the remote host.
//
// Threads: the event thread waits for readability and receives; command threads and resend
// threads send; any thread may close. Every use of the descriptor happens under the link's
// mutex, so a close never races a send and a closed descriptor number (which the system may
// hand out again at once) is never written to.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <sys/types.h>

namespace asio {
class io_context;
}

namespace orv::client {

class OutLink : public std::enable_shared_from_this<OutLink> {
  public:
    // Takes ownership of a connected stream socket.
    explicit OutLink(int fd);
    ~OutLink();
    OutLink(const OutLink&) = delete;
    OutLink& operator=(const OutLink&) = delete;

    // The socket number as the logs show it; stays the same after the close.
    int number() const { return number_; }
    bool is_open() const;

    // Sends everything, waiting for a slow peer while it makes progress; false when the link
    // is closed, the send fails or the peer takes nothing for `idle_timeout_ms`.
    bool send_all(std::string_view bytes, int idle_timeout_ms = 60000);
    // One non-blocking send: the bytes that went (0 when none could), -1 when closed or failed.
    ssize_t send_some(const char* data, size_t size);
    // Waits up to `timeout_ms` until a send could make progress.
    void wait_writable(int timeout_ms) const;

    // Event thread: starts delivering readability to `on_ready` (once per arm()).
    bool watch(asio::io_context& io);
    // Event thread: waits for the next readability; `on_ready` runs on the event thread when
    // the socket is readable and the link still open.
    void arm(std::function<void()> on_ready);
    // Event thread: one non-blocking receive. Returns what recv returns; `error` gets errno.
    ssize_t receive(char* buffer, size_t size, int& error);

    // Any thread. True when this call closed the link (false when it was closed already).
    bool close();
    // Any thread: ends the connection for the peer without giving up the descriptor yet.
    void shutdown_both();

    bool local_address(uint32_t& addr_be, int& port) const;
    bool peer_address(uint32_t& addr_be, int& port) const;

  private:
    struct Watcher;
    mutable std::mutex mutex_;
    int fd_;
    const int number_;
    bool closed_ = false;
    std::unique_ptr<Watcher> watcher_;
};

using LinkPtr = std::shared_ptr<OutLink>;

} // namespace orv::client
