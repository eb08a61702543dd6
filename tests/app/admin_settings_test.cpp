#include "app/admin_api.hpp"
#include "core/settings.hpp"
#include "platform/ini.hpp"
#include "support/test_server.hpp"

#include <gtest/gtest.h>

using namespace orv;

namespace {

SettingsForm form_for(const test::TempDir& dir) {
    SettingsForm f;
    f.serverhome = (dir / "home").string();
    f.maxusers = "10";
    f.telnet = false;
    f.telnet_port = "2323";
    f.ftp = false;
    f.ftp_port = "2121";
    return f;
}

} // namespace

TEST(AdminSettings, ChecksRunInOrderWithTheirTexts) {
    test::TempDir dir;
    std::filesystem::create_directories(dir / "home");
    struct Case {
        void (*edit)(SettingsForm&);
        const char* text; // null: accepted
        SettingsField focus;
    };
    const Case cases[] = {
        {[](SettingsForm&) {}, nullptr, SettingsField::Home},
        {[](SettingsForm& f) { f.serverhome += "/missing"; },
         "Server home directory does not exist!", SettingsField::Home},
        // The first failing check wins.
        {[](SettingsForm& f) {
             f.serverhome += "/missing";
             f.maxusers = "257";
         },
         "Server home directory does not exist!", SettingsField::Home},
        {[](SettingsForm& f) { f.maxusers = "257"; }, "Max Users must be between 0 and 256",
         SettingsField::MaxUsers},
        {[](SettingsForm& f) { f.maxusers = "-1"; }, "Max Users must be between 0 and 256",
         SettingsField::MaxUsers},
        {[](SettingsForm& f) { f.maxusers = "256"; }, nullptr, SettingsField::Home},
        {[](SettingsForm& f) { f.maxusers = "0"; }, nullptr, SettingsField::Home},
        // Read as a signed 16-bit value: 65536 wraps to 0.
        {[](SettingsForm& f) { f.maxusers = "65536"; }, nullptr, SettingsField::Home},
        {[](SettingsForm& f) { f.telnet_port = "0"; }, "Telnet Port be between 1 and 32000",
         SettingsField::TelnetPort},
        {[](SettingsForm& f) { f.telnet_port = "32000"; }, nullptr, SettingsField::Home},
        {[](SettingsForm& f) { f.ftp_port = "32001"; }, "FTP Port be between 1 and 32000",
         SettingsField::FtpPort},
        // A number field holds a number: not "21abc", not nothing.
        {[](SettingsForm& f) { f.maxusers = "2x"; }, "Max Users must be between 0 and 256",
         SettingsField::MaxUsers},
        {[](SettingsForm& f) { f.maxusers = ""; }, "Max Users must be between 0 and 256",
         SettingsField::MaxUsers},
        {[](SettingsForm& f) { f.telnet_port = "23abc"; }, "Telnet Port be between 1 and 32000",
         SettingsField::TelnetPort},
        {[](SettingsForm& f) { f.ftp_port = "21abc"; }, "FTP Port be between 1 and 32000",
         SettingsField::FtpPort},
        {[](SettingsForm& f) { f.ftp_port = ""; }, "FTP Port be between 1 and 32000",
         SettingsField::FtpPort},
        // Equal ports are refused even with both services off.
        {[](SettingsForm& f) { f.ftp_port = f.telnet_port; },
         "Telnet Port and FTP port must be different", SettingsField::TelnetPort},
    };
    for (const Case& c : cases) {
        SettingsForm f = form_for(dir);
        c.edit(f);
        std::optional<SettingsRefusal> refusal = check_settings_form(f);
        if (!c.text) {
            EXPECT_FALSE(refusal) << refusal->text;
            continue;
        }
        ASSERT_TRUE(refusal) << c.text;
        EXPECT_EQ(refusal->text, c.text);
        EXPECT_EQ(refusal->focus, c.focus) << c.text;
    }
}

// A relative home is where the next start looks for it: below the start directory, not below
// whatever directory the process happens to be in.
TEST(AdminSettings, ARelativeHomeIsCheckedBelowTheStartDirectory) {
    test::TempDir dir;
    std::filesystem::create_directories(dir / "home");
    SettingsForm f = form_for(dir);
    f.serverhome = "home";
    ASSERT_NE(std::filesystem::current_path(), dir.path());
    EXPECT_FALSE(check_settings_form(f, dir.path()));
    f.serverhome = "elsewhere";
    ASSERT_TRUE(check_settings_form(f, dir.path()));
    EXPECT_EQ(check_settings_form(f, dir.path())->text, "Server home directory does not exist!");
}

TEST(AdminSettings, SaveWritesTheKeysAndReportsANewHome) {
    test::TestServerConfig config;
    config.ftp = false;
    config.telnet = false;
    test::TestServer s(config);
    AdminApi api(s.app());
    SettingsForm f = api.settings_form();
    EXPECT_EQ(f.serverhome, s.home().string());
    EXPECT_EQ(f.maxusers, "10");

    f.maxusers = "7";
    f.serverhome += "/"; // the same directory as the next start reads it
    EXPECT_FALSE(api.save_settings(f));
    EXPECT_EQ(s.server().settings.maxusers, 7);
    Settings written = read_settings(s.dir() / "settings.ini");
    EXPECT_EQ(written.maxusers, 7);
    EXPECT_EQ(written.serverhome, s.home().string());
    EXPECT_EQ(written.ftp, 0);
    EXPECT_EQ(written.telnet_port, s.telnet_port());

    std::filesystem::create_directories(s.dir() / "other");
    f.serverhome = (s.dir() / "other").string();
    EXPECT_TRUE(api.save_settings(f));
    // The running tree keeps its home; the dialog shows the saved one from now on.
    EXPECT_EQ(s.server().settings.serverhome, s.home().string());
    EXPECT_EQ(api.settings_form().serverhome, f.serverhome);
    EXPECT_TRUE(api.save_settings(f));
}

TEST(AdminSettings, ServiceSwitchesStartStopOrOnlyStoreThePort) {
    test::TestServer s;
    AdminApi api(s.app());
    SettingsForm f = api.settings_form();

    // Telnet off: its listener stops.
    f.telnet = false;
    size_t mark = s.log_lines().size();
    api.save_settings(f);
    api.apply_services(f);
    EXPECT_EQ(s.log_since(mark), std::vector<std::string>{"  Telnet - Disabled"});
    test::TestClient refused;
    EXPECT_FALSE(refused.connect(s.telnet_port()));

    // Off with a new port: the port is only stored.
    int telnet_port = test::free_port();
    f.telnet_port = std::to_string(telnet_port);
    mark = s.log_lines().size();
    api.save_settings(f);
    api.apply_services(f);
    EXPECT_TRUE(s.log_since(mark).empty());
    EXPECT_EQ(s.server().settings.telnet_port, telnet_port);
    EXPECT_EQ(s.server().settings.telnet, 0);

    // On again: it starts on the stored port; an unchanged FTP service is left alone.
    f.telnet = true;
    mark = s.log_lines().size();
    api.save_settings(f);
    api.apply_services(f);
    EXPECT_EQ(s.log_since(mark),
              std::vector<std::string>{"  Telnet - Ok.  port " + std::to_string(telnet_port)});
    EXPECT_EQ(read_settings(s.dir() / "settings.ini").telnet, 1);
    test::TestClient accepted;
    EXPECT_TRUE(accepted.connect(telnet_port));
}

TEST(AdminSettings, TlsFieldsAreCheckedOnlyWithFtpsOn) {
    test::TempDir dir;
    std::filesystem::create_directories(dir / "home");
    struct Case {
        void (*edit)(TlsSettingsForm&);
        const char* text; // null: accepted
    };
    const Case cases[] = {
        {[](TlsSettingsForm& t) { t.implicit_port = "x"; }, nullptr}, // FTPS off: not looked at
        {[](TlsSettingsForm& t) { t.ftps = true; },
         "FTPS needs a certificate and a private key file"},
        {[](TlsSettingsForm& t) {
             t.ftps = true;
             t.certificate = "c.pem";
             t.private_key = "k.pem";
         },
         nullptr},
        {[](TlsSettingsForm& t) {
             t.ftps = true;
             t.certificate = "c.pem";
             t.private_key = "k.pem";
             t.implicit_port = "65536";
         },
         "FTPS Port must be between 0 and 65535"},
        {[](TlsSettingsForm& t) {
             t.ftps = true;
             t.certificate = "c.pem";
             t.private_key = "k.pem";
             t.implicit_port = "2121";
         },
         "FTPS Port must differ from the Telnet and FTP ports"},
    };
    for (const Case& c : cases) {
        SettingsForm f = form_for(dir);
        c.edit(f.tls);
        std::optional<SettingsRefusal> refusal = check_settings_form(f);
        if (!c.text) {
            EXPECT_FALSE(refusal) << refusal->text;
            continue;
        }
        ASSERT_TRUE(refusal) << c.text;
        EXPECT_EQ(refusal->text, c.text);
    }
}

// A Save with FTPS off adds no [Extensions] section; with it on, the keys are written and read
// back as they were typed.
TEST(AdminSettings, TlsKeysAreWrittenOnlyWhenUsed) {
    test::TestServerConfig config;
    config.ftp = false;
    config.telnet = false;
    test::TestServer s(config);
    AdminApi api(s.app());
    SettingsForm f = api.settings_form();
    EXPECT_FALSE(f.tls.ftps);
    api.save_settings(f);
    std::string text = IniFile::load(s.dir() / "settings.ini").text();
    EXPECT_EQ(text.find("[Extensions]"), std::string::npos) << text;

    f.tls.ftps = true;
    f.tls.implicit_port = "9990";
    f.tls.certificate = "tls/cert.pem";
    f.tls.private_key = "tls/key.pem";
    f.tls.session_reuse = false;
    api.save_settings(f);
    Settings written = read_settings(s.dir() / "settings.ini");
    EXPECT_TRUE(written.ext.ftps);
    EXPECT_EQ(written.ext.ftps_implicit_port, 9990);
    EXPECT_EQ(written.ext.tls_certificate, "tls/cert.pem");
    EXPECT_EQ(written.ext.tls_private_key, "tls/key.pem");
    EXPECT_FALSE(written.ext.require_tls);
    EXPECT_FALSE(written.ext.tls_session_reuse);
    EXPECT_EQ(tls_settings_form(written.ext), f.tls);
}
