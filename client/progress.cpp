#include "client/progress.hpp"

#include "platform/text.hpp"

#include <chrono>
#include <cstdlib>

namespace orv::client {

WallTime wall_now() {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::system_clock::now().time_since_epoch())
                  .count();
    return {ms / 1000, static_cast<int>(ms % 1000)};
}

double elapsed_seconds(WallTime start, WallTime end) {
    return static_cast<double>(end.sec - start.sec) + std::abs(end.ms - start.ms) / 1000.0;
}

std::string rate_line(int socket, long total, double elapsed, bool received) {
    double rate = elapsed > 0 ? total / elapsed / 1024.0 : total / 1024.0;
    return strf("(%i) %li bytes %s in %.2f seconds (%.2f Kbytes/sec)", socket, total,
                received ? "received" : "sent", elapsed, rate);
}

std::string HashMarks::add(long bytes) {
    total_ += bytes;
    if (!on_)
        return {};
    counter_ += bytes;
    std::string marks;
    // Several marks when one block spans several ticks, so the marks do not depend on how the
    // data happened to be cut into blocks.
    while (counter_ >= tick_) {
        marks += strf("\rbytes transfered: %li", total_ - counter_ + tick_);
        counter_ -= tick_;
    }
    return marks;
}

std::string HashMarks::finish() const {
    if (!on_)
        return {};
    return strf("\rbytes transfered: %li\r\n", total_);
}

} // namespace orv::client
