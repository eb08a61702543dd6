#include "admin/log_queue.hpp"

namespace orv {

void LogQueue::push(std::string_view line) {
    std::lock_guard lock(mutex_);
    pending_.emplace_back(line);
    if (scheduled_)
        return;
    scheduled_ = true;
    QMetaObject::invokeMethod(this, &LogQueue::deliver, Qt::QueuedConnection);
}

void LogQueue::deliver() {
    std::vector<std::string> lines;
    {
        std::lock_guard lock(mutex_);
        lines.swap(pending_);
        scheduled_ = false;
    }
    emit lines_ready(lines);
}

} // namespace orv
