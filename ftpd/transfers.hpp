#pragma once
// RETR and STOR: the command threads, which move a file over the data connection with the byte
// mover and log its rate.
#include "ftpd/ftp_context.hpp"
#include "platform/byte_mover.hpp"
#include "vfs/tree.hpp"

#include <chrono>
#include <string>
#include <string_view>

namespace orv {

class Server;

void retr_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);
void stor_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);

// Opens the file to send: never through a symbolic link, never out of its base directory, and
// only a regular file (a FIFO would hold the thread; it is opened without waiting for a
// writer and then refused). Blocking once open; -1 when there is nothing that may be sent.
int open_for_sending(const HostPath& host);
// The target of an upload, checked with the tree lock held: `user` may store `name` in `dir`
// (a new name one plain component within the path limit; a file being transferred is not
// overwritten under its reader, a directory never). On success the file it replaces, if any,
// is marked busy and `existing` and `host_dir` are set; otherwise the refusal is returned.
const char* claim_upload_target(FtpContext& ctx, const User* user, const NodePtr& dir,
                                const std::string& name, NodePtr& existing, HostPath& host_dir);

// The elapsed time the rate is computed from. Times are taken to the millisecond; a transfer
// that took less than that is counted as one millisecond.
double transfer_seconds(std::chrono::steady_clock::duration elapsed);
// "(%i) %li bytes <verb> in %.2f seconds (%.2f Kbytes/sec)".
std::string rate_line(int socket, long long bytes, double seconds, const char* verb);

// What ends the data movement of a session's command: for a download, the session's stop flag
// or the server stopping; for an upload, the server stopping, or the session's stop flag once
// nothing more is arriving.
MoveControl transfer_control(const ConnSlot& slot, const Server& server, bool upload);

// The last reply of a transfer that moved all it could, by how it ended: a download's file
// that could not be read to its end gets the 451 text, an upload that could not be stored the
// 452 text, a broken or stopped connection the 426 text.
const char* transfer_reply(MoveEnd end, bool upload);

} // namespace orv
