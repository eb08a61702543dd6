#pragma once
// RETR and STOR: the command threads and the loops that move a file over the data connection
// and log its rate.
#include "ftpd/ftp_context.hpp"

#include <atomic>
#include <chrono>
#include <string>

namespace orv {

class Server;

void retr_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);
void stor_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);

// The elapsed time the rate is computed from. Times are taken to the millisecond; a transfer
// that took less than that is counted as one millisecond.
double transfer_seconds(std::chrono::steady_clock::duration elapsed);
// "(%i) %li bytes <verb> in %.2f seconds (%.2f Kbytes/sec)".
std::string rate_line(int socket, long long bytes, double seconds, const char* verb);

// The loops. `stop` ends them early (the session's stop flag; the server stopping).
struct TransferStop {
    const std::atomic<int>* session = nullptr;
    const std::atomic<bool>* server = nullptr;
    bool requested() const {
        return (session && session->load() != 0) || (server && server->load());
    }
};
// Sends a regular file from byte `offset` on (a restarted download); returns the bytes sent (0
// when it cannot be opened).
long long send_file(const std::string& path, int data_fd, TransferStop stop, long long offset = 0);
// What an upload came to.
struct Received {
    long long bytes = 0;   // read from the data connection
    long long written = 0; // of those, stored in the file
    bool opened = false;   // the file could be opened at all
    bool write_failed = false;
};
// Where an upload goes in its file: from the start (the file is truncated), after its end
// (APPE), or from a restart offset (the file is cut there first).
constexpr long long kWriteFromStart = -1;
constexpr long long kWriteAppend = -2;
// Receives into `path` (created if need be; a symbolic link is never followed). After a failed
// write the upload ends at once.
Received receive_file(int data_fd, const std::string& path, TransferStop stop,
                      long long position = kWriteFromStart);

} // namespace orv
