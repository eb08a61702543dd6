#pragma once
// What the FTP service's event handlers and command threads share, and the small steps every
// command ends with.
#include "core/conn_slot.hpp"
#include "ftpd/busy_marks.hpp"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

namespace orv {

class Server;
class TlsContext;
class VfsTree;
struct VfsNode;

// Held by shared_ptr: a command thread keeps it alive even if the service is torn down first.
struct FtpContext {
    explicit FtpContext(Server& s) : server(s) {}
    Server& server;
    BusyMarks busy;
    // The session the listener accepted last; it gets the overflow notice (event thread only).
    std::weak_ptr<ConnSlot> last_accepted;
    // Where the next passive port is looked for in the configured range.
    std::atomic<unsigned> next_passive{0};
    // Set when the service starts with FTPS on and its certificate usable; null otherwise.
    std::shared_ptr<TlsContext> tls;
};
using FtpContextPtr = std::shared_ptr<FtpContext>;

// A command handed to a thread: its argument and the session's transfer settings as they
// stood at dispatch (the dispatcher drops every line until the thread is done, so they cannot
// change meanwhile).
struct FtpJob {
    std::string arg;
    std::string port_arg;
    char type = 'A';
    int socket = -1; // the control socket number, for log lines
};

// The last step of a command: the session is made ready before the last reply goes out, so
// that a fast client's next command is not dropped as arriving while we are busy.
void finish_command(ConnSlot& slot, std::string_view reply);
// The host path of a new entry `name` in directory `dir`; empty when `dir` has no host path
// any more (so that the host operation fails).
std::string child_real_path(const VfsTree& tree, const VfsNode& dir, std::string_view name);

// "(%i) <name> thread complete".
void log_thread_complete(Server& server, int socket, const char* name);

} // namespace orv
