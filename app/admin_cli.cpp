#include "app/admin_cli.hpp"

#include "accounts/user.hpp"
#include "app/admin_accounts.hpp"
#include "app/admin_mounts.hpp"
#include "app/admin_settings.hpp"
#include "app/server_app.hpp"
#include "core/conn_slot.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <mutex>
#include <shared_mutex>

namespace orv {
namespace {

constexpr int kRefused = 1;
constexpr int kNotUnderstood = 2;

AdminOutcome refused(std::string text) {
    return {kRefused, "", text + "\n"};
}

AdminOutcome not_understood(const std::string& text) {
    return {kNotUnderstood, "", "orvane-server admin: " + text + "\n"};
}

// A message box's text may break its line with "\r\n": one line on a terminal.
std::string one_line(std::string text) {
    for (size_t at; (at = text.find("\r\n")) != std::string::npos;)
        text.replace(at, 2, " ");
    return text;
}

std::string join(const std::vector<std::string>& items, const char* sep) {
    std::string out;
    for (const std::string& item : items)
        out += (out.empty() ? "" : sep) + item;
    return out;
}

struct RightName {
    const char* name;
    uint16_t bit;
};
constexpr RightName kRightNames[] = {{"telnet-in", kRightTelnetIn},
                                     {"ftp-in", kRightFtpIn},
                                     {"telnet-out", kRightTelnetOut},
                                     {"ftp-out", kRightFtpOut}};

std::string rights_text(uint16_t rights) {
    std::vector<std::string> names;
    for (const RightName& r : kRightNames)
        if (rights & r.bit)
            names.push_back(r.name);
    return names.empty() ? "none" : join(names, ",");
}

// "15", "none" or names joined by ",": "ftp-in,telnet-in".
std::optional<uint16_t> parse_rights(const std::string& text) {
    if (is_decimal_number(text)) {
        long n = to_long(text);
        if (n < 0 || n > 15)
            return std::nullopt;
        return static_cast<uint16_t>(n);
    }
    uint16_t rights = 0;
    if (text == "none")
        return rights;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = std::min(text.find(',', start), text.size());
        std::string word = text.substr(start, end - start);
        auto it = std::find_if(std::begin(kRightNames), std::end(kRightNames),
                               [&](const RightName& r) { return word == r.name; });
        if (it == std::end(kRightNames))
            return std::nullopt;
        rights |= it->bit;
        start = end + 1;
    }
    return rights;
}

// The options of `user add` and `user set`; each one given replaces the account's value.
struct UserOptions {
    std::optional<bool> super_user;
    std::optional<std::string> max_logins;
    std::optional<std::string> home;
    std::optional<uint16_t> rights;
};

std::optional<std::string> parse_user_options(const std::vector<std::string>& args, size_t from,
                                              UserOptions& o) {
    for (size_t i = from; i < args.size(); ++i) {
        const std::string& a = args[i];
        bool has_value = i + 1 < args.size();
        if (a == "--super") {
            o.super_user = true;
        } else if (a == "--no-super") {
            o.super_user = false;
        } else if (a == "--max-logins" && has_value) {
            o.max_logins = args[++i];
            if (!is_decimal_number(*o.max_logins))
                return "--max-logins needs a number";
        } else if (a == "--home" && has_value) {
            o.home = args[++i];
        } else if (a == "--rights" && has_value) {
            o.rights = parse_rights(args[++i]);
            if (!o.rights)
                return "--rights takes 0 to 15, none, or names from telnet-in,ftp-in,"
                       "telnet-out,ftp-out";
        } else {
            return "unknown or incomplete option: " + a;
        }
    }
    return std::nullopt;
}

void apply_user_options(UserForm& form, const UserOptions& o) {
    if (o.super_user)
        form.super_user = *o.super_user;
    if (o.max_logins)
        form.max_logins = *o.max_logins;
    if (o.home)
        form.home_dir = *o.home;
    if (o.rights)
        form.rights = *o.rights;
}

bool is_account(const std::optional<UserView>& view) {
    return view && view->uid != 65535;
}

// The account as it is; its stored password is kept unless a new one is given.
UserForm form_of(const UserView& view) {
    UserForm form;
    form.name = view.name;
    form.keep_password = true;
    form.super_user = view.super_user;
    form.max_logins = std::to_string(view.max_logins);
    form.home_dir = view.home_dir;
    form.rights = view.rights;
    return form;
}

AdminOutcome saved(const UserSaveResult& r) {
    if (r.refusal)
        return refused(r.refusal->text);
    return {};
}

AdminOutcome user_command(Server& server, const AdminRequest& req) {
    const auto& a = req.args;
    const std::string verb = a.size() > 1 ? a[1] : "";
    if (verb == "list" && a.size() == 2) {
        AdminOutcome o;
        for (const std::string& name : user_names(server)) {
            // Names that only own files (the made-up "root" among them) have no account.
            std::optional<UserView> v = user_view(server, name);
            if (!is_account(v))
                continue;
            o.out += strf("%s uid=%d max_logins=%d rights=%s home=%s groups=%s\n", v->name.c_str(),
                          v->uid, v->max_logins, rights_text(v->rights).c_str(),
                          v->home_dir.c_str(), join(v->groups, ",").c_str());
        }
        return o;
    }
    if (a.size() < 3)
        return not_understood("user add|set|del|passwd NAME, or user list");
    const std::string& name = a[2];
    std::optional<UserView> view = user_view(server, name);
    if (verb == "add" || verb == "set") {
        UserOptions options;
        if (auto error = parse_user_options(a, 3, options))
            return not_understood(*error);
        UserForm form;
        if (verb == "add") {
            if (is_account(view))
                return refused(strf("User (%s) already exists", name.c_str()));
            if (!req.password)
                return not_understood("a new account needs a password");
            form.name = name;
            form.password = *req.password;
            form.max_logins = "1";
            form.home_dir = "\\";
            form.rights = kRightFtpIn;
        } else {
            if (!is_account(view))
                return refused(strf("No such user (%s)", name.c_str()));
            form = form_of(*view);
        }
        apply_user_options(form, options);
        return saved(save_user(server, form));
    }
    if (a.size() != 3)
        return not_understood("too many arguments");
    if (verb == "passwd") {
        if (!is_account(view))
            return refused(strf("No such user (%s)", name.c_str()));
        if (!req.password)
            return not_understood("no password given");
        UserForm form = form_of(*view);
        form.password = *req.password;
        form.keep_password = false;
        return saved(save_user(server, form));
    }
    if (verb == "del") {
        if (!delete_user(server, name))
            return refused(strf("No such user (%s)", name.c_str()));
        return {};
    }
    return not_understood("unknown user command: " + verb);
}

AdminOutcome group_saved(const GroupSaveResult& r) {
    if (r.refusal)
        return refused(r.refusal->text);
    return {};
}

std::optional<std::string> unknown_user(const Server& server,
                                        const std::vector<std::string>& names) {
    for (const std::string& name : names)
        if (!is_account(user_view(server, name)))
            return strf("No such user (%s)", name.c_str());
    return std::nullopt;
}

AdminOutcome group_command(Server& server, const AdminRequest& req) {
    const auto& a = req.args;
    const std::string verb = a.size() > 1 ? a[1] : "";
    if (verb == "list" && a.size() == 2) {
        AdminOutcome o;
        for (const std::string& name : group_names(server))
            if (std::optional<GroupView> g = group_view(server, name))
                o.out += strf("%s gid=%d members=%s\n", g->name.c_str(), g->gid,
                              join(g->members, ",").c_str());
        return o;
    }
    if (a.size() < 3)
        return not_understood("group add|del|members NAME, or group list");
    const std::string& name = a[2];
    std::optional<GroupView> group = group_view(server, name);
    if (verb == "add") {
        if (group)
            return refused(strf("Group (%s) already exists", name.c_str()));
        std::vector<std::string> members(a.begin() + 3, a.end());
        if (auto error = unknown_user(server, members))
            return refused(*error);
        return group_saved(save_group(server, name, members));
    }
    if (verb == "del") {
        if (a.size() != 3)
            return not_understood("too many arguments");
        LogCapture quiet; // the refusal below says it; the log keeps the line as well
        if (!delete_group(server, name))
            return refused(strf("*** Could not find Group (%s) for delete! ***", name.c_str()));
        AdminOutcome o;
        for (const std::string& line : quiet.lines)
            o.out += line + "\n";
        return o;
    }
    if (verb == "members") {
        if (!group)
            return refused("Could not find group info!");
        if (a.size() == 3) {
            AdminOutcome o;
            for (const std::string& member : group->members)
                o.out += member + "\n";
            return o;
        }
        const std::string& mode = a[3];
        std::vector<std::string> names(a.begin() + 4, a.end());
        if (auto error = unknown_user(server, names))
            return refused(*error);
        std::vector<std::string> selected = group->members;
        if (mode == "--set") {
            selected = names;
        } else if (mode == "--add") {
            selected.insert(selected.end(), names.begin(), names.end());
        } else if (mode == "--remove") {
            std::erase_if(selected, [&](const std::string& m) {
                return std::find(names.begin(), names.end(), m) != names.end();
            });
        } else {
            return not_understood("group members NAME [--set|--add|--remove USER...]");
        }
        return group_saved(save_group(server, name, selected));
    }
    return not_understood("unknown group command: " + verb);
}

// The mount whose mount point is `target` ("\pub\data"; "/pub/data" is the same).
std::optional<std::string> mount_line_at(const Server& server, const std::string& target) {
    std::string point = normalize_mount_to(target);
    std::shared_lock lock(server.tree_mutex);
    if (server.vfs)
        for (const auto& m : server.vfs->mounts)
            if (m->mount_point == point)
                return mount_list_line(*m);
    return std::nullopt;
}

MountFormResult check_target(const Server& server, const std::string& real,
                             const std::string& target, bool edit) {
    MountForm form;
    form.mount = real;
    split_mount_target(normalize_mount_to(target), form.mount_to, form.as);
    form.edit = edit;
    return check_mount_form(server, form);
}

// With no server running the list is edited as the mounts file holds it; the mounts happen at
// the next start.
void replace_mount_offline(Server& server, const std::string& line,
                           std::shared_ptr<MountRec> replacement) {
    std::unique_lock lock(server.tree_mutex);
    auto& mounts = server.vfs->mounts;
    for (auto it = mounts.begin(); it != mounts.end(); ++it) {
        if (mount_list_line(**it) != line)
            continue;
        if (replacement)
            *it = std::move(replacement);
        else
            mounts.erase(it);
        return;
    }
    if (replacement)
        mounts.push_back(std::move(replacement));
}

std::shared_ptr<MountRec> mount_rec(const MountFormResult& r) {
    auto m = std::make_shared<MountRec>();
    m->real_dir = r.mount;
    if (m->real_dir.size() > 1 && (m->real_dir.back() == '/' || m->real_dir.back() == '\\'))
        m->real_dir.pop_back();
    m->mount_point = r.target;
    return m;
}

AdminOutcome mount_changed(MountChange change) {
    switch (change) {
    case MountChange::Started:
        return {};
    case MountChange::NoSuchMount:
        return refused("Invalid mount Selected");
    case MountChange::ThreadFailed:
        return refused("**** Failed to create remove mount Thread ****");
    }
    return {};
}

AdminOutcome mount_command(Server& server, ServerApp* app, const AdminRequest& req) {
    const auto& a = req.args;
    const std::string verb = a.size() > 1 ? a[1] : "";
    if (!server.vfs)
        return refused("The server has no file system.");
    if (verb == "list" && a.size() == 2) {
        AdminOutcome o;
        for (const std::string& line : mount_list_lines(server))
            o.out += line + "\n";
        return o;
    }
    if (verb == "add" && a.size() == 4) {
        MountFormResult r = check_target(server, a[2], a[3], false);
        if (r.refusal)
            return refused(one_line(*r.refusal));
        if (app)
            add_mount(server, r.mount, r.target);
        else
            replace_mount_offline(server, "", mount_rec(r));
        return {};
    }
    if (verb == "edit" && (a.size() == 4 || a.size() == 5)) {
        std::optional<std::string> line = mount_line_at(server, a[2]);
        if (!line)
            return refused("Invalid mount Selected");
        MountFormResult r = check_target(server, a[3], a.size() == 5 ? a[4] : a[2], true);
        if (r.refusal)
            return refused(one_line(*r.refusal));
        if (app)
            return mount_changed(edit_mount(server, *line, r.mount, r.target));
        replace_mount_offline(server, *line, mount_rec(r));
        return {};
    }
    if (verb == "del" && a.size() == 3) {
        std::optional<std::string> line = mount_line_at(server, a[2]);
        if (!line)
            return refused("Invalid mount Selected");
        if (app)
            return mount_changed(delete_mount(server, *line));
        replace_mount_offline(server, *line, nullptr);
        return {};
    }
    return not_understood("mount add REAL TARGET | edit TARGET REAL [NEW-TARGET] | del TARGET "
                          "| list");
}

struct SettingKey {
    const char* name;
    std::string SettingsForm::*text;
    bool SettingsForm::*flag;
};
const SettingKey kSettingKeys[] = {
    {"serverhome", &SettingsForm::serverhome, nullptr},
    {"maxusers", &SettingsForm::maxusers, nullptr},
    {"telnet", nullptr, &SettingsForm::telnet},
    {"telnet_port", &SettingsForm::telnet_port, nullptr},
    {"ftp", nullptr, &SettingsForm::ftp},
    {"ftp_port", &SettingsForm::ftp_port, nullptr},
};

std::string setting_value(const SettingsForm& form, const SettingKey& key) {
    return key.text ? form.*key.text : (form.*key.flag ? "1" : "0");
}

AdminOutcome settings_command(Server& server, ServerApp* app, const AdminRequest& req) {
    const auto& a = req.args;
    const std::string verb = a.size() > 1 ? a[1] : "";
    SettingsForm form = current_settings_form(server);
    if (verb == "get" && a.size() <= 3) {
        AdminOutcome o;
        for (const SettingKey& key : kSettingKeys) {
            if (a.size() == 3 && a[2] != key.name)
                continue;
            o.out += a.size() == 3 ? setting_value(form, key) + "\n"
                                   : strf("%s=%s\n", key.name, setting_value(form, key).c_str());
        }
        if (o.out.empty())
            return not_understood("unknown setting: " + a[2]);
        return o;
    }
    if (verb != "set" || a.size() < 3)
        return not_understood("settings get [KEY] | settings set KEY=VALUE...");
    for (size_t i = 2; i < a.size(); ++i) {
        size_t eq = a[i].find('=');
        std::string name = a[i].substr(0, eq);
        auto key = std::find_if(std::begin(kSettingKeys), std::end(kSettingKeys),
                                [&](const SettingKey& k) { return name == k.name; });
        if (eq == std::string::npos || key == std::end(kSettingKeys))
            return not_understood("settings set takes KEY=VALUE with a key of serverhome, "
                                  "maxusers, telnet, telnet_port, ftp, ftp_port");
        std::string value = a[i].substr(eq + 1);
        if (key->text) {
            form.*key->text = value;
        } else if (value == "1" || value == "0") {
            form.*key->flag = value == "1";
        } else {
            return not_understood(name + " is 1 (on) or 0 (off)");
        }
    }
    if (std::optional<SettingsRefusal> refusal = check_settings_form(form, server.start_dir))
        return refused(refusal->text);
    AdminOutcome o;
    if (save_settings_form(server, form))
        o.out = one_line(kHomeChangeInfo) + "\n";
    if (app)
        apply_service_settings(*app, form);
    return o;
}

AdminOutcome who_command(Server& server) {
    AdminOutcome o;
    for (const SlotPtr& slot : server.conns.snapshot()) {
        std::string name = "Login";
        if (std::shared_ptr<User> user = slot->user()) {
            std::shared_lock lock(server.tree_mutex);
            name = user->name;
        }
        std::string address = "-";
        if (slot->peer_known)
            address =
                strf("%u.%u.%u.%u", slot->peer[0], slot->peer[1], slot->peer[2], slot->peer[3]);
        o.out += strf("(%i) %s %s %s\n", slot->socket.load(), service_name(slot->service),
                      name.c_str(), address.c_str());
    }
    return o;
}

} // namespace

bool admin_needs_password(const std::vector<std::string>& args) {
    return args.size() >= 3 && args[0] == "user" && (args[1] == "add" || args[1] == "passwd");
}

std::string admin_usage() {
    return "usage: orvane-server [-C DIR] admin COMMAND\n"
           "  user list\n"
           "  user add NAME [--super] [--max-logins N] [--home DIR] [--rights R]\n"
           "  user set NAME [--super|--no-super] [--max-logins N] [--home DIR] [--rights R]\n"
           "  user passwd NAME\n"
           "  user del NAME\n"
           "  group list\n"
           "  group add NAME [USER...]\n"
           "  group del NAME\n"
           "  group members NAME [--set|--add|--remove USER...]\n"
           "  mount list\n"
           "  mount add REAL-DIR TARGET\n"
           "  mount edit TARGET REAL-DIR [NEW-TARGET]\n"
           "  mount del TARGET\n"
           "  settings get [KEY]\n"
           "  settings set KEY=VALUE...\n"
           "  who\n"
           "  reload\n"
           "R is 0-15, none, or names from telnet-in,ftp-in,telnet-out,ftp-out. A password is\n"
           "read from the terminal (not shown) or from standard input, never from the command\n"
           "line. TARGET is a virtual path such as \\pub\\data.\n";
}

AdminOutcome run_admin_command(Server& server, ServerApp* app, const AdminRequest& request) {
    const auto& a = request.args;
    const std::string topic = a.empty() ? "" : a[0];
    LogCapture capture;
    AdminOutcome o;
    if (topic == "user") {
        o = user_command(server, request);
    } else if (topic == "group") {
        o = group_command(server, request);
    } else if (topic == "mount") {
        o = mount_command(server, app, request);
    } else if (topic == "settings") {
        o = settings_command(server, app, request);
    } else if ((topic == "who" || topic == "reload") && a.size() == 1) {
        if (!app)
            return refused("No server is running in " + server.start_dir.string());
        if (topic == "who")
            o = who_command(server);
        else
            app->reload_settings();
    } else {
        return {kNotUnderstood, "", admin_usage()};
    }
    // What the operation logged tells what it did ("Added User (bob)").
    std::string logged;
    for (const std::string& line : capture.lines)
        logged += line + "\n";
    o.out = logged + o.out;
    return o;
}

} // namespace orv
