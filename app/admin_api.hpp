#pragma once
// The desktop's administration interface: each operation runs on the event thread and the
// caller (the GUI thread) waits for its result. When the event loop has already stopped, an
// operation does nothing and gives an empty result.
#include "app/admin_accounts.hpp"
#include "app/admin_mounts.hpp"
#include "app/admin_settings.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace orv {

class ServerApp;

class AdminApi {
  public:
    explicit AdminApi(ServerApp& app) : app_(app) {}

    ServerApp& app() { return app_; }
    std::filesystem::path start_dir() const;

    // Server Settings.
    SettingsForm settings_form();
    bool save_settings(const SettingsForm& form); // true: the home directory changed
    void apply_services(const SettingsForm& form);

    // Users and groups.
    std::vector<std::string> user_names();
    std::optional<UserView> user(const std::string& name);
    UserSaveResult save_user(const UserForm& form);
    bool delete_user(const std::string& name);
    std::vector<std::string> group_names();
    std::optional<GroupView> group(const std::string& name);
    GroupSaveResult save_group(const std::string& name, const std::vector<std::string>& selected);
    bool delete_group(const std::string& name);

    // Mounts.
    MountFormResult check_mount(const MountForm& form);
    std::vector<std::string> mount_lines();
    std::optional<MountPaths> find_mount(const std::string& line);
    void add_mount(const std::string& real_dir, const std::string& mount_point);
    MountChange edit_mount(const std::string& line, const std::string& real_dir,
                           const std::string& mount_point);
    MountChange delete_mount(const std::string& line);
    std::vector<std::string> vfs_child_dirs(const std::string& virtual_path);

  private:
    template <typename T, typename Fn> T call(T fallback, Fn&& fn);
    ServerApp& app_;
};

} // namespace orv
