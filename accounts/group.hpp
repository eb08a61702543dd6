#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace orv {

struct User;

constexpr size_t kMaxGroupName = 33;

struct Group {
    int16_t gid = 0;
    std::string name;
    // Members in chain order; guarded by the server's tree lock.
    std::vector<User*> members;

    User* find_member(std::string_view name) const;
};

} // namespace orv
