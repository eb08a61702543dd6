#include "core/auth_settings.hpp"
#include "core/guard_policy.hpp"
#include "core/log.hpp"
#include "platform/ini.hpp"

#include <gtest/gtest.h>

using namespace orv;
using namespace std::chrono_literals;
using Admission = GuardPolicy::Admission;

namespace {

GuardPolicy policy(int ban_after, int first_ban_s, int max_per_address) {
    GuardPolicy p;
    p.configure({ban_after, std::chrono::seconds(first_ban_s), max_per_address});
    return p;
}

const GuardPolicy::Time t0 = GuardPolicy::Time{} + 1000h;

} // namespace

TEST(GuardPolicy, BanStartsAtTheNthFailureAndRepeatBansDouble) {
    GuardPolicy p = policy(3, 60, 0);
    EXPECT_FALSE(p.failure("1.2.3.4", t0));
    EXPECT_FALSE(p.failure("1.2.3.4", t0 + 1s));
    auto ban = p.failure("1.2.3.4", t0 + 2s);
    ASSERT_TRUE(ban);
    EXPECT_EQ(ban->length, 60s);
    EXPECT_EQ(ban->strike, 1);
    EXPECT_TRUE(p.banned("1.2.3.4", t0 + 61s));
    EXPECT_FALSE(p.banned("5.6.7.8", t0 + 3s)); // other addresses are not touched
    EXPECT_EQ(p.admit("1.2.3.4", t0 + 10s), Admission::Banned);
    EXPECT_EQ(p.admit("5.6.7.8", t0 + 10s), Admission::Allowed);
    // Failures during the ban are not counted towards the next one.
    EXPECT_FALSE(p.failure("1.2.3.4", t0 + 20s));

    auto ended = p.expire(t0 + 62s);
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_EQ(ended[0].key, "1.2.3.4");
    EXPECT_EQ(ended[0].refused, 1u);
    EXPECT_FALSE(p.banned("1.2.3.4", t0 + 62s));
    EXPECT_TRUE(p.expire(t0 + 63s).empty()); // logged once

    // Each repeat doubles, up to a day.
    std::vector<long> lengths;
    GuardPolicy::Time now = t0 + 100s;
    for (int round = 0; round < 14; ++round) {
        std::optional<GuardPolicy::BanStart> b;
        for (int i = 0; i < 3; ++i)
            b = p.failure("1.2.3.4", now);
        ASSERT_TRUE(b);
        lengths.push_back(b->length.count());
        now += b->length;
        p.expire(now);
    }
    EXPECT_EQ(lengths[0], 120);
    EXPECT_EQ(lengths[1], 240);
    EXPECT_EQ(lengths.back(), 86400);
}

TEST(GuardPolicy, FailuresAreForgivenBySuccessAndByTime) {
    GuardPolicy p = policy(2, 60, 0);
    EXPECT_FALSE(p.failure("a", t0));
    p.success("a");
    EXPECT_FALSE(p.failure("a", t0 + 1s)); // the count started again
    EXPECT_FALSE(p.failure("a", t0 + 1s + GuardPolicy::kFailureMemory + 1s)); // too old
    EXPECT_TRUE(p.failure("a", t0 + 2s + GuardPolicy::kFailureMemory + 1s));
    // After a long quiet spell a new ban is a first ban again.
    GuardPolicy::Time later = t0 + GuardPolicy::kStrikeMemory * 3;
    p.expire(later);
    p.failure("a", later);
    auto ban = p.failure("a", later);
    ASSERT_TRUE(ban);
    EXPECT_EQ(ban->strike, 1);
    EXPECT_EQ(ban->length, 60s);
}

TEST(GuardPolicy, ConnectionLimitCountsUntilReleased) {
    GuardPolicy p = policy(0, 60, 2);
    bool first = false;
    EXPECT_EQ(p.admit("a", t0, &first), Admission::Allowed);
    EXPECT_EQ(p.admit("a", t0, &first), Admission::Allowed);
    EXPECT_EQ(p.admit("a", t0, &first), Admission::Crowded);
    EXPECT_TRUE(first);
    EXPECT_EQ(p.admit("a", t0, &first), Admission::Crowded);
    EXPECT_FALSE(first); // reported once per spell
    EXPECT_EQ(p.admit("b", t0), Admission::Allowed);
    p.release("a");
    EXPECT_EQ(p.admit("a", t0, &first), Admission::Allowed);
    EXPECT_EQ(p.admit("a", t0, &first), Admission::Crowded);
    EXPECT_TRUE(first);
    EXPECT_EQ(p.connections("a"), 2);
    // Nothing to ban with ban_after 0.
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(p.failure("a", t0));
    p.release("a");
    p.release("a");
    p.release("a"); // one too many is harmless
    EXPECT_EQ(p.connections("a"), 0);
}

TEST(GuardPolicy, IdleAddressesAreForgottenSoTheTableStaysSmall) {
    GuardPolicy p = policy(5, 60, 4);
    for (int i = 0; i < 5000; ++i) {
        std::string key = "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256);
        ASSERT_EQ(p.admit(key, t0), Admission::Allowed);
        p.release(key);
    }
    EXPECT_LT(p.tracked(), 2100u);
    // An address still connected or banned is kept however large the table.
    GuardPolicy q = policy(1, 60, 4);
    q.admit("held", t0);
    q.failure("banned", t0);
    EXPECT_EQ(q.expire(t0 + 1s).size(), 0u);
    EXPECT_EQ(q.tracked(), 2u);
    q.release("held");
    q.expire(t0 + 2 * GuardPolicy::kStrikeMemory);
    EXPECT_EQ(q.tracked(), 0u);
}

TEST(GuardPolicy, KeysGroupIpv6ByNetworkAndUnmapIpv4) {
    EXPECT_EQ(guard_key("127.0.0.1"), "127.0.0.1");
    EXPECT_EQ(guard_key("::ffff:192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(guard_key("2001:db8:1:2:aaaa:bbbb:cccc:dddd"), "2001:db8:1:2::/64");
    EXPECT_EQ(guard_key("2001:db8:1:2::9"), guard_key("2001:db8:1:2:ffff::1"));
    EXPECT_NE(guard_key("2001:db8:1:2::9"), guard_key("2001:db8:1:3::9"));
    EXPECT_EQ(guard_key(""), "");
}

TEST(AuthSettings, OffByDefaultAndBadValuesKeepTheirDefault) {
    AuthSettings none = read_auth_settings(IniFile::parse("[Services]\nftp=1\n"), nullptr);
    EXPECT_FALSE(none.guard_on());
    EXPECT_FALSE(none.password_hash);
    EXPECT_EQ(none.ban_seconds, 600);

    std::vector<std::string> lines;
    Log log;
    log.set_sink([&](std::string_view t) { lines.emplace_back(t); });
    AuthSettings s = read_auth_settings(
        IniFile::parse("[extensions]\nLOGIN_DELAY_MS=1500\nban_after=5\nban_after=9\n"
                       "ban_seconds=12x\nmax_per_address=-3\nauth_log=1\npassword_hash=2\n"),
        &log);
    EXPECT_EQ(s.login_delay_ms, 1500);
    EXPECT_EQ(s.ban_after, 5); // the first occurrence wins
    EXPECT_EQ(s.ban_seconds, 600);
    EXPECT_EQ(s.max_per_address, 0);
    EXPECT_TRUE(s.auth_log);
    EXPECT_FALSE(s.password_hash);
    EXPECT_TRUE(s.guard_on());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "Settings: [Extensions] ban_seconds=12x is not a number from 0 to "
                        "2592000, ignored");
}
