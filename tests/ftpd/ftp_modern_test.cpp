// The newer command set's pure logic: address rules of passive mode and EPRT, the settings of
// the extensions, dates, facts and the "ls -l" line.
#include "core/extensions.hpp"
#include "ftpd/modern_commands.hpp"
#include "ftpd/modern_listing.hpp"
#include "ftpd/modern_paths.hpp"
#include "ftpd/passive.hpp"
#include "platform/ini.hpp"
#include "telnetd/shell_listing.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

using namespace orv;

namespace {

SockAddr v4(const char* text, int port = 0) {
    SockAddr a;
    auto& in = reinterpret_cast<sockaddr_in&>(a.storage);
    in.sin_family = AF_INET;
    inet_pton(AF_INET, text, &in.sin_addr);
    in.sin_port = htons(static_cast<uint16_t>(port));
    a.size = sizeof in;
    return a;
}

SockAddr v6(const char* text) {
    SockAddr a;
    auto& in = reinterpret_cast<sockaddr_in6&>(a.storage);
    in.sin6_family = AF_INET6;
    inet_pton(AF_INET6, text, &in.sin6_addr);
    a.size = sizeof in;
    return a;
}

} // namespace

TEST(FtpModernAddresses, PrivateLoopbackAndSameHost) {
    struct Case {
        SockAddr addr;
        bool is_private;
    };
    const Case cases[] = {
        {v4("127.0.0.1"), true},       {v4("10.1.2.3"), true},     {v4("172.16.0.1"), true},
        {v4("172.31.255.1"), true},    {v4("172.32.0.1"), false},  {v4("192.168.1.1"), true},
        {v4("192.169.1.1"), false},    {v4("8.8.8.8"), false},     {v6("::1"), true},
        {v6("fd00::1"), true},         {v6("2001:db8::1"), false}, {v6("::ffff:10.0.0.1"), true},
        {v6("::ffff:1.2.3.4"), false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(is_private_address(c.addr), c.is_private) << address_text(c.addr);
    // An IPv4 client of a dual-stack listener shows up IPv4-mapped: still the same host.
    EXPECT_TRUE(same_host(v4("127.0.0.1"), v6("::ffff:127.0.0.1")));
    EXPECT_FALSE(same_host(v4("127.0.0.1"), v4("127.0.0.2")));
    EXPECT_FALSE(same_host(v4("0.0.0.1"), v6("::1")));
    EXPECT_TRUE(same_host(v6("::1"), v6("::1")));
    EXPECT_EQ(address_text(v6("::ffff:192.0.2.7")), "192.0.2.7");
}

TEST(FtpModernAddresses, PasvAnnouncesThePublicAddressOnlyToOutsiders) {
    Extensions ext;
    inet_pton(AF_INET, "203.0.113.9", &ext.passive_ipv4);
    FtpSessionExtras inside;
    inside.local = v4("192.168.0.2");
    inside.peer = v4("192.168.0.77");
    FtpSessionExtras outside;
    outside.local = v4("192.168.0.2");
    outside.peer = v4("198.51.100.1");
    EXPECT_EQ(pasv_reply(pasv_announce_address(ext, inside), 50001),
              "227 Entering Passive Mode (192,168,0,2,195,81).\r\n");
    EXPECT_EQ(pasv_reply(pasv_announce_address(ext, outside), 50001),
              "227 Entering Passive Mode (203,0,113,9,195,81).\r\n");
    ext.passive_ipv4 = 0;
    EXPECT_EQ(pasv_reply(pasv_announce_address(ext, outside), 50001),
              "227 Entering Passive Mode (192,168,0,2,195,81).\r\n");
    FtpSessionExtras ipv6;
    ipv6.local = v6("::1");
    EXPECT_EQ(pasv_announce_address(ext, ipv6), 0u);
}

TEST(FtpModernAddresses, EprtArguments) {
    SockAddr a;
    ASSERT_TRUE(parse_eprt("|1|127.0.0.1|50123|", a));
    EXPECT_TRUE(same_host(a, v4("127.0.0.1")));
    EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in&>(a.storage).sin_port), 50123);
    ASSERT_TRUE(parse_eprt("!2!::1!1025!", a));
    EXPECT_TRUE(same_host(a, v6("::1")));
    for (const char* bad : {"", "|1|127.0.0.1|", "|1|127.0.0.1|0|", "|1|127.0.0.1|65536|",
                            "|3|127.0.0.1|2000|", "|2|127.0.0.1|2000|", "|1|::1|2000|",
                            "|1|127.0.0.1|20x|", "|1|127.0.0.1|2000|9|", " 1 127.0.0.1 2000 "})
        EXPECT_FALSE(parse_eprt(bad, a)) << bad;
}

TEST(FtpModernSettings, KeysAndTheirDefaults) {
    Extensions none = read_extensions(IniFile::parse("[Services]\nftp=1\n"));
    EXPECT_FALSE(none.ftp_modern);
    EXPECT_FALSE(none.live_tree);
    EXPECT_EQ(none.passive_low, 50000);
    EXPECT_EQ(none.passive_high, 50100);
    EXPECT_TRUE(none.listen_address.empty());
    EXPECT_TRUE(none.problems.empty());

    Extensions on = read_extensions(IniFile::parse(
        "[extensions]\nFTP_MODERN=1\npassive_ports=40000-40009\npassive_address=192.0.2.5\n"
        "listen_address=::\nftp_modern=0\n"));
    EXPECT_TRUE(on.ftp_modern); // the first occurrence wins
    EXPECT_EQ(on.passive_low, 40000);
    EXPECT_EQ(on.passive_high, 40009);
    EXPECT_EQ(on.listen_address, "::");
    in_addr want{};
    inet_pton(AF_INET, "192.0.2.5", &want);
    EXPECT_EQ(on.passive_ipv4, want.s_addr);

    Extensions bad = read_extensions(IniFile::parse(
        "[Extensions]\nftp_modern=yes\npassive_ports=50100-50000\nlisten_address=nowhere\n"));
    EXPECT_FALSE(bad.ftp_modern);
    EXPECT_EQ(bad.passive_low, 50000);
    EXPECT_TRUE(bad.listen_address.empty());
    EXPECT_EQ(bad.problems.size(), 3u);

    int low = 0, high = 0;
    for (const char* text : {"1-65536", "0-10", "10", "a-b", "5-4", "-5"})
        EXPECT_FALSE(parse_port_range(text, low, high)) << text;
}

TEST(FtpModernText, StampsDatesAndLines) {
    std::time_t t = 0;
    ASSERT_TRUE(parse_utc_stamp("20200102030405", t));
    EXPECT_EQ(utc_stamp(t), "20200102030405");
    for (const char* bad : {"2020010203040", "20201302030405", "2020010203046x", "20200100030405"})
        EXPECT_FALSE(parse_utc_stamp(bad, t)) << bad;
    std::time_t now = 0;
    parse_utc_stamp("20261125001500", now);
    std::time_t recent = 0, old = 0;
    parse_utc_stamp("20260704093000", recent);
    parse_utc_stamp("20010304050607", old);
    EXPECT_EQ(ls_date(recent, now), "Jul  4 09:30");
    EXPECT_EQ(ls_date(old, now), "Mar  4  2001");

    ListedEntry e;
    e.name = "notes.txt";
    e.flags = {1, 1, 0, 1, 0, 0, 1, 0, 0};
    e.owner = "averyverylongname";
    e.group = "staff";
    e.size = 99;
    e.perm = "r";
    struct stat st {};
    st.st_size = 5000000000LL; // larger than the tree's 32 bits: the host's size is shown
    st.st_mtime = recent;
    EXPECT_EQ(ls_line(e, &st, now),
              "-rw-r--r--   1 averyverylongname staff      5000000000 Jul  4 09:30 notes.txt\r\n");
    EXPECT_EQ(mlsx_line(e, &st, "size;UNIX.mode;perm;"),
              "size=5000000000;perm=r;UNIX.mode=0644; notes.txt\r\n");
    EXPECT_EQ(mlsx_line(e, nullptr, "type;modify;unique;"), "type=file; notes.txt\r\n");
}

TEST(FtpModernText, CommandArguments) {
    EXPECT_EQ(listing_path("-la /pub"), "/pub");
    EXPECT_EQ(listing_path("-l -a"), "");
    EXPECT_EQ(listing_path("\"my dir\""), "my dir");
    EXPECT_EQ(listing_path("  docs  "), "docs");
    long long rest = 7;
    EXPECT_EQ(rest_reply("-1", rest), "501 REST needs a byte offset.\r\n");
    EXPECT_EQ(rest_reply("12x", rest), "501 REST needs a byte offset.\r\n");
    EXPECT_EQ(rest, 7);
    rest_reply("5000000000", rest);
    EXPECT_EQ(rest, 5000000000LL);
    char type = 'A';
    EXPECT_EQ(modern_type_reply("L 8", type), "200 TYPE set to I\r\n");
    EXPECT_EQ(type, 'I');
    EXPECT_EQ(modern_type_reply("a", type), "200 TYPE set to A\r\n");
    EXPECT_EQ(type, 'A');
    EXPECT_EQ(modern_type_reply("E", type), "500 'TYPE E': command not understood\r\n");
}

TEST(FtpModernText, WhoShowsAnIpv6Peer) {
    std::array<uint8_t, 4> none{};
    EXPECT_EQ(telnet::who_line("anne", 7, false, none, "2001:db8::5"),
              "anne             port 007   2001:db8::5\r\n");
    EXPECT_EQ(telnet::who_line("anne", 7, true, {10, 0, 0, 1}, "10.0.0.1"),
              "anne             port 007   10.0.0.1\r\n");
    EXPECT_EQ(telnet::who_line("anne", 7, false, none),
              "anne             port 007   ???.???.???.???\r\n");
}
