#include "accounts/user.hpp"
#include "vfs/tree.hpp"

namespace orv {

namespace {

// Owner, group and other flags or-ed together: the "other" flag applies to everybody, also to
// the owner and the group's members.
bool access_allowed(const User* user, const VfsNode& node, int owner_flag, int group_flag,
                    int other_flag) {
    if (node.status.load() == kStatusUnmounting)
        return false; // even for a super user
    if (!user)
        return false; // no completed login
    if (user->is_super())
        return true;
    bool allowed = false;
    if (node.owner.get() == user)
        allowed = node.flags[owner_flag] != 0;
    if (node.group && user->in_group(node.group.get()))
        allowed = allowed || node.flags[group_flag] != 0;
    return allowed || node.flags[other_flag] != 0;
}

} // namespace

bool can_read(const User* user, const VfsNode& node) {
    return access_allowed(user, node, kOwnerR, kGroupR, kOtherR);
}

bool can_write(const User* user, const VfsNode& node) {
    return access_allowed(user, node, kOwnerW, kGroupW, kOtherW);
}

bool can_read_path(const User* user, const VfsNode& node) {
    // The walk up the ancestors only ever or-s into a result that is already non-zero, so the
    // node's own answer is final: reading a file needs no read permission on its directories.
    return can_read(user, node);
}

bool may_change_owner_fields(const User* user, const VfsNode& node) {
    if (!user)
        return false;
    return user->is_super() || node.owner.get() == user;
}

} // namespace orv
