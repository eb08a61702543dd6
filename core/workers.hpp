#pragma once
// Worker threads: each long command runs on a thread of its own. The registry counts them so
// that shutdown can stop and wait for them.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace orv {

class WorkerRegistry {
  public:
    // Starts `body` on a new thread; false when the thread cannot be created (the caller logs
    // its "**** Failed to create ... ****" line).
    bool spawn(std::function<void()> body);
    int running() const;
    // Waits until no worker runs or the time is up; true when none runs.
    bool wait_idle(std::chrono::milliseconds limit);
    // For tests: refuse every spawn, as when thread creation fails.
    void set_refuse_spawns(bool refuse);

  private:
    mutable std::mutex mutex_;
    std::condition_variable idle_;
    int running_ = 0;
    bool refuse_ = false;
};

} // namespace orv
