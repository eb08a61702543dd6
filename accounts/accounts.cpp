#include "accounts/accounts.hpp"

#include "accounts/password.hpp"
#include "core/log.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"

#include <algorithm>
#include <sys/stat.h>

namespace orv {

bool User::in_group(const Group* group) const {
    return std::find(memberships.begin(), memberships.end(), group) != memberships.end();
}

User* Group::find_member(std::string_view member_name) const {
    for (User* u : members)
        if (u->name == member_name)
            return u;
    return nullptr;
}

Accounts::~Accounts() {
    count(-static_cast<long>(users_.size()) * kUserRecordSize -
          static_cast<long>(groups_.size()) * kGroupRecordSize);
}

void Accounts::count(long bytes) {
    if (memory_)
        *memory_ += bytes;
}

std::shared_ptr<User> Accounts::find_user(std::string_view name) const {
    for (const auto& u : users_)
        if (u->name == name)
            return u;
    return nullptr;
}

std::shared_ptr<Group> Accounts::find_group(std::string_view name) const {
    for (const auto& g : groups_)
        if (g->name == name)
            return g;
    return nullptr;
}

std::shared_ptr<User> Accounts::find_or_make_user(std::string_view name) {
    if (auto u = find_user(name))
        return u;
    auto u = std::make_shared<User>();
    u->uid = kPlaceholderUid;
    u->name = std::string(name.substr(0, kMaxUserName));
    push_user(u);
    return u;
}

int Accounts::next_free_uid(bool super_user) const {
    int lo = super_user ? 10 : 101;
    int hi = super_user ? 99 : 29999;
    std::vector<bool> used(static_cast<size_t>(hi - lo + 1), false);
    for (const auto& u : users_)
        if (u->uid >= lo && u->uid <= hi)
            used[static_cast<size_t>(u->uid - lo)] = true;
    for (int id = lo; id <= hi; ++id)
        if (!used[static_cast<size_t>(id - lo)])
            return id;
    return -1;
}

int Accounts::next_free_gid() const {
    std::vector<bool> used(29999 - 101 + 1, false);
    for (const auto& g : groups_)
        if (g->gid >= 101 && g->gid <= 29999)
            used[static_cast<size_t>(g->gid - 101)] = true;
    for (int id = 101; id <= 29999; ++id)
        if (!used[static_cast<size_t>(id - 101)])
            return id;
    return -1;
}

void Accounts::push_user(std::shared_ptr<User> user) {
    users_.push_front(std::move(user));
    count(kUserRecordSize);
}

void Accounts::push_group(std::shared_ptr<Group> group) {
    groups_.push_front(std::move(group));
    count(kGroupRecordSize);
}

void Accounts::remove_user(const std::shared_ptr<User>& user) {
    auto it = std::find(users_.begin(), users_.end(), user);
    if (it == users_.end())
        return;
    for (Group* g : user->memberships)
        g->members.erase(std::remove(g->members.begin(), g->members.end(), user.get()),
                         g->members.end());
    user->memberships.clear();
    users_.erase(it);
    count(-kUserRecordSize);
}

void Accounts::remove_group(const std::shared_ptr<Group>& group) {
    auto it = std::find(groups_.begin(), groups_.end(), group);
    if (it == groups_.end())
        return;
    for (User* u : group->members)
        u->memberships.erase(std::remove(u->memberships.begin(), u->memberships.end(), group.get()),
                             u->memberships.end());
    group->members.clear();
    groups_.erase(it);
    count(-kGroupRecordSize);
}

void Accounts::add_member(Group& group, User& user) {
    group.members.push_back(&user);
    user.memberships.push_back(&group);
}

void Accounts::remove_member(Group& group, User& user) {
    auto gm = std::find(group.members.begin(), group.members.end(), &user);
    if (gm != group.members.end())
        group.members.erase(gm);
    auto um = std::find(user.memberships.begin(), user.memberships.end(), &group);
    if (um != user.memberships.end())
        user.memberships.erase(um);
}

namespace {

// Splits at ":" into at most `max_fields` fields; the last one takes the rest of the line.
std::vector<std::string_view> split_fields(std::string_view line, size_t max_fields) {
    std::vector<std::string_view> fields;
    while (fields.size() + 1 < max_fields) {
        size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            break;
        fields.push_back(line.substr(0, colon));
        line.remove_prefix(colon + 1);
    }
    fields.push_back(line);
    return fields;
}

std::string cut(std::string_view text, size_t limit) {
    return std::string(text.substr(0, limit));
}

} // namespace

std::shared_ptr<User> parse_user_line(std::string_view line) {
    auto fields = split_fields(line, 6);
    fields.resize(6);
    auto u = std::make_shared<User>();
    u->name = cut(fields[0], kMaxUserName);
    u->uid = static_cast<int16_t>(to_long(fields[1]));
    u->password = cut(fields[2], is_hashed_password(fields[2]) ? kMaxHashedPassword : kMaxPassword);
    u->max_logins = static_cast<int16_t>(to_long(fields[3]));
    u->conn_flags = static_cast<uint16_t>(to_long(fields[4]));
    u->home_dir = cut(fields[5], kMaxHomeDir);
    return u;
}

void Accounts::read_users(const std::filesystem::path& path, Log& log) {
    log.log_message("Initializing Users...");
    // The file holds every account's password: nobody but the server's own user may read it,
    // also before the first orderly shutdown writes it anew.
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 077) != 0)
        ::chmod(path.c_str(), st.st_mode & 0700);
    int n = 0;
    for_each_fgets_line(path, 1024, [&](std::string_view raw) {
        push_user(parse_user_line(cut_line_end(raw)));
        ++n;
    });
    log.logf("Users read = %i", n);
}

void Accounts::read_groups(const std::filesystem::path& path, Log& log) {
    log.log_message("Initializing Groups...");
    int n = 0;
    for_each_fgets_line(path, 1024, [&](std::string_view raw) {
        std::string_view line = cut_line_end(raw);
        auto fields = split_fields(line, 3);
        fields.resize(3);
        auto g = std::make_shared<Group>();
        g->name = cut(fields[0], kMaxGroupName);
        g->gid = static_cast<int16_t>(to_long(fields[1]));
        push_group(g);
        ++n;
    });
    log.logf("Groups read = %i", n);
}

void Accounts::link_groups(const std::filesystem::path& path, Log& log) {
    log.log_message("Linking users into the groups...");
    for_each_fgets_line(path, 1024, [&](std::string_view raw) {
        std::string_view line = cut_line_end(raw);
        size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            return;
        std::string name = cut(line.substr(0, colon), kMaxGroupName);
        std::string_view rest = line.substr(colon + 1);
        if (rest.empty())
            return;
        std::shared_ptr<Group> group = find_group(name);
        if (!group) {
            log.logf("Group (%s) not found.", name.c_str());
            return;
        }
        size_t id_end = rest.find(':');
        if (id_end == std::string_view::npos) {
            log.logf("Group (%s) is empty.", group->name.c_str());
            return;
        }
        rest.remove_prefix(id_end + 1);
        while (true) {
            size_t next = rest.find(':');
            std::string member(rest.substr(0, next));
            if (std::shared_ptr<User> user = find_user(member))
                add_member(*group, *user);
            else
                log.logf("Group (%s) User (%s) doesn't exist.", group->name.c_str(),
                         member.c_str());
            if (next == std::string_view::npos)
                break;
            rest.remove_prefix(next + 1);
        }
    });
    log.log_message("Linking Complete.");
}

std::string Accounts::users_text() const {
    std::string out;
    for (const auto& u : users_) {
        if (u->uid == kPlaceholderUid)
            continue;
        out += strf("%s:%s:%s:%s:%s:%s\n", u->name.c_str(), std::to_string(u->uid).c_str(),
                    u->password.c_str(), std::to_string(u->max_logins).c_str(),
                    std::to_string(u->conn_flags).c_str(), u->home_dir.c_str());
    }
    return out;
}

std::string Accounts::groups_text() const {
    std::string out;
    for (const auto& g : groups_) {
        out += strf("%s:%s", g->name.c_str(), std::to_string(g->gid).c_str());
        for (const User* u : g->members)
            out += ":" + u->name;
        out += "\n";
    }
    return out;
}

bool Accounts::save_users(const std::filesystem::path& path) const {
    return write_file_atomic(path, users_text(), 0600);
}

bool Accounts::save_groups(const std::filesystem::path& path) const {
    return write_file_atomic(path, groups_text(), 0644);
}

} // namespace orv
