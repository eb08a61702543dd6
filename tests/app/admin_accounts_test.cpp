#include "accounts/accounts.hpp"
#include "app/admin_api.hpp"
#include "support/test_server.hpp"
#include "vfs/tree.hpp"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <shared_mutex>
#include <thread>

using namespace orv;

namespace {

UserForm user_form(std::string name, std::string password, uint16_t rights = kRightFtpIn) {
    UserForm f;
    f.name = std::move(name);
    f.password = std::move(password);
    f.max_logins = "2";
    f.home_dir = "\\";
    f.rights = rights;
    return f;
}

std::shared_ptr<User> find_user(test::TestServer& s, const std::string& name) {
    std::shared_lock lock(s.server().tree_mutex);
    return s.server().accounts->find_user(name);
}

// Makes `name` the owner of the file home/owned.txt.
void give_file(test::TestServer& s, const std::string& name) {
    s.on_event_thread([&] {
        std::unique_lock lock(s.server().tree_mutex);
        NodePtr node = find_node(*s.server().vfs, "\\owned.txt", s.server().vfs->root);
        ASSERT_TRUE(node);
        node->owner = s.server().accounts->find_user(name);
    });
}

NodePtr owned_node(test::TestServer& s) {
    std::shared_lock lock(s.server().tree_mutex);
    return find_node(*s.server().vfs, "\\owned.txt", s.server().vfs->root);
}

} // namespace

TEST(AdminUsers, RefusalsChangeNothing) {
    test::TestServer s;
    AdminApi api(s.app());
    size_t users = api.user_names().size();
    struct Case {
        UserForm form;
        const char* text;
    };
    const Case cases[] = {
        {user_form("dave", ""), "Invalid password pick a different one!"},
        // The account files separate fields with ":".
        {user_form("da:ve", "password"), "Invalid user name!"},
        {user_form("da\nve", "password"), "Invalid user name!"},
        {[] {
             UserForm f = user_form("dave", "password");
             f.home_dir = "\\pub\nmallory:10:x:9:15:\\";
             return f;
         }(),
         "Invalid home directory!"},
    };
    for (const Case& c : cases) {
        UserSaveResult r = api.save_user(c.form);
        ASSERT_TRUE(r.refusal) << c.text;
        EXPECT_EQ(r.refusal->title, "Error");
        EXPECT_EQ(r.refusal->text, c.text);
    }
    EXPECT_EQ(api.user_names().size(), users);
}

TEST(AdminUsers, UpdateRebuildsRightsAndMovesBetweenIdClasses) {
    test::TestServer s;
    AdminApi api(s.app());
    std::optional<UserView> demo = api.user("demo");
    ASSERT_TRUE(demo);
    EXPECT_EQ(demo->password, "demo-pass");
    EXPECT_EQ(demo->rights, 15);

    UserForm f = user_form("demo", "new-pass", kRightTelnetIn);
    f.super_user = true;
    f.home_dir = "\\pub";
    size_t mark = s.log_lines().size();
    UserSaveResult r = api.save_user(f);
    ASSERT_FALSE(r.refusal);
    EXPECT_EQ(s.log_since(mark), std::vector<std::string>{"Updated User (demo)"});
    EXPECT_EQ(r.uid, 11); // admin has 10
    demo = api.user("demo");
    EXPECT_EQ(demo->rights, kRightTelnetIn); // Ftp IN was unchecked: rebuilt, not merged
    EXPECT_TRUE(demo->super_user);
    EXPECT_EQ(demo->home_dir, "\\pub");
    EXPECT_EQ(demo->password, "new-pass");

    f.super_user = false;
    r = api.save_user(f);
    EXPECT_EQ(r.uid, 101);
    // An unchanged class keeps its ID.
    r = api.save_user(f);
    EXPECT_EQ(r.uid, 101);
}

// `users` may hold a negative ID (a signed 16-bit field): such an account is a super user, and
// an ID below zero is no sign of "no free ID".
TEST(AdminUsers, ANegativeIdIsASuperUsersAndIsKept) {
    test::TestServerConfig config;
    config.accounts.push_back({"neg", "neg-pass", -5, 2, 4, "\\"});
    test::TestServer s(config);
    AdminApi api(s.app());
    UserForm f = user_form("neg", "neg-pass");
    f.super_user = true;
    size_t mark = s.log_lines().size();
    UserSaveResult r = api.save_user(f);
    ASSERT_FALSE(r.refusal) << r.refusal->text;
    EXPECT_EQ(s.log_since(mark), std::vector<std::string>{"Updated User (neg)"});
    EXPECT_EQ(static_cast<int16_t>(r.uid), -5);
    // Out of the super-user class it gets an ordinary ID.
    f.super_user = false;
    EXPECT_EQ(api.save_user(f).uid, 101 + 1); // demo has 101
}

TEST(AdminUsers, DeletingAnOwnerLeavesAPlaceholderThatCanBeAddedBack) {
    test::TestServer s({}, [](test::TempDir& d) { d.write("home/owned.txt", "x"); });
    AdminApi api(s.app());
    ASSERT_FALSE(api.save_group("staff", {"demo", "admin"}).refusal);
    give_file(s, "demo");
    std::shared_ptr<User> old = find_user(s, "demo");

    size_t mark = s.log_lines().size();
    EXPECT_TRUE(api.delete_user("demo"));
    EXPECT_EQ(s.log_since(mark), (std::vector<std::string>{"Removed User (demo) from Group (staff)",
                                                           "Deleted User (demo), owns file(s)"}));
    std::optional<UserView> placeholder = api.user("demo");
    ASSERT_TRUE(placeholder);
    EXPECT_EQ(placeholder->uid, 65535);
    EXPECT_EQ(placeholder->rights, 0);
    EXPECT_EQ(api.group("staff")->members, std::vector<std::string>{"admin"});
    EXPECT_EQ(owned_node(s)->owner, find_user(s, "demo"));
    // A session still holding the old record keeps its ordinary rights: it must not become a
    // super user through the placeholder's ID.
    EXPECT_EQ(old->uid, 101);

    // Nobody can log in as the placeholder.
    test::TestClient c(s.ftp_port());
    c.read_until("ready.\r\n");
    c.send("USER demo\r\n");
    c.read_until("\r\n");
    c.send("PASS demo-pass\r\n");
    EXPECT_EQ(c.read_until("\r\n"), "550 Login incorrect\r\n");

    UserSaveResult r = api.save_user(user_form("demo", "back-again"));
    ASSERT_FALSE(r.refusal);
    EXPECT_EQ(r.uid, 101);
    EXPECT_TRUE(s.wait_for_log("Added User (demo), already owns file(s)"));
    EXPECT_EQ(owned_node(s)->owner, find_user(s, "demo"));
    EXPECT_EQ(api.user("demo")->password, "back-again");
}

TEST(AdminUsers, DeletingAUserWithoutFilesRemovesIt) {
    test::TestServer s;
    AdminApi api(s.app());
    size_t mark = s.log_lines().size();
    EXPECT_TRUE(api.delete_user("demo"));
    EXPECT_EQ(s.log_since(mark), std::vector<std::string>{"Deleted User (demo)"});
    EXPECT_FALSE(api.user("demo"));
    EXPECT_FALSE(api.delete_user("demo"));
    s.stop();
    EXPECT_EQ(s.dir().read("users").find("demo:"), std::string::npos);
}

TEST(AdminGroups, SaveAddsAndRemovesMembersWithTheirLogLines) {
    test::TestServer s;
    AdminApi api(s.app());
    size_t mark = s.log_lines().size();
    GroupSaveResult r = api.save_group("staff", {"demo", "admin"});
    ASSERT_FALSE(r.refusal);
    EXPECT_TRUE(r.added);
    EXPECT_EQ(r.gid, 101);
    EXPECT_EQ(s.log_since(mark), (std::vector<std::string>{
                                     "Added Group (staff)", "Added User (demo) to Group (staff).",
                                     "Added User (admin) to Group (staff)."}));
    EXPECT_EQ(api.user("demo")->groups, std::vector<std::string>{"staff"});

    // The same selection again logs nothing.
    mark = s.log_lines().size();
    r = api.save_group("staff", {"admin", "demo"});
    EXPECT_FALSE(r.added);
    EXPECT_TRUE(s.log_since(mark).empty());

    r = api.save_group("staff", {"admin"});
    EXPECT_EQ(s.log_since(mark),
              std::vector<std::string>{"Removed User (demo) from Group (staff)."});
    EXPECT_TRUE(api.user("demo")->groups.empty());

    EXPECT_EQ(api.save_group("", {}).refusal->text, "Group name required!");
    EXPECT_EQ(api.save_group("a:b", {}).refusal->text, "Invalid group name!");
}

TEST(AdminGroups, DeleteTakesEveryMemberOut) {
    test::TestServer s;
    AdminApi api(s.app());
    api.save_group("staff", {"demo", "admin"});
    size_t mark = s.log_lines().size();
    EXPECT_TRUE(api.delete_group("staff"));
    EXPECT_FALSE(api.delete_group("nope"));
    EXPECT_EQ(s.log_since(mark),
              (std::vector<std::string>{"Removed User (demo) from Group (staff)",
                                        "Removed User (admin) from Group (staff)",
                                        "Deleted Group (staff)",
                                        "*** Could not find Group (nope) for delete! ***"}));
    EXPECT_TRUE(api.group_names().empty());
    EXPECT_TRUE(api.user("admin")->groups.empty());
}

// Dialog changes run on the event thread beside sessions that log in, read the same records and
// end: nothing may race (this runs under ThreadSanitizer) and every login gets an answer.
TEST(AdminConcurrency, AccountChangesBesideLoggingInSessions) {
    test::TestServer s;
    AdminApi api(s.app());
    std::atomic<bool> done{false};
    std::atomic<int> answered{0};
    std::thread sessions([&] {
        while (!done) {
            test::TestClient c(s.ftp_port());
            c.read_until("ready.\r\n");
            c.send("USER demo\r\n");
            c.read_until("\r\n");
            c.send("PASS demo-pass\r\n");
            std::string reply = c.read_until("\r\n");
            answered += reply.starts_with("230") || reply.starts_with("550");
        }
    });
    for (int i = 0; i < 30; ++i) {
        UserForm f = user_form("demo", "demo-pass", kRightFtpIn | kRightTelnetIn);
        f.super_user = i % 2 == 1;
        ASSERT_FALSE(api.save_user(f).refusal);
        api.save_group("staff", i % 3 == 0 ? std::vector<std::string>{"demo", "admin"}
                                           : std::vector<std::string>{"admin"});
        if (i % 10 == 9)
            api.delete_user("demo");
    }
    EXPECT_TRUE(test::wait_until([&] { return answered >= 3; }));
    done = true;
    sessions.join();
}
