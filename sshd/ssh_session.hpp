#pragma once
// One SSH connection, from the key exchange to the end, on a thread of its own: the password
// check (through the same login accounting and brute-force defence as FTP and Telnet), and
// one session channel with the shell, one command, or the SFTP subsystem.
#include "core/conn_slot.hpp"

#include <libssh/libssh.h>

#include <memory>
#include <mutex>
#include <set>

namespace orv {
class Server;
}

namespace orv::ssh {

// The network sockets of the live SSH connections, so that a stopping server can end them
// even while a thread waits inside the protocol library.
class LiveConnections {
  public:
    void add(int fd);
    void remove(int fd);
    // Shuts every live connection down (both directions); their threads then end.
    void shut_all();

  private:
    std::mutex mutex_;
    std::set<int> fds_;
};

struct SessionStart {
    Server* server = nullptr;
    SlotPtr slot;                  // in the table, not logged in; control = the shell's end
    ssh_session session = nullptr; // accepted on `tcp_fd`; owned by the thread from now on
    int tcp_fd = -1;
    int bridge_fd = -1; // the other end of the slot's control socket
    std::shared_ptr<LiveConnections> live;
};

// The thread body. Frees everything it was given; the slot leaves the table through the event
// thread and "SSH Close port %i" is logged.
void run_ssh_session(SessionStart start);

} // namespace orv::ssh
