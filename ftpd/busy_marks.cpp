#include "ftpd/busy_marks.hpp"

namespace orv {

void BusyMarks::acquire(const NodePtr& node) {
    std::lock_guard lock(mutex_);
    Entry& e = entries_[node.get()];
    if (e.count++ == 0) {
        e.node = node;
        uint8_t normal = kStatusNormal;
        e.owned = node->status.compare_exchange_strong(normal, kStatusBusy);
    }
}

void BusyMarks::release(const NodePtr& node) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(node.get());
    if (it == entries_.end())
        return;
    if (--it->second.count > 0)
        return;
    if (it->second.owned) {
        // An unmount may have moved on meanwhile; only a mark that is still ours goes back.
        uint8_t busy = kStatusBusy;
        node->status.compare_exchange_strong(busy, kStatusNormal);
    }
    entries_.erase(it);
}

int BusyMarks::users(const VfsNode* node) const {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(node);
    return it == entries_.end() ? 0 : it->second.count;
}

} // namespace orv
