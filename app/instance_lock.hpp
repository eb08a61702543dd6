#pragma once
// One server per start directory: an advisory lock on orvane.lock in it.
#include <filesystem>

namespace orv {

class InstanceLock {
  public:
    // Takes the lock; held() is false when another process holds it.
    explicit InstanceLock(const std::filesystem::path& start_dir);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    bool held() const { return held_; }

  private:
    int fd_ = -1;
    bool held_ = false;
};

} // namespace orv
