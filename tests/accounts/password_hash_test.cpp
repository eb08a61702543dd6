#include "accounts/accounts.hpp"
#include "accounts/password.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

using namespace orv;

TEST(PasswordHash, SaltedVerifiableAndNeverShown) {
    std::optional<std::string> a = hash_password("s3cret pass");
    std::optional<std::string> b = hash_password("s3cret pass");
    ASSERT_TRUE(a && b);
    EXPECT_NE(*a, *b); // salted
    EXPECT_TRUE(is_hashed_password(*a));
    EXPECT_LE(a->size(), kMaxHashedPassword);
    EXPECT_EQ(a->find_first_of(":\r\n"), std::string::npos);
    EXPECT_TRUE(verify_hashed_password(*a, "s3cret pass"));
    EXPECT_FALSE(verify_hashed_password(*a, "s3cret pasS"));
    EXPECT_FALSE(verify_hashed_password(*a, ""));

    User u;
    u.name = "anna";
    u.password = *a;
    EXPECT_TRUE(check_password(u, "s3cret pass"));
    EXPECT_FALSE(check_password(u, *a));
    EXPECT_EQ(decode_password("anna", *a), "");
    // The rule still holds for hashed passwords.
    EXPECT_FALSE(hash_password(""));
    EXPECT_FALSE(hash_password(std::string(32, 'x')));
    EXPECT_FALSE(hash_password("with:colon"));
}

TEST(PasswordHash, ClassicFormsAreNeverTakenForHashes) {
    // Every classic form is at most 31 characters, even one that starts like a hash.
    for (const char* pw : {"$y$j9T$abc", "x", "0123456789012345678901234567890"}) {
        std::optional<std::string> enc = encode_password("someone", pw);
        ASSERT_TRUE(enc) << pw;
        EXPECT_FALSE(is_hashed_password(*enc)) << pw;
    }
    EXPECT_FALSE(is_hashed_password("$y$short"));
    // A hash of a cost this server does not make is not checked (no crafted slow hash).
    std::string costly = "$y$jFT$" + std::string(22, 'a') + "$" + std::string(43, 'b');
    EXPECT_FALSE(verify_hashed_password(costly, "anything"));
}

TEST(PasswordHash, StoredFormFollowsTheStartDirectorysSetting) {
    test::TempDir dir;
    std::optional<std::string> classic = store_password_for(dir.path(), "anna", "pw");
    EXPECT_EQ(classic, encode_password("anna", "pw"));
    dir.write("settings.ini", "[Extensions]\npassword_hash=1\n");
    std::optional<std::string> hashed = store_password_for(dir.path(), "anna", "pw");
    ASSERT_TRUE(hashed);
    EXPECT_TRUE(verify_hashed_password(*hashed, "pw"));
    EXPECT_FALSE(store_password_for(dir.path(), "anna", ""));

    // The users file keeps the whole hash, where a classic form is cut at 31.
    std::string line = "anna:101:" + *hashed + ":1:4:\\";
    std::shared_ptr<User> u = parse_user_line(line);
    EXPECT_EQ(u->password, *hashed);
    u = parse_user_line("bob:101:" + std::string(40, 'x') + ":1:4:\\");
    EXPECT_EQ(u->password.size(), kMaxPassword);
}
