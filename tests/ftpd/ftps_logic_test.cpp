// The TLS commands' replies and the TLS policy, without sockets.
#include "core/extensions.hpp"
#include "ftpd/ftps.hpp"
#include "ftpd/modern_commands.hpp"
#include "platform/ini.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

namespace orv {
namespace {

TEST(FtpsReplies, AuthPbszProtInSequence) {
    struct AuthCase {
        const char* arg;
        bool secured;
        const char* code;
        bool starts;
    } auths[] = {
        {"TLS", false, "234 ", true},          {"tls", false, "234 ", true},
        {"SSL", false, "234 ", true},          {"TLS", true, "503 ", false},
        {"KERBEROS_V4", false, "504 ", false}, {"", false, "504 ", false},
    };
    for (const AuthCase& c : auths) {
        bool start = !c.starts;
        std::string reply = auth_reply(c.arg, c.secured, start);
        EXPECT_EQ(reply.substr(0, 4), c.code) << c.arg;
        EXPECT_EQ(start, c.starts) << c.arg;
    }

    struct PbszCase {
        const char* arg;
        bool secured;
        const char* reply;
        bool pbsz;
    } pbszs[] = {
        {"0", false, "503 Send AUTH TLS first.\r\n", false},
        {"0", true, "200 PBSZ=0\r\n", true},
        {"1048576", true, "200 PBSZ=0\r\n", true}, // a stream needs no buffer: always 0
        {"-1", true, "501 PBSZ needs a number.\r\n", false},
        {"", true, "501 PBSZ needs a number.\r\n", false},
    };
    for (const PbszCase& c : pbszs) {
        bool pbsz = false;
        EXPECT_EQ(pbsz_reply(c.arg, c.secured, pbsz), c.reply) << c.arg;
        EXPECT_EQ(pbsz, c.pbsz) << c.arg;
    }

    struct ProtCase {
        const char* arg;
        bool secured, pbsz, before;
        const char* code;
        bool after;
    } prots[] = {
        {"P", false, false, false, "503 ", false}, {"P", true, false, false, "503 ", false},
        {"P", true, true, false, "200 ", true},    {"p", true, true, false, "200 ", true},
        {"C", true, true, true, "200 ", false},    {"S", true, true, true, "536 ", true},
        {"E", true, true, false, "536 ", false},   {"X", true, true, true, "504 ", true},
    };
    for (const ProtCase& c : prots) {
        bool protect = c.before;
        std::string reply = prot_reply(c.arg, c.secured, c.pbsz, protect);
        EXPECT_EQ(reply.substr(0, 4), c.code) << c.arg;
        EXPECT_EQ(protect, c.after) << c.arg;
    }
}

TEST(FtpsReplies, PolicyRefusesClearLoginsAndDataOnlyWhenRequired) {
    struct Case {
        const char* verb;
        bool secured, protect, require;
        const char* code; // "" = allowed
    } cases[] = {
        {"USER", false, false, true, "530"}, {"PASS", false, false, true, "530"},
        {"USER", true, false, true, ""},     {"USER", false, false, false, ""},
        {"RETR", true, false, true, "521"},  {"STOR", true, false, true, "521"},
        {"APPE", true, false, true, "521"},  {"LIST", true, false, true, "521"},
        {"NLST", true, false, true, "521"},  {"MLSD", true, false, true, "521"},
        {"RETR", true, true, true, ""},      {"RETR", false, false, false, ""},
        {"PASV", true, false, true, ""},     {"CWD", true, false, true, ""},
    };
    for (const Case& c : cases) {
        const char* refusal = tls_policy_refusal(c.verb, c.secured, c.protect, c.require);
        std::string got = refusal ? std::string(refusal, 3) : std::string();
        EXPECT_EQ(got, c.code) << c.verb << " secured=" << c.secured << " prot=" << c.protect;
    }
    // One text whatever the account: it must not tell which names exist.
    EXPECT_STREQ(tls_policy_refusal("USER", false, false, true),
                 tls_policy_refusal("PASS", false, false, true));
}

TEST(FtpsReplies, FeatListsTheTlsCommandsOnlyWhenOffered) {
    std::string plain = feat_reply();
    std::string tls = feat_reply(true);
    EXPECT_EQ(plain.find("AUTH"), std::string::npos);
    EXPECT_NE(tls.find(" AUTH TLS\r\n"), std::string::npos);
    EXPECT_NE(tls.find(" PBSZ\r\n PROT\r\n"), std::string::npos);
    EXPECT_EQ(tls.substr(0, 15), "211-Features:\r\n");
    EXPECT_EQ(tls.substr(tls.size() - 9), "211 End\r\n");
}

TEST(FtpsSettings, KeysAndDefaults) {
    test::TempDir dir;
    Extensions on = read_extensions(
        IniFile::parse("[Extensions]\nftps=1\nftps_implicit_port=990\ntls_certificate=c.pem\n"
                       "tls_private_key=k.pem\nrequire_tls=1\ntls_session_reuse=0\n"));
    EXPECT_TRUE(on.ftps);
    EXPECT_TRUE(on.ftp_modern); // the TLS commands belong to the newer command set
    EXPECT_EQ(on.ftps_implicit_port, 990);
    EXPECT_EQ(on.tls_certificate, "c.pem");
    EXPECT_EQ(on.tls_private_key, "k.pem");
    EXPECT_TRUE(on.require_tls);
    EXPECT_FALSE(on.tls_session_reuse);
    EXPECT_TRUE(on.problems.empty());

    Extensions bad =
        read_extensions(IniFile::parse("[Extensions]\nftps=yes\nftps_implicit_port=70000\n"));
    EXPECT_FALSE(bad.ftps);
    EXPECT_FALSE(bad.ftp_modern);
    EXPECT_EQ(bad.ftps_implicit_port, 0);
    EXPECT_TRUE(bad.tls_session_reuse);
    EXPECT_EQ(bad.problems.size(), 2u);

    std::string error;
    Extensions missing;
    missing.ftps = true;
    EXPECT_FALSE(make_ftps_context(missing, dir.path().string(), error));
    EXPECT_NE(error.find("tls_certificate"), std::string::npos);
}

} // namespace
} // namespace orv
