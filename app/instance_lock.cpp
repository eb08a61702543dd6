#include "app/instance_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace orv {

InstanceLock::InstanceLock(const std::filesystem::path& start_dir) {
    fd_ = ::open((start_dir / "orvane.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    // A start directory we cannot write to cannot be locked either; run rather than refuse.
    held_ = fd_ < 0 || ::flock(fd_, LOCK_EX | LOCK_NB) == 0;
}

InstanceLock::~InstanceLock() {
    if (fd_ >= 0)
        ::close(fd_); // releases the lock
}

} // namespace orv
