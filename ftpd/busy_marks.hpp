#pragma once
// The busy mark (node status 2) of files that FTP transfers are using. Several sessions may
// read one file at once: the mark stays until the last of them has finished, and a mark that
// somebody else set (a shell copy) is left for its owner to clear.
#include "vfs/node.hpp"

#include <mutex>
#include <unordered_map>

namespace orv {

class BusyMarks {
  public:
    // Marks `node` busy for one more user. Call with the tree lock held, after the permission
    // checks (so a node that an unmount has claimed is never taken).
    void acquire(const NodePtr& node);
    // Ends one use; the node becomes normal again when nobody uses it any more.
    void release(const NodePtr& node);
    // How many FTP transfers use the node now.
    int users(const VfsNode* node) const;

  private:
    struct Entry {
        NodePtr node;
        int count = 0;
        bool owned = false; // we turned status 1 into 2, so we turn it back
    };
    mutable std::mutex mutex_;
    std::unordered_map<const VfsNode*, Entry> entries_;
};

} // namespace orv
