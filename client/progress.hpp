#pragma once
// Progress of the FTP client's transfers: the hash marks and the closing rate line.
#include <string>

namespace orv::client {

// Wall-clock time as whole seconds and milliseconds.
struct WallTime {
    long long sec = 0;
    int ms = 0;
};
WallTime wall_now();
// Whole seconds of difference plus the absolute difference of the millisecond parts: the
// millisecond part never borrows a second, which the rate lines have always shown.
double elapsed_seconds(WallTime start, WallTime end);
// "(%i) %li bytes received in %.2f seconds (%.2f Kbytes/sec)" or its "sent" twin, without a
// line end.
std::string rate_line(int socket, long total, double elapsed, bool received);

// "\rbytes transfered: %li" once per tick of bytes, each showing the total at its mark.
class HashMarks {
  public:
    HashMarks(bool on, long tick) : on_(on), tick_(tick > 0 ? tick : 2048) {}
    // The marks due after `bytes` more bytes (empty when hashing is off).
    std::string add(long bytes);
    // The closing mark with the total and a line end (empty when hashing is off).
    std::string finish() const;
    long total() const { return total_; }

  private:
    bool on_;
    long tick_;
    long counter_ = 0;
    long total_ = 0;
};

} // namespace orv::client
