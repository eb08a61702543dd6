#pragma once
// A command's busy mark on a node (status 2). It is taken only from a normal node, and given
// back only while it is still a busy mark: an unmount that has claimed the node meanwhile
// keeps its own mark.
#include "vfs/node.hpp"

namespace orv {

// The two halves, for marks that outlive one scope.
bool try_mark_busy(VfsNode& node);
void clear_busy(VfsNode& node);

// A mark held for as long as the object lives.
class BusyMark {
  public:
    BusyMark() = default;
    // Marks `node`; the mark is empty when the node is null or not normal.
    explicit BusyMark(NodePtr node);
    BusyMark(BusyMark&& other) noexcept : node_(std::move(other.node_)) {}
    BusyMark& operator=(BusyMark&& other) noexcept;
    BusyMark(const BusyMark&) = delete;
    BusyMark& operator=(const BusyMark&) = delete;
    ~BusyMark() { release(); }

    explicit operator bool() const { return node_ != nullptr; }
    // Gives the mark back now.
    void release();

  private:
    NodePtr node_;
};

} // namespace orv
