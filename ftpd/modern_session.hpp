#pragma once
// What a session with the newer command set keeps beyond the classic fields: its passive
// listener, the restart offset, the rename source, the addresses of its control connection.
#include "vfs/node.hpp"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/socket.h>

namespace orv {

// A listening socket waiting for one passive data connection. Closed when destroyed.
struct PassiveListener {
    PassiveListener() = default;
    ~PassiveListener();
    PassiveListener(const PassiveListener&) = delete;
    PassiveListener& operator=(const PassiveListener&) = delete;
    int fd = -1;
    int port = 0;
    std::chrono::steady_clock::time_point deadline;
};

// An address as the socket calls take it.
struct SockAddr {
    sockaddr_storage storage{};
    socklen_t size = 0;
    int family() const { return storage.ss_family; }
};

struct FtpsSession;

struct FtpSessionExtras {
    SockAddr peer;  // the control connection's peer
    SockAddr local; // and its local end

    // TLS (AUTH, PROT and their policy); null when the server offers no FTPS.
    std::shared_ptr<FtpsSession> ftps;

    // Posts a look at the lines that arrived while a command ran (set at session start).
    std::function<void()> wake;

    // Event thread only.
    long long rest = 0;    // REST offset for the next RETR or STOR
    bool epsv_all = false; // after "EPSV ALL" no other data set-up is accepted
    std::weak_ptr<VfsNode> rename_from;
    std::string mlst_facts = "type;size;modify;perm;UNIX.mode;UNIX.owner;UNIX.group;unique;";

    // ABOR seen while a command ran: the transfer ends with 426 and 226.
    std::atomic<bool> abort{false};
    // A data transfer or listing is under way (only then does ABOR interrupt a command).
    std::atomic<bool> in_transfer{false};

    // The data connection's set-up: a passive listener, or an EPRT target; otherwise the
    // classic PORT argument applies. Guarded by `mutex` (a worker takes the listener).
    std::mutex mutex;
    std::shared_ptr<PassiveListener> passive;
    bool eprt_set = false;
    SockAddr eprt;
};

} // namespace orv
