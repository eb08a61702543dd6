#include "core/workers.hpp"

#include <system_error>
#include <thread>

namespace orv {

bool WorkerRegistry::spawn(std::function<void()> body) {
    {
        std::lock_guard lock(mutex_);
        if (refuse_)
            return false;
        ++running_;
    }
    try {
        std::thread([this, body = std::move(body)]() mutable {
            body();
            body = nullptr; // release captures before the count drops
            std::lock_guard lock(mutex_);
            if (--running_ == 0)
                idle_.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        std::lock_guard lock(mutex_);
        if (--running_ == 0)
            idle_.notify_all();
        return false;
    }
    return true;
}

int WorkerRegistry::running() const {
    std::lock_guard lock(mutex_);
    return running_;
}

bool WorkerRegistry::wait_idle(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, limit, [this] { return running_ == 0; });
}

void WorkerRegistry::set_refuse_spawns(bool refuse) {
    std::lock_guard lock(mutex_);
    refuse_ = refuse;
}

} // namespace orv
