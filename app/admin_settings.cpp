#include "app/admin_settings.hpp"

#include "app/server_app.hpp"
#include "core/server.hpp"
#include "core/settings.hpp"
#include "platform/ini.hpp"
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

// The TLS keys go to [Extensions] only when FTPS is on or they are there already, so that a
// Save never adds an [Extensions] section to a server that has none.
void write_tls_keys(const std::filesystem::path& path, const TlsSettingsForm& tls) {
    IniFile ini = IniFile::load(path);
    const char* keys[] = {"ftps",        "ftps_implicit_port", "tls_certificate", "tls_private_key",
                          "require_tls", "tls_session_reuse"};
    bool present = false;
    for (const char* key : keys)
        present = present || !ini.get_string("Extensions", key, "").empty();
    if (!tls.ftps && !present)
        return;
    ini.set("Extensions", "ftps", tls.ftps ? "1" : "0");
    ini.set("Extensions", "ftps_implicit_port", std::to_string(to_int(tls.implicit_port)));
    ini.set("Extensions", "tls_certificate", tls.certificate);
    ini.set("Extensions", "tls_private_key", tls.private_key);
    ini.set("Extensions", "require_tls", tls.require_tls ? "1" : "0");
    ini.set("Extensions", "tls_session_reuse", tls.session_reuse ? "1" : "0");
    ini.save(path);
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
    form.tls = tls_settings_form(s.ext);
    return form;
}

TlsSettingsForm tls_settings_form(const Extensions& ext) {
    TlsSettingsForm tls;
    tls.ftps = ext.ftps;
    tls.implicit_port = std::to_string(ext.ftps_implicit_port);
    tls.certificate = ext.tls_certificate;
    tls.private_key = ext.tls_private_key;
    tls.require_tls = ext.require_tls;
    tls.session_reuse = ext.tls_session_reuse;
    return tls;
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
    if (form.serverhome.empty() ||
        !directory_exists(resolve_configured_path(start_dir, form.serverhome)))
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
    if (form.tls.ftps) {
        int implicit = to_int(form.tls.implicit_port);
        if (!is_decimal_number(form.tls.implicit_port) || implicit < 0 || implicit > 65535)
            return SettingsRefusal{"FTPS Port must be between 0 and 65535",
                                   SettingsField::FtpsPort};
        if (implicit != 0 &&
            (implicit == to_int(form.ftp_port) || implicit == to_int(form.telnet_port)))
            return SettingsRefusal{"FTPS Port must differ from the Telnet and FTP ports",
                                   SettingsField::FtpsPort};
        if (form.tls.certificate.empty() || form.tls.private_key.empty())
            return SettingsRefusal{"FTPS needs a certificate and a private key file",
                                   SettingsField::TlsFiles};
    }
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
    write_tls_keys(server.table_path("settings.ini"), form.tls);
    // Compared as the next start will read it, so "/srv/ftp/" is no change from "/srv/ftp".
    return strip_one_trailing_separator(form.serverhome) != server.settings.serverhome;
}

void apply_service_settings(ServerApp& app, const SettingsForm& form) {
    Settings& s = app.server().settings;
    apply_service(app.telnet(), s.telnet, s.telnet_port, form.telnet, to_int(form.telnet_port));
    bool tls_changed = tls_settings_form(s.ext) != form.tls;
    if (tls_changed) {
        s.ext.ftps = form.tls.ftps;
        s.ext.ftps_implicit_port = to_int(form.tls.implicit_port);
        s.ext.tls_certificate = form.tls.certificate;
        s.ext.tls_private_key = form.tls.private_key;
        s.ext.require_tls = form.tls.require_tls;
        s.ext.tls_session_reuse = form.tls.session_reuse;
        // The TLS commands belong to the newer command set; it stays on once on.
        s.ext.ftp_modern = s.ext.ftp_modern || form.tls.ftps;
    }
    bool was_on = s.ftp == 1;
    apply_service(app.ftp(), s.ftp, s.ftp_port, form.ftp, to_int(form.ftp_port));
    // A running FTP service takes the new certificate, key and implicit port by a restart.
    if (tls_changed && was_on && s.ftp == 1) {
        app.ftp().stop();
        app.ftp().start();
    }
}

} // namespace orv
