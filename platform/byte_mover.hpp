#pragma once
// Moves a file's bytes to or from a connected stream socket: the one routine behind every
// download and upload (FTP data connections, and whatever else carries whole files). System
// calls interrupted by a signal are repeated; blocking calls on the socket wake once a second,
// so that a stop request or a peer that has gone quiet for too long ends the move.
#include <functional>

namespace orv {

// Why a move ended.
enum class MoveEnd {
    complete,      // all of it moved: the file to its end, or the stream to its orderly close
    source_failed, // the file could not be read to its end (it shrank, vanished or failed)
    sink_failed,   // the file could not be written (a full disk, a size limit, an I/O error)
    peer_failed,   // the connection broke, or made no progress for the idle limit
    stopped,       // the caller's stop request
};

struct MoveResult {
    long long bytes = 0;   // taken from the source (the file or the connection)
    long long written = 0; // of those, delivered to the destination
    MoveEnd end = MoveEnd::complete;
};

struct MoveControl {
    // Polled between blocks and at every wake-up: true ends the move as `stopped`.
    std::function<bool()> stop;
    // Polled only at a wake-up with nothing moving: true ends the move as `stopped`. (An
    // upload whose session has ended is still taken in while its data keeps coming.)
    std::function<bool()> stop_when_idle;
    // Told the running total after each block.
    std::function<void(long long)> progress;
    int idle_limit_ms = 120000;
};

// How a download reaches the socket. `automatic` is the one chosen by measurement (see
// bench/README.md); the others are kept for the benchmark and the tests.
enum class SendMethod { automatic, read_send, sendfile_cork, sendfile_plain, splice_pipe };
// How an upload reaches the file.
enum class ReceiveMethod { automatic, recv_write, recv_write_behind, splice_pipe, recv_direct };

// Sends the regular file open on `file_fd`, from its current offset to its end. `size` is its
// size when the transfer began: an end of file before it is `source_failed`; a file that grows
// meanwhile is sent to its new end.
MoveResult send_file_to_socket(int file_fd, int sock_fd, long long size, const MoveControl& control,
                               SendMethod method = SendMethod::automatic);

// Receives until the peer closes the connection, writing everything to `file_fd` at its
// current offset. A failed write ends the move at once (`sink_failed`).
MoveResult receive_socket_to_file(int sock_fd, int file_fd, const MoveControl& control,
                                  ReceiveMethod method = ReceiveMethod::automatic);

// Copies the file open on `in_fd`, from its current offset to its end, to `out_fd`: inside the
// kernel where the two file systems allow it, else through one buffer.
MoveResult copy_file_to_file(int in_fd, int out_fd, const MoveControl& control);

} // namespace orv
