#include "core/settings.hpp"
#include "platform/ini.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

using namespace orv;

TEST(Ini, LookUpWithoutCaseFirstWinsAndSetInPlace) {
    IniFile ini = IniFile::parse("; comment\r\n[services]\r\nFTP = 1\nftp=0\nport=abc\nneg=-12x\n"
                                 "\n[Other]\nftp=7\n");
    EXPECT_EQ(ini.get_int("Services", "ftp", 5), 1);
    EXPECT_EQ(ini.get_int("OTHER", "Ftp", 5), 7);
    EXPECT_EQ(ini.get_int("Services", "telnet_port", 23), 23);
    EXPECT_EQ(ini.get_int("Services", "port", 21), 0); // not a number
    EXPECT_EQ(ini.get_int("Services", "neg", 0), -12);
    EXPECT_EQ(ini.get_string("Missing", "x", "dflt"), "dflt");

    ini = IniFile::parse("; comment\n[Services]\nftp=0\n\n[Server_Settings]\nmaxusers=3\n");
    ini.set("services", "FTP", "1");
    ini.set("Services", "ftp_port", "2121");
    ini.set("New", "k", "v");
    EXPECT_EQ(ini.text(), "; comment\n[Services]\nftp=1\nftp_port=2121\n\n[Server_Settings]\n"
                          "maxusers=3\n[New]\nk=v\n");
}

TEST(Settings, DefaultsTrailingSeparatorAndExactOneEnables) {
    test::TempDir dir;
    Settings s = read_settings(dir / "settings.ini");
    EXPECT_EQ(s.serverhome, "");
    EXPECT_FALSE(s.ftp_enabled());
    EXPECT_EQ(s.telnet_port, 23);
    EXPECT_EQ(s.ftp_port, 21);

    dir.write("settings.ini", "[Server_Settings]\nserverhome=/srv/ftp/\nmaxusers=70000\n"
                              "[Services]\nftp=2\ntelnet=1\nftp_port=2121\n");
    s = read_settings(dir / "settings.ini");
    EXPECT_EQ(s.serverhome, "/srv/ftp");
    EXPECT_EQ(s.maxusers, static_cast<int16_t>(70000)); // kept as 16-bit signed
    EXPECT_FALSE(s.ftp_enabled());
    EXPECT_TRUE(s.telnet_enabled());
    EXPECT_EQ(s.ftp_port, 2121);
    EXPECT_EQ(strip_one_trailing_separator("C:\\ftp\\"), "C:\\ftp");
    EXPECT_EQ(strip_one_trailing_separator("\\"), "");
}

TEST(Settings, WriteKeepsOtherLinesAndRoundTrips) {
    test::TempDir dir;
    dir.write("settings.ini", "; mine\n[Services]\nftp=1\nextra=x\n");
    Settings s;
    s.serverhome = "/home/x";
    s.maxusers = 12;
    s.telnet_port = 2323;
    ASSERT_TRUE(write_settings(dir / "settings.ini", s));
    Settings back = read_settings(dir / "settings.ini");
    EXPECT_EQ(back.serverhome, "/home/x");
    EXPECT_EQ(back.maxusers, 12);
    EXPECT_EQ(back.telnet_port, 2323);
    EXPECT_NE(dir.read("settings.ini").find("extra=x"), std::string::npos);
}
