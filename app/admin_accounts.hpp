#pragma once
// The User Settings and Group settings dialogs' rules without the dialogs: adding, updating
// and deleting users and groups with their log lines. Every function runs on the event thread
// and takes the tree lock itself (exclusive for changes).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orv {

class Server;

// A refusal shown in a message box; nothing has changed when one is given.
struct AdminRefusal {
    std::string title;
    std::string text;
};

// ---- Users ----

struct UserForm {
    std::string name;
    std::string password;       // clear text
    bool keep_password = false; // an update that leaves the stored password as it is
    bool super_user = false;
    std::string max_logins;
    std::string home_dir;
    uint16_t rights = 0; // kRightTelnetIn | kRightFtpIn | kRightTelnetOut | kRightFtpOut
};

// What the dialog shows for one account.
struct UserView {
    std::string name;
    int uid = 0; // as the dialog shows it: 65535 for a placeholder
    std::string password;
    bool super_user = false;
    int max_logins = 0;
    std::string home_dir;
    uint16_t rights = 0;
    std::vector<std::string> groups;
};

struct UserSaveResult {
    std::optional<AdminRefusal> refusal;
    int uid = 0; // the account's ID after the save
};

// User names in list order (newest first), placeholders included.
std::vector<std::string> user_names(const Server& server);
std::optional<UserView> user_view(const Server& server, const std::string& name);

// Add/Save: a new name is added with an ID of the class the Super-User box asks for; a known
// name is updated (rights rebuilt from the boxes, a new ID when the class changes); a
// placeholder that owns files becomes an account again.
UserSaveResult save_user(Server& server, const UserForm& form);
// Takes the user out of its groups and deletes it; a user who owns files leaves a placeholder
// of the same name behind. False when no user has the name.
bool delete_user(Server& server, const std::string& name);

// ---- Groups ----

struct GroupView {
    std::string name;
    int gid = 0;
    std::vector<std::string> members;
};

struct GroupSaveResult {
    std::optional<AdminRefusal> refusal;
    bool added = false;
    int gid = 0;
};

std::vector<std::string> group_names(const Server& server);
std::optional<GroupView> group_view(const Server& server, const std::string& name);
// Add/Save: adds the group when new, then makes `selected` (user names) its members.
GroupSaveResult save_group(Server& server, const std::string& name,
                           const std::vector<std::string>& selected);
// Deletes the group (logging each member taken out); false when no group has the name.
bool delete_group(Server& server, const std::string& name);

} // namespace orv
