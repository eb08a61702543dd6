#pragma once
// The lock of the tree and the accounts, with a count of exclusive holds. Every change to a
// node, a mount, a user or a group happens under the exclusive lock, so the count going up is
// the one sign that a table may have changed: the table saver watches it instead of every
// command telling it what it did.
#include <atomic>
#include <cstdint>
#include <shared_mutex>

namespace orv {

class TreeMutex {
  public:
    void lock() { mutex_.lock(); }
    bool try_lock() { return mutex_.try_lock(); }
    void unlock() {
        // Counted before the release: whoever reads the new count and then takes the lock
        // sees the change.
        generation_.fetch_add(1, std::memory_order_release);
        mutex_.unlock();
    }
    void lock_shared() { mutex_.lock_shared(); }
    bool try_lock_shared() { return mutex_.try_lock_shared(); }
    void unlock_shared() { mutex_.unlock_shared(); }

    // How many exclusive holds have ended so far.
    uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

  private:
    std::shared_mutex mutex_;
    std::atomic<uint64_t> generation_{0};
};

} // namespace orv
