#include "app/admin_api.hpp"

#include "app/admin_call.hpp"
#include "app/server_app.hpp"

namespace orv {

template <typename T, typename Fn> T AdminApi::call(T fallback, Fn&& fn) {
    T result = std::move(fallback);
    run_on_event_thread(app_.server(), [&] { result = fn(app_.server()); });
    return result;
}

std::filesystem::path AdminApi::start_dir() const {
    return app_.server().start_dir;
}

SettingsForm AdminApi::settings_form() {
    return call(SettingsForm{}, [](Server& s) { return current_settings_form(s); });
}

bool AdminApi::save_settings(const SettingsForm& form) {
    return call(false, [&](Server& s) { return save_settings_form(s, form); });
}

void AdminApi::apply_services(const SettingsForm& form) {
    call(0, [&](Server&) {
        apply_service_settings(app_, form);
        return 0;
    });
}

std::vector<std::string> AdminApi::user_names() {
    return call(std::vector<std::string>{}, [](Server& s) { return orv::user_names(s); });
}

std::optional<UserView> AdminApi::user(const std::string& name) {
    return call(std::optional<UserView>{}, [&](Server& s) { return user_view(s, name); });
}

UserSaveResult AdminApi::save_user(const UserForm& form) {
    UserSaveResult stopped;
    stopped.refusal = AdminRefusal{"Error", "The server has stopped."};
    return call(stopped, [&](Server& s) { return orv::save_user(s, form); });
}

bool AdminApi::delete_user(const std::string& name) {
    return call(false, [&](Server& s) { return orv::delete_user(s, name); });
}

std::vector<std::string> AdminApi::group_names() {
    return call(std::vector<std::string>{}, [](Server& s) { return orv::group_names(s); });
}

std::optional<GroupView> AdminApi::group(const std::string& name) {
    return call(std::optional<GroupView>{}, [&](Server& s) { return group_view(s, name); });
}

GroupSaveResult AdminApi::save_group(const std::string& name,
                                     const std::vector<std::string>& selected) {
    GroupSaveResult stopped;
    stopped.refusal = AdminRefusal{"Error", "The server has stopped."};
    return call(stopped, [&](Server& s) { return orv::save_group(s, name, selected); });
}

bool AdminApi::delete_group(const std::string& name) {
    return call(false, [&](Server& s) { return orv::delete_group(s, name); });
}

MountFormResult AdminApi::check_mount(const MountForm& form) {
    MountFormResult stopped;
    stopped.refusal = "The server has stopped.";
    return call(stopped, [&](Server& s) { return check_mount_form(s, form); });
}

std::vector<std::string> AdminApi::mount_lines() {
    return call(std::vector<std::string>{}, [](Server& s) { return mount_list_lines(s); });
}

std::optional<MountPaths> AdminApi::find_mount(const std::string& line) {
    return call(std::optional<MountPaths>{}, [&](Server& s) { return find_mount_line(s, line); });
}

void AdminApi::add_mount(const std::string& real_dir, const std::string& mount_point) {
    call(0, [&](Server& s) {
        orv::add_mount(s, real_dir, mount_point);
        return 0;
    });
}

MountChange AdminApi::edit_mount(const std::string& line, const std::string& real_dir,
                                 const std::string& mount_point) {
    return call(MountChange::NoSuchMount,
                [&](Server& s) { return orv::edit_mount(s, line, real_dir, mount_point); });
}

MountChange AdminApi::delete_mount(const std::string& line) {
    return call(MountChange::NoSuchMount, [&](Server& s) { return orv::delete_mount(s, line); });
}

std::vector<std::string> AdminApi::vfs_child_dirs(const std::string& virtual_path) {
    return call(std::vector<std::string>{},
                [&](Server& s) { return orv::vfs_child_dirs(s, virtual_path); });
}

} // namespace orv
