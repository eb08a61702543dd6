#include "ftpd/busy_marks.hpp"

#include "vfs/busy_mark.hpp"

namespace orv {

void BusyMarks::acquire(const NodePtr& node) {
    std::lock_guard lock(mutex_);
    Entry& e = entries_[node.get()];
    if (e.count++ == 0) {
        e.node = node;
        e.owned = try_mark_busy(*node);
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
        clear_busy(*node); // unless an unmount has taken the node meanwhile
    }
    entries_.erase(it);
}

int BusyMarks::users(const VfsNode* node) const {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(node);
    return it == entries_.end() ? 0 : it->second.count;
}

} // namespace orv
