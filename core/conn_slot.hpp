#pragma once
// One record per accepted client connection, the same for FTP and Telnet.
//
// Threads: the event thread owns the control socket's reading and the input buffers; a
// command's worker thread takes `arg_buf` when it starts (the state byte is the hand-over).
// Fields several threads touch are atomics or sit behind the slot's mutex. Sends from any
// thread go through send_text(), which serialises them and never writes to a socket that
// has been closed (its number may already belong to somebody else).
#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

struct User;
struct VfsNode;
struct OutgoingSession;
struct SlotSocket;
struct FtpSessionExtras;
class AddressTicket;

// Ssh: a session of the SSH listener; its shell runs as a Telnet session's does.
enum class Service : uint8_t { Ftp, Telnet, Ssh };

// What the control connection's bytes pass through when it is not the plain socket (TLS after
// AUTH TLS). Both calls behave as non-blocking recv and send do: bytes moved, 0 when the peer
// ended the stream (receive), or -1 with errno set (EAGAIN: wait for the socket and retry).
class ControlTransport {
  public:
    virtual ~ControlTransport() = default;
    virtual long receive(void* data, size_t size) = 0;
    virtual long send(const void* data, size_t size) = 0;
    // Bytes already taken off the socket and waiting: no readiness event will announce them.
    virtual bool pending() const = 0;
};

class ConnSlot {
  public:
    ConnSlot(Service service, int socket_number);
    ~ConnSlot();
    ConnSlot(const ConnSlot&) = delete;
    ConnSlot& operator=(const ConnSlot&) = delete;

    const Service service;

    // The control socket's number as logs show it; -1 once the slot is a ghost.
    std::atomic<int> socket;
    // Peer IPv4 address bytes in network order (for "who"); valid when peer_known.
    std::array<uint8_t, 4> peer{};
    bool peer_known = false;
    // The peer's address as text (IPv4 dotted or IPv6), for logs and "who".
    std::string peer_text;
    // Fills the three fields above from the accepted socket (event thread, before the slot is
    // shared).
    void take_peer_address(int fd);
    // FTP sessions with the newer command set on: their passive listener, restart offset and
    // the like. Set before the session reads its first command; null otherwise.
    std::shared_ptr<FtpSessionExtras> ftp_extras;

    std::atomic<uint8_t> state{1};
    std::atomic<uint8_t> fail_count{0}; // Telnet failed logins; FTP login refusal mark
    std::atomic<int> ghost{0};
    std::atomic<int> stop{0}; // non-zero: every complete-send loop of the session stops
    std::atomic<int> hash_on{1};
    std::atomic<int> tick_size{10240};
    std::atomic<int> prompting{1};
    std::atomic<char> transfer_type{0};
    std::atomic<int> out_socket{-1};
    // Set once the whole login (name and password) has succeeded; until then the session
    // counts as having no user in every permission check.
    std::atomic<bool> logged_in{false};
    // Set when a login attempt raised the user's active-login count, so that the removal
    // lowers it only for those (a USER without a counted login must not lower anybody's count:
    // that would let the account exceed its login limit later).
    std::atomic<bool> login_counted{false};

    // Event thread only.
    std::string line_buf;   // FTP command buffer / Telnet line being typed
    std::string port_arg;   // FTP: the last accepted PORT argument
    std::string login_name; // the account name the client gave (FTP USER, Telnet "login: ")
    uint8_t list_state = 0; // 9 while a "who" listing is being sent
    std::weak_ptr<ConnSlot> list_cursor;

    // Written before a worker starts (or under the state hand-over) and read by it.
    std::string arg_buf;

    // Shared between threads, guarded by the slot's mutex.
    std::shared_ptr<User> user() const;
    void set_user(std::shared_ptr<User> user);
    // The user for permission checks: none until the login has completed.
    std::shared_ptr<User> checked_user() const;
    std::shared_ptr<VfsNode> cwd() const;
    void set_cwd(std::shared_ptr<VfsNode> node);
    // Lines queued for the user, sent before the next prompt (each cut to 80 characters).
    void queue_message(std::string_view text);
    std::vector<std::string> take_messages();
    // The connection's place in its address's count (brute-force defence); none when the
    // defence is off. Given back when the control socket closes.
    std::shared_ptr<AddressTicket> guard_ticket() const;
    void set_guard_ticket(std::shared_ptr<AddressTicket> ticket);
    // Slot-specific extension owned by the outgoing clients.
    std::shared_ptr<OutgoingSession> outgoing() const;
    void set_outgoing(std::shared_ptr<OutgoingSession> session);

    // Sends the whole text on the control socket (waiting a bounded time when the peer reads
    // slowly). Returns false when the socket is closed or the peer is gone.
    bool send_text(std::string_view text);
    bool send_bytes(const void* data, size_t size);
    // One non-blocking send on the control socket: the bytes that went (0 when none could),
    // or -1 when the socket is closed or failed. For relays that queue what cannot go yet.
    long send_some(const void* data, size_t size);

    // The control socket, used by the event thread to wait for readiness.
    SlotSocket* control() { return control_.get(); }
    void attach_control(std::unique_ptr<SlotSocket> socket);
    // Closes the control socket (event thread). Later sends fail quietly.
    void close_control();
    // Shuts the connection down without closing the socket: the peer sees the end, and the
    // event thread's next read sees a close event and ends the session the usual way.
    void shutdown_control();
    bool control_open() const;
    int control_fd() const;

    // From now on every byte of the control connection passes through `transport` (event
    // thread, while reading is paused). Null: the plain socket again.
    void set_transport(std::shared_ptr<ControlTransport> transport);
    // The event thread's view, for reading; null for a plain socket.
    ControlTransport* reading_transport() const { return read_transport_; }
    // While set, the event thread does not read the control socket (somebody else, such as a
    // TLS handshake, owns its bytes for a while).
    std::atomic<bool> reading_paused{false};

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<User> user_;
    std::shared_ptr<VfsNode> cwd_;
    std::deque<std::string> messages_;
    std::shared_ptr<OutgoingSession> outgoing_;
    std::shared_ptr<AddressTicket> guard_ticket_;

    mutable std::mutex io_mutex_;
    std::unique_ptr<SlotSocket> control_;
    int fd_ = -1;
    std::shared_ptr<ControlTransport> transport_; // guarded by io_mutex_
    ControlTransport* read_transport_ = nullptr;  // event thread
};

using SlotPtr = std::shared_ptr<ConnSlot>;

} // namespace orv
