#pragma once
// The user and group lists with their files. All members are called with the server's tree
// lock held (shared for look-ups, exclusive for changes), except at start-up and shutdown.
#include "accounts/group.hpp"
#include "accounts/user.hpp"

#include <atomic>
#include <deque>
#include <filesystem>
#include <memory>
#include <string_view>

namespace orv {

class Log;

class Accounts {
  public:
    explicit Accounts(std::atomic<long>* memory_counter = nullptr) : memory_(memory_counter) {}
    ~Accounts();

    // Lists, head (newest) first.
    const std::deque<std::shared_ptr<User>>& users() const { return users_; }
    const std::deque<std::shared_ptr<Group>>& groups() const { return groups_; }

    // Exact, case-sensitive look-ups; null when none.
    std::shared_ptr<User> find_user(std::string_view name) const;
    std::shared_ptr<Group> find_group(std::string_view name) const;
    // The user named `name`, or a record made on the spot with that name and ID 65535,
    // pushed at the head (the made-up "root" and owners of fpl.txt no longer in `users`).
    std::shared_ptr<User> find_or_make_user(std::string_view name);
    std::shared_ptr<User> root_user() { return find_or_make_user("root"); }

    // Smallest free ID: 10..99 for a super user, 101..29999 otherwise; -1 when all are taken.
    int next_free_uid(bool super_user) const;
    // Smallest free group ID from 101 to 29999; -1 when all are taken.
    int next_free_gid() const;

    void push_user(std::shared_ptr<User> user);
    void push_group(std::shared_ptr<Group> group);
    // Removes the account from the list and from every group's member chain.
    void remove_user(const std::shared_ptr<User>& user);
    // Removes the group from the list and from every user's memberships.
    void remove_group(const std::shared_ptr<Group>& group);
    // Adds or removes one membership, keeping both chains in step.
    void add_member(Group& group, User& user);
    void remove_member(Group& group, User& user);

    // The files. Readers log as documented; writers are atomic; `users` is created 0600.
    void read_users(const std::filesystem::path& path, Log& log);
    void read_groups(const std::filesystem::path& path, Log& log);
    void link_groups(const std::filesystem::path& path, Log& log);
    bool save_users(const std::filesystem::path& path) const;
    bool save_groups(const std::filesystem::path& path) const;
    std::string users_text() const;
    std::string groups_text() const;

    static constexpr long kUserRecordSize = 392;
    static constexpr long kGroupRecordSize = 48;

  private:
    void count(long bytes);
    std::atomic<long>* memory_;
    std::deque<std::shared_ptr<User>> users_;
    std::deque<std::shared_ptr<Group>> groups_;
};

// Parses one `users` line (already cut at its line end) into a record; fields past their
// limit are cut.
std::shared_ptr<User> parse_user_line(std::string_view line);

} // namespace orv
