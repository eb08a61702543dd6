#include "core/conn_table.hpp"

#include <algorithm>

namespace orv {

void ConnTable::add(const SlotPtr& slot) {
    std::lock_guard lock(mutex_);
    slots_.insert(slots_.begin(), slot);
    ++user_count_;
}

bool ConnTable::remove(const SlotPtr& slot) {
    std::lock_guard lock(mutex_);
    auto it = std::find(slots_.begin(), slots_.end(), slot);
    if (it == slots_.end())
        return false;
    slots_.erase(it);
    --user_count_;
    return true;
}

SlotPtr ConnTable::find(int socket) const {
    std::lock_guard lock(mutex_);
    for (const SlotPtr& s : slots_)
        if (s->socket.load() == socket)
            return s;
    return nullptr;
}

SlotPtr ConnTable::find_if(const std::function<bool(const ConnSlot&)>& pred) const {
    std::lock_guard lock(mutex_);
    for (const SlotPtr& s : slots_)
        if (pred(*s))
            return s;
    return nullptr;
}

SlotPtr ConnTable::next_after(const ConnSlot* slot) const {
    std::lock_guard lock(mutex_);
    for (size_t i = 0; i < slots_.size(); ++i)
        if (slots_[i].get() == slot)
            return i + 1 < slots_.size() ? slots_[i + 1] : nullptr;
    return nullptr;
}

SlotPtr ConnTable::head() const {
    std::lock_guard lock(mutex_);
    return slots_.empty() ? nullptr : slots_.front();
}

std::vector<SlotPtr> ConnTable::snapshot() const {
    std::lock_guard lock(mutex_);
    return slots_;
}

int16_t ConnTable::user_count() const {
    std::lock_guard lock(mutex_);
    return user_count_;
}

std::vector<SlotPtr> ConnTable::take_all() {
    std::lock_guard lock(mutex_);
    std::vector<SlotPtr> out;
    out.swap(slots_);
    return out;
}

} // namespace orv
