#pragma once
// The connection table: every slot, newest first, and the user count. Changed only on the
// event thread; other threads (an unmount moving sessions, the desktop) may read it, so the
// table carries a small mutex of its own.
#include "core/conn_slot.hpp"

#include <functional>
#include <mutex>
#include <vector>

namespace orv {

class ConnTable {
  public:
    // Pushes at the head and raises the user count.
    void add(const SlotPtr& slot);
    // Unlinks the slot and lowers the user count; false when it is not in the table.
    bool remove(const SlotPtr& slot);
    // The first slot (from the head) whose socket number equals `socket`, or none.
    SlotPtr find(int socket) const;
    SlotPtr find_if(const std::function<bool(const ConnSlot&)>& pred) const;
    // The slot after `slot` in table order, or none.
    SlotPtr next_after(const ConnSlot* slot) const;
    SlotPtr head() const;
    // A copy of the table, newest first.
    std::vector<SlotPtr> snapshot() const;
    int16_t user_count() const;
    // Empties the table without changing the user count (shutdown).
    std::vector<SlotPtr> take_all();

  private:
    mutable std::mutex mutex_;
    std::vector<SlotPtr> slots_; // index 0 is the head (newest)
    int16_t user_count_ = 0;
};

} // namespace orv
