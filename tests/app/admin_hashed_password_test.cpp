#include "accounts/accounts.hpp"
#include "accounts/password.hpp"
#include "app/admin_api.hpp"
#include "support/test_server.hpp"

#include <gtest/gtest.h>
#include <shared_mutex>

using namespace orv;

namespace {

std::string stored_password(test::TestServer& s, const std::string& name) {
    std::shared_lock lock(s.server().tree_mutex);
    return s.server().accounts->find_user(name)->password;
}

} // namespace

TEST(AdminHashedPasswords, NewPasswordsHashedNeverShownEmptyFieldKeepsThem) {
    test::TestServer s;
    AdminApi api(s.app());
    AuthSettings hashing;
    hashing.password_hash = true;
    s.on_event_thread([&] { s.server().guard.configure(hashing); });

    UserForm form;
    form.name = "hana";
    form.password = "first pass";
    form.max_logins = "2";
    form.home_dir = "\\";
    form.rights = kRightFtpIn;
    ASSERT_FALSE(api.save_user(form).refusal);
    std::string hash = stored_password(s, "hana");
    ASSERT_TRUE(is_hashed_password(hash));
    EXPECT_TRUE(verify_hashed_password(hash, "first pass"));

    // The dialog shows nothing, and saving the empty field changes only the other fields.
    std::optional<UserView> view = api.user("hana");
    ASSERT_TRUE(view);
    EXPECT_EQ(view->password, "");
    form.password = "";
    form.max_logins = "4";
    ASSERT_FALSE(api.save_user(form).refusal);
    EXPECT_EQ(stored_password(s, "hana"), hash);

    // A new password replaces the hash with a new one.
    form.password = "second pass";
    ASSERT_FALSE(api.save_user(form).refusal);
    EXPECT_TRUE(verify_hashed_password(stored_password(s, "hana"), "second pass"));

    // An account with a classic stored form still needs its password typed.
    form.name = "demo";
    form.password = "";
    ASSERT_TRUE(api.save_user(form).refusal);
}
