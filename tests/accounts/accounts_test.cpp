#include "accounts/accounts.hpp"
#include "accounts/password.hpp"
#include "core/log.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace orv;

namespace {

struct Loaded {
    std::vector<std::string> log;
    Log logger;
    Accounts accounts;
    std::atomic<long> memory{0};
    Loaded() : accounts(&memory) {
        logger.set_sink([this](std::string_view t) { log.emplace_back(t); });
    }
    void load(const test::TempDir& dir) {
        accounts.read_groups(dir / "groups", logger);
        accounts.read_users(dir / "users", logger);
        accounts.link_groups(dir / "groups", logger);
    }
};

} // namespace

TEST(Users, ReadFieldsRightsAndSuperUsers) {
    test::TempDir dir;
    dir.write("users", "anna:5:xx:2:15:\\pub\r\nbob:101:yy:1:4:\\home\\bob:extra\n");
    Loaded l;
    l.load(dir);
    auto anna = l.accounts.find_user("anna");
    auto bob = l.accounts.find_user("bob");
    ASSERT_TRUE(anna && bob);
    EXPECT_TRUE(anna->is_super());
    EXPECT_EQ(anna->home_dir, "\\pub");
    EXPECT_FALSE(bob->is_super());
    EXPECT_TRUE(bob->has_right(kRightFtpIn));
    EXPECT_FALSE(bob->has_right(kRightTelnetIn));
    EXPECT_EQ(bob->home_dir, "\\home\\bob:extra"); // the sixth field is the rest of the line
    EXPECT_EQ(l.accounts.find_user("Bob"), nullptr);
    EXPECT_EQ(l.accounts.users().front()->name, "bob"); // newest first
}

TEST(Users, SaveReversesOrderDropsPlaceholdersAndIsPrivate) {
    test::TempDir dir;
    dir.write("users", "A:101:p:1:4:\\\nB:102:p:1:4:\\\nC:103:p:1:4:\\\nG:-1:p:1:4:\\\n");
    Loaded l;
    l.load(dir);
    l.accounts.find_or_make_user("ghost");
    ASSERT_TRUE(l.accounts.save_users(dir / "users"));
    EXPECT_EQ(dir.read("users"), "C:103:p:1:4:\\\nB:102:p:1:4:\\\nA:101:p:1:4:\\\n");
    struct stat st {};
    ASSERT_EQ(::stat((dir / "users").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(Users, OverlongFieldsAreCut) {
    auto u = parse_user_line(std::string(40, 'n') + ":x:" + std::string(50, 'p') +
                             ":1:4:" + std::string(300, 'h'));
    EXPECT_EQ(u->name.size(), kMaxUserName);
    EXPECT_EQ(u->uid, 0); // not a number
    EXPECT_EQ(u->password.size(), kMaxPassword);
    EXPECT_EQ(u->home_dir.size(), kMaxHomeDir);
}

TEST(Users, NextFreeIds) {
    Accounts a;
    auto add = [&](int16_t uid) {
        auto u = std::make_shared<User>();
        u->uid = uid;
        a.push_user(u);
    };
    add(10);
    add(11);
    add(101);
    EXPECT_EQ(a.next_free_uid(false), 102);
    for (int16_t id = 12; id <= 99; ++id)
        add(id);
    EXPECT_EQ(a.next_free_uid(true), -1);
    auto g = std::make_shared<Group>();
    g->gid = 101;
    a.push_group(g);
    EXPECT_EQ(a.next_free_gid(), 102);
}

TEST(Groups, LinkingReportsProblemsAndKeepsBothChains) {
    test::TempDir dir;
    dir.write("users", "anna:101:p:1:4:\\\nbob:102:p:1:4:\\\n");
    dir.write("groups", "staff:101:anna:nobody:bob\nempty:102\n");
    Loaded l;
    l.load(dir);
    auto staff = l.accounts.find_group("staff");
    ASSERT_TRUE(staff);
    ASSERT_EQ(staff->members.size(), 2u);
    EXPECT_EQ(staff->members[0]->name, "anna");
    EXPECT_TRUE(l.accounts.find_user("bob")->in_group(staff.get()));
    EXPECT_NE(std::find(l.log.begin(), l.log.end(), "Group (staff) User (nobody) doesn't exist."),
              l.log.end());
    EXPECT_NE(std::find(l.log.begin(), l.log.end(), "Group (empty) is empty."), l.log.end());
    ASSERT_TRUE(l.accounts.save_groups(dir / "groups"));
    EXPECT_EQ(dir.read("groups"), "empty:102\nstaff:101:anna:bob\n");

    l.accounts.remove_user(l.accounts.find_user("anna"));
    EXPECT_EQ(staff->members.size(), 1u);
    l.accounts.remove_group(staff);
    EXPECT_TRUE(l.accounts.find_user("bob")->memberships.empty());
}

TEST(Groups, UnknownGroupWhileLinking) {
    test::TempDir dir;
    dir.write("groups", "a:101:x\n");
    Loaded l;
    l.accounts.read_groups(dir / "groups", l.logger);
    dir.write("groups", "b:101:x\n");
    l.accounts.link_groups(dir / "groups", l.logger);
    EXPECT_NE(std::find(l.log.begin(), l.log.end(), "Group (b) not found."), l.log.end());
}

TEST(Password, EncodingProperties) {
    auto a = encode_password("anna", "secret");
    auto b = encode_password("bob", "secret");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a, encode_password("anna", "secret")); // deterministic
    EXPECT_NE(*a, *b);                               // depends on the name
    EXPECT_NE(*a, "secret");
    std::string all;
    for (int c = 32; c <= 126; ++c)
        if (c != ':')
            all.push_back(static_cast<char>(c));
    for (size_t off = 0; off < all.size(); off += 31) {
        std::string pw = all.substr(off, 31);
        auto enc = encode_password("someone", pw);
        ASSERT_TRUE(enc);
        EXPECT_LE(enc->size(), 31u);
        for (char c : *enc) {
            EXPECT_TRUE(c >= 32 && c <= 126 && c != ':') << int(c);
        }
        EXPECT_EQ(decode_password("someone", *enc), pw);
    }
}

TEST(Password, RuleRefusesWhatItCannotEncode) {
    EXPECT_GT(password_rule("a", "ok pass"), 0);
    for (std::string bad : {std::string(), std::string(32, 'x'), std::string("has:colon"),
                            std::string("line\nend"), std::string("\xc3\xa9")})
        EXPECT_LE(password_rule("a", bad), 0) << bad;
    User u;
    u.name = "anna";
    u.password = *encode_password("anna", "pw");
    EXPECT_TRUE(check_password(u, "pw"));
    EXPECT_FALSE(check_password(u, "PW"));
    EXPECT_FALSE(check_password(u, u.password)); // the stored form is not the password
}
