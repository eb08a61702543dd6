#include "accounts/accounts.hpp"
#include "accounts/password.hpp"
#include "app/admin_cli.hpp"
#include "app/admin_socket.hpp"
#include "core/server.hpp"
#include "support/test_server.hpp"

#include <gtest/gtest.h>
#include <shared_mutex>

using namespace orv;

namespace {

AdminOutcome run(test::TestServer& s, std::vector<std::string> args,
                 std::optional<std::string> password = std::nullopt) {
    AdminOutcome outcome;
    AdminRequest request{std::move(args), std::move(password)};
    s.on_event_thread([&] { outcome = run_admin_command(s.server(), &s.app(), request); });
    return outcome;
}

struct Expect {
    std::vector<std::string> args;
    std::optional<std::string> password;
    int status;
    std::string out; // exact when status is 0, otherwise the start of err
};

void check_all(test::TestServer& s, const std::vector<Expect>& cases) {
    for (const Expect& c : cases) {
        std::string what;
        for (const std::string& a : c.args)
            what += a + " ";
        AdminOutcome o = run(s, c.args, c.password);
        EXPECT_EQ(o.status, c.status) << what << o.err;
        if (c.status == 0)
            EXPECT_EQ(o.out, c.out) << what;
        else
            EXPECT_EQ(o.err.substr(0, c.out.size()), c.out) << what;
    }
}

} // namespace

TEST(AdminSocketCodec, RequestsAndOutcomesSurviveTheTripAndGarbageIsRefused) {
    AdminRequest with{{"user", "add", "bob", std::string("a\nb:c\x01", 6)}, "pa ss"};
    auto back = decode_admin_request(encode_admin_request(with));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->args, with.args);
    EXPECT_EQ(back->password, with.password);
    AdminRequest empty_password{{"who"}, ""};
    EXPECT_EQ(decode_admin_request(encode_admin_request(empty_password))->password, "");
    EXPECT_FALSE(decode_admin_request(encode_admin_request({{"who"}, std::nullopt}))->password);

    std::string good = encode_admin_request(with);
    const std::string garbage[] = {
        "",
        "hello",
        good.substr(0, good.size() - 1), // the last field is not ended
        "orvane-admin 2" + good.substr(good.find('\0')),
        std::string("orvane-admin 1\0pw\0who\0", 22), // a password field without its mark
        std::string(300, '\0'),
    };
    for (const std::string& g : garbage)
        EXPECT_FALSE(decode_admin_request(g)) << g.size();
    std::string many = std::string("orvane-admin 1\0\0", 16);
    for (int i = 0; i < 300; ++i)
        many += std::string("x\0", 2);
    EXPECT_FALSE(decode_admin_request(many));

    AdminOutcome o{1, "out\n", "err\n"};
    auto o2 = decode_admin_outcome(encode_admin_outcome(o));
    ASSERT_TRUE(o2);
    EXPECT_EQ(o2->status, 1);
    EXPECT_EQ(o2->out, "out\n");
    EXPECT_EQ(o2->err, "err\n");
    EXPECT_FALSE(decode_admin_outcome(std::string("x\0\0\0", 4)));
    EXPECT_FALSE(decode_admin_outcome(std::string("0\0a", 3)));
}

TEST(AdminCli, UserCommandsUseTheDialogsChecksAndLogLines) {
    test::TestServer s;
    size_t mark = s.log_lines().size();
    check_all(
        s, {
               {{"user", "add", "carol", "--rights", "ftp-in,telnet-in", "--home", "\\pub"},
                "carol-pw",
                0,
                "Added User (carol)\n"},
               {{"user", "add", "carol"}, "x", 1, "User (carol) already exists\n"},
               {{"user", "add", "dave"}, std::nullopt, 2, ""},
               {{"user", "add", "dave"}, "", 1, "Invalid password pick a different one!\n"},
               {{"user", "add", "da:ve"}, "pw", 1, "Invalid user name!\n"},
               {{"user", "add", "dave", "--max-logins", "2x"}, "pw", 2, ""},
               {{"user", "add", "dave", "--rights", "ftp-in,root"}, "pw", 2, ""},
               {{"user", "set", "carol", "--super", "--max-logins", "3"},
                std::nullopt,
                0,
                "Updated User (carol)\n"},
               {{"user", "set", "nobody", "--super"}, std::nullopt, 1, "No such user (nobody)\n"},
               {{"user", "passwd", "carol"}, "carol-new", 0, "Updated User (carol)\n"},
               {{"user", "list"},
                std::nullopt,
                0,
                "carol uid=11 max_logins=3 rights=telnet-in,ftp-in home=\\pub groups=\n"
                "admin uid=10 max_logins=5 rights=telnet-in,ftp-in,telnet-out,ftp-out "
                "home=\\ groups=\n"
                "demo uid=101 max_logins=5 rights=telnet-in,ftp-in,telnet-out,ftp-out "
                "home=\\ groups=\n"},
           });
    {
        std::shared_lock lock(s.server().tree_mutex);
        auto carol = s.server().accounts->find_user("carol");
        ASSERT_TRUE(carol);
        EXPECT_TRUE(check_password(*carol, "carol-new"));
        EXPECT_EQ(carol->conn_flags, kRightFtpIn | kRightTelnetIn); // kept by set and passwd
    }
    check_all(s, {{{"user", "del", "carol"}, std::nullopt, 0, "Deleted User (carol)\n"},
                  {{"user", "del", "carol"}, std::nullopt, 1, "No such user (carol)\n"}});
    EXPECT_EQ(s.log_since(mark),
              (std::vector<std::string>{"Added User (carol)", "Updated User (carol)",
                                        "Updated User (carol)", "Deleted User (carol)"}));
}

TEST(AdminCli, GroupMountSettingsAndSessionCommands) {
    test::TestServer s({}, [](test::TempDir& d) { d.write("disk/f.txt", "x"); });
    const std::string disk = (s.dir() / "disk").string();
    check_all(
        s, {
               {{"group", "add", "staff", "demo"},
                std::nullopt,
                0,
                "Added Group (staff)\nAdded User (demo) to Group (staff).\n"},
               {{"group", "add", "staff"}, std::nullopt, 1, "Group (staff) already exists\n"},
               {{"group", "add", "crew", "ghost"}, std::nullopt, 1, "No such user (ghost)\n"},
               {{"group", "members", "staff", "--add", "admin"},
                std::nullopt,
                0,
                "Added User (admin) to Group (staff).\n"},
               {{"group", "members", "staff", "--remove", "demo"},
                std::nullopt,
                0,
                "Removed User (demo) from Group (staff).\n"},
               {{"group", "members", "staff"}, std::nullopt, 0, "admin\n"},
               {{"group", "members", "crew"}, std::nullopt, 1, "Could not find group info!\n"},
               {{"group", "list"}, std::nullopt, 0, "staff gid=101 members=admin\n"},
               {{"group", "del", "crew"},
                std::nullopt,
                1,
                "*** Could not find Group (crew) for delete! ***\n"},
               {{"group", "del", "staff"},
                std::nullopt,
                0,
                "Removed User (admin) from Group (staff)\nDeleted Group (staff)\n"},
               {{"mount", "add", "nodisk", "\\data"},
                std::nullopt,
                1,
                "The \"Mount\" path must exist.\n"},
               {{"mount", "add", disk, "\\no\\data"},
                std::nullopt,
                1,
                "The \"Mount To\" path must exist to be able to create the \"as\" directory.\n"},
               {{"mount", "add", disk, "/data"}, std::nullopt, 0, "Single Mount thread started\n"},
               {{"mount", "del", "\\nothing"}, std::nullopt, 1, "Invalid mount Selected\n"},
               {{"settings", "set", "ftp_port=21abc"},
                std::nullopt,
                1,
                "FTP Port be between 1 and 32000\n"},
               {{"settings", "set", "maxusers=300"},
                std::nullopt,
                1,
                "Max Users must be between 0 and 256\n"},
               {{"settings", "set", "colour=blue"}, std::nullopt, 2, ""},
               {{"settings", "set", "maxusers=7"}, std::nullopt, 0, ""},
               {{"settings", "get", "maxusers"}, std::nullopt, 0, "7\n"},
               {{"frobnicate"}, std::nullopt, 2, ""},
           });
    EXPECT_EQ(s.server().settings.maxusers, 7);
    ASSERT_TRUE(s.wait_for_log("Single mount thread complete!"));
    check_all(s, {{{"mount", "list"}, std::nullopt, 0, disk + " - > \\data\n"},
                  {{"mount", "del", "\\data"}, std::nullopt, 0, "Remove Mount thread started\n"}});

    test::TestClient c(s.ftp_port());
    c.read_until("ready.\r\n");
    EXPECT_TRUE(test::wait_until(
        [&] { return run(s, {"who"}).out.find(" FTP Login ") != std::string::npos; }));

    // With no server running, who and reload have nothing to talk to.
    AdminOutcome stopped = run_admin_command(s.server(), nullptr, {{"who"}, std::nullopt});
    EXPECT_EQ(stopped.status, 1);
}
