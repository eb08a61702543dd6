#pragma once
// A node of the virtual file system: a directory or file under the server home or a mount,
// with its own owner, group and nine permission flags (which exist only here and in fpl.txt).
//
// Everything but `status` is guarded by the server's tree lock. `status` is the hand-over
// between a transfer and an unmount and is atomic: 1 normal, 2 busy, 3 unmount pending.
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orv {

struct User;
struct Group;

struct MountRec {
    std::string real_dir;    // host directory that is mounted
    std::string mount_point; // virtual path, always beginning with "\"
};

enum NodeStatus : uint8_t { kStatusNormal = 1, kStatusBusy = 2, kStatusUnmounting = 3 };

// Flag positions in VfsNode::flags.
enum FlagIndex : int {
    kOwnerR,
    kOwnerW,
    kOwnerX,
    kGroupR,
    kGroupW,
    kGroupX,
    kOtherR,
    kOtherW,
    kOtherX
};

struct VfsNode {
    std::string name;  // last path component, exactly as on the host; empty for the root
    uint32_t size = 0; // low 32 bits of the host size when the node was made; 0 for dirs
    char kind = '-';   // 'd' directory, '-' file
    std::atomic<uint8_t> status{kStatusNormal};
    std::shared_ptr<MountRec> mount; // the mount the node lies under; null under the home
    std::shared_ptr<User> creator;
    std::shared_ptr<User> owner;
    // owner rwx, group rwx, other rwx; normally 0 or 1 (any non-zero value grants access,
    // only 1 is shown as granted in listings).
    std::array<uint8_t, 9> flags{};
    std::shared_ptr<Group> group;  // may be null
    std::weak_ptr<VfsNode> parent; // empty for the root and for nodes unlinked from the tree
    std::vector<std::shared_ptr<VfsNode>> children; // chain order; new children appended
    // Directories with live_tree on: the host directory's modification time (ns) when the
    // children were last brought in step with it; 0 = not compared yet.
    int64_t host_mtime_ns = 0;

    bool is_dir() const { return kind == 'd'; }
    std::shared_ptr<VfsNode> parent_node() const { return parent.lock(); }
};

using NodePtr = std::shared_ptr<VfsNode>;

} // namespace orv
