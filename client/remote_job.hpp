#pragma once
// What every command thread of the FTP client needs: the slot, the session and the control
// connection it started with; the waits on the state byte that the reply handler moves; the
// active-mode data connection; the receive and send loops; the y/n question and the pager key.
#include "client/progress.hpp"
#include "client/session.hpp"
#include "platform/byte_mover.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace orv {

class Server;
struct User;

namespace client {

class RemoteJob {
  public:
    RemoteJob(Server& server, SlotPtr slot, SessionPtr session);

    Server& server;
    const SlotPtr slot;
    const SessionPtr session;
    const LinkPtr link; // the control connection when the command started (may be null)

    int user_socket() const;
    int control_number() const { return link ? link->number() : -1; }
    std::shared_ptr<User> user() const;

    // The session is still the one this command belongs to: its control connection has not
    // been closed (by the server, a time-out or the slot's removal) and the server runs.
    bool alive() const;
    // State changes of a command thread: skipped once the session has gone back to the shell.
    void set(uint8_t state);
    // A data transfer starts: state 23, or 24 when its "226" has been seen already.
    void enter_transfer();
    // Sets `state`, then sends `text` on the control connection (the reply cannot overtake).
    bool command(std::string_view text, uint8_t state);
    // Waits while the state is `state`; the new state, or 0 after the time-out or when the
    // session has ended.
    uint8_t wait_while(uint8_t state);
    // The reply that moved the last wait was a refusal (a code of 400 or more).
    bool refused() const;

    void say(std::string_view text) const;
    void log(std::string_view text) const;
    // Logs the thread's completion line, then the client prompt unless the session has gone
    // back to the shell meanwhile.
    void finish(const std::string& log_line) const;
    void finish(const char* name, int number) const;

    // ---- data connection ----
    // A listening socket on the control connection's local address and "PORT" sent (state
    // 14); -1 when none could be made.
    int open_data_port();
    // The remote server's data connection, or -1 (time-out, session ended).
    int accept_data(int listen_fd);
    // Listings travel in ASCII: "TYPE A" first when the user's type differs; true if sent.
    bool type_to_ascii();
    void type_back(bool switched);
    // Reads the data connection into `file_fd` until it ends, with hash marks and the rate
    // line; closes the data socket. Returns the byte count.
    long receive_file(int data_fd, int file_fd);
    // Sends `file_fd` on the data connection with hash marks and the rate line; closes the
    // data socket.
    long send_file(int data_fd, int file_fd);
    // The byte mover's settings for those two: the server's stop, the reply time-out as the
    // idle limit, and the hash marks fed from the running total plus `base` (what an earlier
    // move of the same transfer took).
    MoveControl move_control(HashMarks& marks, const long long& base);

    // ---- the user ----
    // "get %s [y/n]? " and its like: true for yes (at once for a user who has gone).
    bool confirm(const std::string& question);
    // The pager's key; 'Q' when the user has gone or the session ended.
    char wait_key(bool announce);

    // How long a remote peer may stay silent before the command gives up.
    int reply_timeout_ms() const;
};

// Runs `body` on a worker thread with a job for the slot; logs
// "**** Failed to create oftp <name> Thread ****" when no thread can be made.
bool spawn_job(Server& server, const SlotPtr& slot, const SessionPtr& session, const char* name,
               void (*body)(RemoteJob&, std::string), std::string arg);

} // namespace client
} // namespace orv
