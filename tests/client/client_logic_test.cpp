// The FTP client's decisions without sockets: reply classification, the login dialogue, the
// command table, the hash/tick setting, the hash marks and the rate line.
#include "client/ftp_commands.hpp"
#include "client/ftp_replies.hpp"
#include "client/host_lookup.hpp"
#include "client/progress.hpp"

#include <gtest/gtest.h>

using namespace orv::client;

TEST(ClientReplies, CodesAndTheLineThatEndsAReply) {
    EXPECT_EQ(reply_code("230-Welcome\r\n"), 230);
    EXPECT_EQ(reply_code("22"), 22);
    EXPECT_EQ(reply_code("abc"), 0);
    EXPECT_FALSE(ends_crlf("\n"));
    EXPECT_TRUE(completes_reply("230-Hello\r\n230 Logged in.\r\n", 230));
    EXPECT_FALSE(completes_reply("230-Hello\r\n", 230));
    EXPECT_FALSE(completes_reply("230 Logged", 230));
    EXPECT_FALSE(completes_reply("230-Hello\r\n 230 not the end\r\n", 230));
}

TEST(ClientReplies, WaitingStatesFollowTheTable) {
    struct Case {
        uint8_t state;
        int code;
        const char* piece;
        uint8_t expected;
    };
    const Case cases[] = {
        // PORT sent: refusals other than 421 still let the command go on.
        {kPortSent, 530, "530 no\r\n", kPortAccepted},
        {kPortSent, 200, "200 ok\r\n226 done\r\n", kTransferDone},
        {kPortSent, 421, "421 bye\r\n", kCommandFailed},
        {kPortSent, 331, "331 ?\r\n", kPortSent},
        // LIST/NLST sent.
        {kListSent, 150, "150 here\r\n", kListing},
        {kListSent, 125, "125 open\r\n226 done\r\n", kTransferDone},
        {kListSent, 502, "502 no\r\n", kListing},
        {kListSent, 550, "550 none\r\n", kCommandFailed},
        {kListSent, 226, "226 done\r\n", kListSent},
        // Listing and transfer under way: only 226 ends them.
        {kListing, 426, "426 aborted\r\n", kListing},
        {kTransfer, 226, "226 done\r\n", kTransferDone},
        // A single command.
        {kCommandSent, 110, "110 mark\r\n", kCommandDone},
        {kCommandSent, 150, "150 here\r\n226 done\r\n", kTransferDone},
        {kCommandSent, 450, "450 busy\r\n", kCommandFailed},
        {kCommandSent, 331, "331 ?\r\n", kCommandSent},
        // Other states are not moved here.
        {kConnected, 226, "226 done\r\n", kConnected},
    };
    for (const Case& c : cases)
        EXPECT_EQ(classify_reply(c.state, c.code, c.piece), c.expected)
            << int(c.state) << " " << c.piece;
}

TEST(ClientReplies, LoginDialogue) {
    LoginStep greet = login_step(kGreeting, 220, "220 ready\r\n");
    EXPECT_EQ(greet.state, kUserAsked);
    EXPECT_EQ(greet.ask, Ask::User);
    EXPECT_TRUE(greet.post_pending);
    // A greeting cut in two asks only after the part that ends the line.
    EXPECT_EQ(login_step(kGreeting, 220, "220 rea").ask, Ask::None);
    EXPECT_TRUE(login_step(kGreeting, 421, "421 busy\r\n").prompt);
    EXPECT_EQ(login_step(kGreeting, 500, "500 what\r\n").state, 0);

    EXPECT_EQ(login_step(kUserAsked, 331, "331 pass").ask, Ask::Password);
    EXPECT_TRUE(login_step(kUserAsked, 230, "230 in").logged_in);
    EXPECT_FALSE(login_step(kUserAsked, 230, "230 in").start_ascii); // not before the line ends
    EXPECT_TRUE(login_step(kUserAsked, 230, "230 in\r\n").start_ascii);
    EXPECT_EQ(login_step(kUserAsked, 332, "332 acct\r\n").ask, Ask::Account);
    EXPECT_EQ(login_step(kUserAsked, 220, "220 again\r\n").ask, Ask::User);

    LoginStep pass = login_step(kPasswordAsked, 230, "230-welcome\r\n230 in\r\n");
    EXPECT_TRUE(pass.cr_first);
    EXPECT_TRUE(pass.start_ascii);
    EXPECT_EQ(pass.state, kBusy);
    // Only the first lines of a multi-line reply: logged in, the ASCII thread waits for the rest.
    LoginStep part = login_step(kPasswordAsked, 230, "230-welcome\r\n");
    EXPECT_TRUE(part.logged_in);
    EXPECT_FALSE(part.start_ascii);
    EXPECT_TRUE(login_step(kPasswordAsked, 503, "503 no\r\n").prompt);
    EXPECT_EQ(login_step(kPasswordAsked, 331, "331 again\r\n").state, 0);

    EXPECT_TRUE(login_step(kAccountAsked, 502, "502 no accounts\r\n").start_ascii);
    EXPECT_TRUE(login_step(kAccountAsked, 202, "202 ok\r\n").prompt);
    EXPECT_TRUE(login_step(kAccountAsked, 202, "202 ok\r\n").cr_first);
}

TEST(ClientCommands, LookupIsExactWithTheSixteenCharacterRule) {
    std::string arg = "unchanged";
    EXPECT_EQ(find_command("get  remote.txt  local.txt  ", arg), Cmd::Get);
    EXPECT_EQ(arg, "remote.txt  local.txt");
    EXPECT_EQ(find_command("?", arg), Cmd::Question);
    arg = "kept";
    for (const char* line : {"GET x", " get x", "get\tx", "", "abcdefghijklmnop"})
        EXPECT_FALSE(find_command(line, arg)) << line;
    EXPECT_EQ(arg, "kept");
}

TEST(ClientCommands, HashTickWordsAndPorts) {
    // The texts are checked end to end; here the numbers behind them.
    HashSetting s = hash_setting("100", 10240);
    EXPECT_EQ(s.hash_on, 1);
    EXPECT_EQ(s.tick_size, 2048);
    EXPECT_EQ(hash_setting("4096 more", 10240).tick_size, 4096);
    s = hash_setting("off", 5000);
    EXPECT_EQ(s.hash_on, 0);
    EXPECT_EQ(s.text, "");
    EXPECT_EQ(hash_setting("99999999999999", 5000).tick_size, 0x7fffffff);

    TwoWords w = two_words("  a.txt   b\\c.txt  extra");
    EXPECT_EQ(w.first, "a.txt");
    EXPECT_EQ(w.second, "b\\c.txt");
    EXPECT_EQ(two_words(std::string(400, 'x')).first.size(), kMaxLocalPath);
    EXPECT_EQ(open_argument("  host.example   2121  x"), "host.example 2121");
    EXPECT_EQ(open_argument(std::string(100, 'h')).size(), 80u);
    EXPECT_EQ(port_number("0", 23), 23);
    EXPECT_EQ(port_number("2121", 21), 2121);
    EXPECT_EQ(port_number("70000", 21), -1);
    EXPECT_EQ(port_number("-5", 21), -1);
}

TEST(ClientProgress, HashMarksElapsedTimeAndTheRateLine) {
    HashMarks marks(true, 4096);
    std::string out = marks.add(4096) + marks.add(1000);
    EXPECT_EQ(out, "\rbytes transfered: 4096");
    // A piece that spans two ticks shows both.
    EXPECT_EQ(marks.add(9000), "\rbytes transfered: 8192\rbytes transfered: 12288");
    EXPECT_EQ(marks.finish(), "\rbytes transfered: 14096\r\n");
    HashMarks off(false, 2048);
    EXPECT_EQ(off.add(100000), "");
    EXPECT_EQ(off.finish(), "");
    EXPECT_EQ(off.total(), 100000);

    // 1.900 to 3.100: two whole seconds plus |100 - 900| ms.
    EXPECT_DOUBLE_EQ(elapsed_seconds({1, 900}, {3, 100}), 2.8);
    EXPECT_EQ(rate_line(7, 2048, 0.0, true),
              "(7) 2048 bytes received in 0.00 seconds (2.00 Kbytes/sec)");
    EXPECT_EQ(rate_line(7, 10240, 2.0, false),
              "(7) 10240 bytes sent in 2.00 seconds (5.00 Kbytes/sec)");
}
