#include "app/admin_accounts.hpp"

#include "accounts/accounts.hpp"
#include "accounts/password.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <functional>
#include <mutex>
#include <shared_mutex>

namespace orv {
namespace {

// Log lines are collected under the tree lock and written after it is released.
void log_all(Server& server, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        server.log_message(line);
}

bool is_placeholder(const User& user) {
    return static_cast<uint16_t>(user.uid) == 65535;
}

void for_each_node(const NodePtr& node, const std::function<void(VfsNode&)>& fn) {
    if (!node)
        return;
    fn(*node);
    for (const NodePtr& child : node->children)
        for_each_node(child, fn);
}

bool owns_files(const Server& server, const std::shared_ptr<User>& user) {
    bool owns = false;
    if (server.vfs)
        for_each_node(server.vfs->root, [&](VfsNode& n) { owns = owns || n.owner == user; });
    return owns;
}

// `keep_password`: the account's password is stored as a hash, which is never shown, and the
// field was left empty: the password stays as it is.
std::optional<AdminRefusal> check_user_form(const UserForm& form, bool keep_password) {
    if (!keep_password && password_rule(form.name, form.password) <= 0)
        return AdminRefusal{"Error", "Invalid password pick a different one!"};
    // The `users`, `groups` and fpl.txt lines separate fields with ":" and end at a line end:
    // a name or home directory holding one would let the next start read an account (a super
    // user, say) that nobody added.
    if (contains_any(form.name, ":\r\n"))
        return AdminRefusal{"Error", "Invalid user name!"};
    if (contains_any(form.home_dir, "\r\n"))
        return AdminRefusal{"Error", "Invalid home directory!"};
    return std::nullopt;
}

void fill_user(User& user, const UserForm& form, const std::optional<std::string>& stored) {
    if (stored)
        user.password = *stored;
    user.max_logins = static_cast<int16_t>(to_long(form.max_logins));
    user.home_dir = form.home_dir.substr(0, kMaxHomeDir);
    // The rights are rebuilt from the boxes, never merged.
    user.conn_flags = form.rights & (kRightTelnetIn | kRightFtpIn | kRightTelnetOut | kRightFtpOut);
}

AdminRefusal no_free_uid() {
    return {"Error", "No free user id left!"};
}

} // namespace

std::vector<std::string> user_names(const Server& server) {
    std::shared_lock lock(server.tree_mutex);
    std::vector<std::string> names;
    if (server.accounts)
        for (const auto& u : server.accounts->users())
            names.push_back(u->name);
    return names;
}

std::optional<UserView> user_view(const Server& server, const std::string& name) {
    std::shared_lock lock(server.tree_mutex);
    if (!server.accounts)
        return std::nullopt;
    std::shared_ptr<User> u = server.accounts->find_user(name);
    if (!u)
        return std::nullopt;
    UserView v;
    v.name = u->name;
    v.uid = static_cast<uint16_t>(u->uid);
    v.password = u->password.empty() ? "" : decode_password(u->name, u->password);
    v.super_user = u->is_super();
    v.max_logins = u->max_logins;
    v.home_dir = u->home_dir;
    v.rights = u->conn_flags;
    for (const Group* g : u->memberships)
        v.groups.push_back(g->name);
    return v;
}

UserSaveResult save_user(Server& server, const UserForm& typed) {
    UserForm form = typed;
    form.name = form.name.substr(0, kMaxUserName);
    UserSaveResult result;
    bool keep_password = form.keep_password;
    if (!keep_password && form.password.empty()) {
        std::shared_lock lock(server.tree_mutex);
        std::shared_ptr<User> user =
            server.accounts ? server.accounts->find_user(form.name) : nullptr;
        keep_password = user && is_hashed_password(user->password);
    }
    if (auto refusal = check_user_form(form, keep_password)) {
        result.refusal = refusal;
        return result;
    }
    // Hashing takes a moment: never under the tree lock.
    std::optional<std::string> stored;
    if (!keep_password)
        stored = store_password(form.name, form.password, server.guard.settings().password_hash)
                     .value_or("");
    std::vector<std::string> lines;
    {
        std::unique_lock lock(server.tree_mutex);
        if (!server.accounts)
            server.accounts = std::make_shared<Accounts>(&server.memory_allocated);
        Accounts& accounts = *server.accounts;
        std::shared_ptr<User> user = accounts.find_user(form.name);
        if (!user) {
            int uid = accounts.next_free_uid(form.super_user);
            if (uid < 0) {
                result.refusal = no_free_uid();
                return result;
            }
            user = std::make_shared<User>();
            user->name = form.name;
            user->uid = static_cast<int16_t>(uid);
            fill_user(*user, form, stored);
            accounts.push_user(user);
            lines.push_back(strf("Added User (%s)", form.name.c_str()));
        } else if (!is_placeholder(*user)) {
            // Any ID below 100 is a super user's, a negative one (read from `users`) too;
            // only a change of class asks for a new ID.
            int uid = user->uid;
            if ((uid >= 100) == form.super_user) {
                uid = accounts.next_free_uid(form.super_user);
                if (uid < 0) {
                    result.refusal = no_free_uid();
                    return result;
                }
            }
            fill_user(*user, form, stored);
            user->uid = static_cast<int16_t>(uid);
            lines.push_back(strf("Updated User (%s)", form.name.c_str()));
        } else {
            // A name that owns files but had no account: the nodes already point at it.
            int uid = accounts.next_free_uid(form.super_user);
            if (uid < 0) {
                result.refusal = no_free_uid();
                return result;
            }
            fill_user(*user, form, stored);
            user->uid = static_cast<int16_t>(uid);
            lines.push_back(strf("Added User (%s), already owns file(s)", form.name.c_str()));
        }
        result.uid = static_cast<uint16_t>(user->uid);
    }
    log_all(server, lines);
    return result;
}

bool delete_user(Server& server, const std::string& name) {
    std::vector<std::string> lines;
    {
        std::unique_lock lock(server.tree_mutex);
        if (!server.accounts)
            return false;
        Accounts& accounts = *server.accounts;
        std::shared_ptr<User> user = accounts.find_user(name);
        if (!user)
            return false;
        bool owns = owns_files(server, user);
        for (Group* g : std::vector<Group*>(user->memberships)) {
            lines.push_back(
                strf("Removed User (%s) from Group (%s)", user->name.c_str(), g->name.c_str()));
            accounts.remove_member(*g, *user);
        }
        if (owns && !is_placeholder(*user)) {
            // The files pass to a fresh placeholder that nobody can log in as. The old record
            // is not turned into the placeholder itself: sessions still logged in hold it,
            // and an ID of 65535 would make them super users.
            auto placeholder = std::make_shared<User>();
            placeholder->uid = kPlaceholderUid;
            placeholder->name = user->name;
            for_each_node(server.vfs->root, [&](VfsNode& n) {
                if (n.owner == user)
                    n.owner = placeholder;
                if (n.creator == user)
                    n.creator = placeholder;
            });
            accounts.remove_user(user);
            accounts.push_user(placeholder);
        } else if (!owns) {
            accounts.remove_user(user);
        }
        lines.push_back(owns ? strf("Deleted User (%s), owns file(s)", name.c_str())
                             : strf("Deleted User (%s)", name.c_str()));
    }
    log_all(server, lines);
    return true;
}

std::vector<std::string> group_names(const Server& server) {
    std::shared_lock lock(server.tree_mutex);
    std::vector<std::string> names;
    if (server.accounts)
        for (const auto& g : server.accounts->groups())
            names.push_back(g->name);
    return names;
}

std::optional<GroupView> group_view(const Server& server, const std::string& name) {
    std::shared_lock lock(server.tree_mutex);
    if (!server.accounts)
        return std::nullopt;
    std::shared_ptr<Group> g = server.accounts->find_group(name);
    if (!g)
        return std::nullopt;
    GroupView v;
    v.name = g->name;
    v.gid = g->gid;
    for (const User* u : g->members)
        v.members.push_back(u->name);
    return v;
}

GroupSaveResult save_group(Server& server, const std::string& typed_name,
                           const std::vector<std::string>& selected) {
    std::string name = typed_name.substr(0, 31);
    GroupSaveResult result;
    if (name.empty()) {
        result.refusal = AdminRefusal{"Error", "Group name required!"};
        return result;
    }
    if (contains_any(name, ":\r\n")) {
        result.refusal = AdminRefusal{"Error", "Invalid group name!"};
        return result;
    }
    std::vector<std::string> lines;
    {
        std::unique_lock lock(server.tree_mutex);
        if (!server.accounts)
            server.accounts = std::make_shared<Accounts>(&server.memory_allocated);
        Accounts& accounts = *server.accounts;
        std::shared_ptr<Group> group = accounts.find_group(name);
        if (!group) {
            int gid = accounts.next_free_gid();
            if (gid < 0) {
                result.refusal = AdminRefusal{"Error", "No free group id left!"};
                return result;
            }
            group = std::make_shared<Group>();
            group->name = name;
            group->gid = static_cast<int16_t>(gid);
            accounts.push_group(group);
            result.added = true;
            lines.push_back(strf("Added Group (%s)", name.c_str()));
        }
        result.gid = group->gid;
        std::vector<User*> wanted;
        for (const std::string& member : selected) {
            std::shared_ptr<User> user = accounts.find_user(member);
            if (!user || std::find(wanted.begin(), wanted.end(), user.get()) != wanted.end())
                continue;
            wanted.push_back(user.get());
            if (!user->in_group(group.get())) {
                accounts.add_member(*group, *user);
                lines.push_back(
                    strf("Added User (%s) to Group (%s).", user->name.c_str(), name.c_str()));
            }
        }
        for (User* member : std::vector<User*>(group->members)) {
            if (std::find(wanted.begin(), wanted.end(), member) != wanted.end())
                continue;
            accounts.remove_member(*group, *member);
            lines.push_back(
                strf("Removed User (%s) from Group (%s).", member->name.c_str(), name.c_str()));
        }
    }
    log_all(server, lines);
    return result;
}

bool delete_group(Server& server, const std::string& name) {
    std::vector<std::string> lines;
    bool found = false;
    {
        std::unique_lock lock(server.tree_mutex);
        std::shared_ptr<Group> group =
            server.accounts ? server.accounts->find_group(name) : nullptr;
        if (group) {
            found = true;
            for (User* member : std::vector<User*>(group->members)) {
                lines.push_back(strf("Removed User (%s) from Group (%s)", member->name.c_str(),
                                     group->name.c_str()));
                server.accounts->remove_member(*group, *member);
            }
            server.accounts->remove_group(group);
            lines.push_back(strf("Deleted Group (%s)", name.c_str()));
        } else {
            lines.push_back(strf("*** Could not find Group (%s) for delete! ***", name.c_str()));
        }
    }
    log_all(server, lines);
    return found;
}

} // namespace orv
