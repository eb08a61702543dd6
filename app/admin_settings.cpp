#include "app/admin_settings.hpp"

#include "app/server_app.hpp"
#include "app/start_relative.hpp"
#include "core/server.hpp"
#include "core/settings.hpp"
#include "platform/text.hpp"

#include <unistd.h>

namespace orv {
namespace {

// The directory test of the settings check: the server must be able to change into it.
bool directory_exists(const std::filesystem::path& path) {
    std::error_code ec;
    return !path.empty() && std::filesystem::is_directory(path, ec) &&
           ::access(path.c_str(), X_OK) == 0;
}

bool valid_port(const std::string& text) {
    int port = to_int(text);
    return is_decimal_number(text) && port >= 1 && port <= 32000;
}

// One service's part of a Save. `start` and `stop` are the listener's operations.
template <typename Service>
void apply_service(Service& service, int& enabled, int& port, bool want_on, int want_port) {
    bool was_on = enabled == 1;
    if (was_on != want_on) {
        enabled = want_on ? 1 : 0;
        port = want_port;
        if (want_on)
            service.start();
        else
            service.stop();
    } else if (want_on && want_port != port) {
        port = want_port;
        service.stop();
        service.start();
    } else {
        port = want_port;
    }
}

} // namespace

SettingsForm current_settings_form(const Server& server) {
    const Settings& s = server.settings;
    SettingsForm form;
    form.serverhome = read_settings(server.table_path("settings.ini")).serverhome;
    form.maxusers = std::to_string(s.maxusers);
    form.telnet = s.telnet_enabled();
    form.telnet_port = std::to_string(s.telnet_port);
    form.ftp = s.ftp_enabled();
    form.ftp_port = std::to_string(s.ftp_port);
    return form;
}

int16_t form_max_users(const SettingsForm& form) {
    return static_cast<int16_t>(to_long(form.maxusers));
}

bool is_decimal_number(std::string_view text) {
    if (!text.empty() && (text.front() == '-' || text.front() == '+'))
        text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<SettingsRefusal> check_settings_form(const SettingsForm& form,
                                                   const std::filesystem::path& start_dir) {
    if (form.serverhome.empty() || !directory_exists(in_start_dir(start_dir, form.serverhome)))
        return SettingsRefusal{"Server home directory does not exist!", SettingsField::Home};
    int16_t max_users = form_max_users(form);
    if (!is_decimal_number(form.maxusers) || max_users < 0 || max_users > 256)
        return SettingsRefusal{"Max Users must be between 0 and 256", SettingsField::MaxUsers};
    if (!valid_port(form.telnet_port))
        return SettingsRefusal{"Telnet Port be between 1 and 32000", SettingsField::TelnetPort};
    if (!valid_port(form.ftp_port))
        return SettingsRefusal{"FTP Port be between 1 and 32000", SettingsField::FtpPort};
    if (to_int(form.telnet_port) == to_int(form.ftp_port))
        return SettingsRefusal{"Telnet Port and FTP port must be different",
                               SettingsField::TelnetPort};
    return std::nullopt;
}

bool save_settings_form(Server& server, const SettingsForm& form) {
    server.settings.maxusers = form_max_users(form);
    Settings written;
    written.serverhome = form.serverhome;
    written.maxusers = server.settings.maxusers;
    written.telnet = form.telnet ? 1 : 0;
    written.ftp = form.ftp ? 1 : 0;
    written.telnet_port = to_int(form.telnet_port);
    written.ftp_port = to_int(form.ftp_port);
    write_settings(server.table_path("settings.ini"), written);
    // Compared as the next start will read it, so "/srv/ftp/" is no change from "/srv/ftp".
    return strip_one_trailing_separator(form.serverhome) != server.settings.serverhome;
}

void apply_service_settings(ServerApp& app, const SettingsForm& form) {
    Settings& s = app.server().settings;
    apply_service(app.telnet(), s.telnet, s.telnet_port, form.telnet, to_int(form.telnet_port));
    apply_service(app.ftp(), s.ftp, s.ftp_port, form.ftp, to_int(form.ftp_port));
}

} // namespace orv
