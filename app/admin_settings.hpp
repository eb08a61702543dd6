#pragma once
// The Server Settings dialog's rules without the dialog: the checks of a Save in their order
// and texts, writing settings.ini, and starting, stopping or restarting the listeners.
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace orv {

class Server;
class ServerApp;
struct Extensions;

// The FTP over TLS keys of [Extensions] as the dialog shows them.
struct TlsSettingsForm {
    bool ftps = false;
    std::string implicit_port = "0";
    std::string certificate;
    std::string private_key;
    bool require_tls = false;
    bool session_reuse = true;
    bool operator==(const TlsSettingsForm&) const = default;
};

// The dialog's fields as typed.
struct SettingsForm {
    std::string serverhome;
    std::string maxusers;
    bool telnet = false;
    std::string telnet_port;
    bool ftp = false;
    std::string ftp_port;
    TlsSettingsForm tls;
};

enum class SettingsField { Home, MaxUsers, TelnetPort, FtpPort, FtpsPort, TlsFiles };

struct SettingsRefusal {
    std::string text; // shown in a box titled "Error"
    SettingsField focus;
};

inline constexpr const char* kHomeChangeInfo =
    "Server home directory change will take\r\neffect next time you start the server";

// What the dialog shows when it opens: the values in use, except the home directory, which is
// the one last saved (a new home only takes effect at the next start, and a later Save must
// not quietly put the old one back).
SettingsForm current_settings_form(const Server& server);

// The first check that fails, in the dialog's order, or nothing. A relative home directory is
// looked for below `start_dir`, where the next start will look for it.
std::optional<SettingsRefusal> check_settings_form(const SettingsForm& form,
                                                   const std::filesystem::path& start_dir = {});
// True when `text` is a decimal number (an optional sign and at least one digit, nothing
// else): the dialog's number fields refuse "21abc" and an empty field.
bool is_decimal_number(std::string_view text);

// Max Users as the dialog reads it: a signed 16-bit value.
int16_t form_max_users(const SettingsForm& form);

// The TLS part of the form from the keys in use.
TlsSettingsForm tls_settings_form(const Extensions& ext);

// Event thread, after the checks passed: Max Users takes effect and the six keys are
// written (and the TLS keys, when FTPS is on or settings.ini has them already). True when the home
// directory differs from the one in use (the "INFO!" box).
bool save_settings_form(Server& server, const SettingsForm& form);
// Event thread, after save_settings_form: a service whose on/off state changed is started or
// stopped; one that stays on with a new port is stopped and started again. Sessions stay.
// Changed TLS keys restart a running FTP service (new sessions get the new ones).
void apply_service_settings(ServerApp& app, const SettingsForm& form);

} // namespace orv
