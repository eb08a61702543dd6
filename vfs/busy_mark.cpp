#include "vfs/busy_mark.hpp"

namespace orv {

bool try_mark_busy(VfsNode& node) {
    uint8_t normal = kStatusNormal;
    return node.status.compare_exchange_strong(normal, kStatusBusy);
}

void clear_busy(VfsNode& node) {
    uint8_t busy = kStatusBusy;
    node.status.compare_exchange_strong(busy, kStatusNormal);
}

BusyMark::BusyMark(NodePtr node) {
    if (node && try_mark_busy(*node))
        node_ = std::move(node);
}

BusyMark& BusyMark::operator=(BusyMark&& other) noexcept {
    if (this != &other) {
        release();
        node_ = std::move(other.node_);
    }
    return *this;
}

void BusyMark::release() {
    if (node_) {
        clear_busy(*node_);
        node_ = nullptr;
    }
}

} // namespace orv
