#pragma once
// Accounts: users and groups, kept newest first as they are read or added.
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace orv {

struct Group;

// Connection rights (conn_flags bits).
constexpr uint16_t kRightTelnetIn = 8;
constexpr uint16_t kRightFtpIn = 4;
constexpr uint16_t kRightTelnetOut = 2;
constexpr uint16_t kRightFtpOut = 1;

// The made-up account ID: -1 as a signed 16-bit number, never written to `users`.
constexpr int16_t kPlaceholderUid = -1; // 65535

// Field limits of the stored records.
constexpr size_t kMaxUserName = 31;
constexpr size_t kMaxPassword = 31;
// A password stored as a salted hash (password_hash=1) is longer than the reversible form;
// the field takes it up to this length.
constexpr size_t kMaxHashedPassword = 127;
constexpr size_t kMaxHomeDir = 259;

struct User {
    int16_t uid = 0;
    std::string name;
    std::string password; // the stored (encoded or hashed) form, never the clear text
    int16_t max_logins = 0;
    std::atomic<int16_t> active_logins{0}; // not saved
    uint16_t conn_flags = 0;
    std::string home_dir; // virtual path where a login starts
    // Groups this user belongs to; guarded by the server's tree lock.
    std::vector<Group*> memberships;

    // Any ID below 100, taken as signed (so also the made-up 65535), is a super user.
    bool is_super() const { return uid < 100; }
    bool has_right(uint16_t right) const { return (conn_flags & right) != 0; }
    bool in_group(const Group* group) const;
};

} // namespace orv
