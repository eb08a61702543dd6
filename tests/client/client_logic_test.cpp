// The FTP client's decisions without sockets: reply classification, the login dialogue, the
// command table, the hash/tick setting, the hash marks and the rate line.
#include "client/ftp_commands.hpp"
#include "client/ftp_replies.hpp"
#include "client/host_lookup.hpp"
#include "client/progress.hpp"

#include <gtest/gtest.h>

using namespace orv::client;

TEST(ClientReplies, CodeAndLineEnd) {
    EXPECT_EQ(reply_code("226 Transfer complete.\r\n"), 226);
    EXPECT_EQ(reply_code("230-Welcome\r\n"), 230);
    EXPECT_EQ(reply_code("22"), 22);
    EXPECT_EQ(reply_code("abc"), 0);
    EXPECT_TRUE(ends_crlf("220 ready\r\n"));
    EXPECT_FALSE(ends_crlf("220 rea"));
    EXPECT_FALSE(ends_crlf("\n"));
    // The last line of a multi-line reply ends it.
    EXPECT_TRUE(completes_reply("230 Logged in.\r\n", 230));
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
        {kPortSent, 200, "200 ok\r\n", kPortAccepted},
        {kPortSent, 530, "530 no\r\n", kPortAccepted},
        {kPortSent, 200, "200 ok\r\n226 done\r\n", kTransferDone},
        {kPortSent, 421, "421 bye\r\n", kCommandFailed},
        {kPortSent, 331, "331 ?\r\n", kPortSent},
        // LIST/NLST sent.
        {kListSent, 150, "150 here\r\n", kListing},
        {kListSent, 125, "125 open\r\n226 done\r\n", kTransferDone},
        {kListSent, 502, "502 no\r\n", kListing},
        {kListSent, 550, "550 none\r\n", kCommandFailed},
        {kListSent, 425, "425 cannot\r\n", kCommandFailed},
        {kListSent, 226, "226 done\r\n", kListSent},
        // Listing and transfer under way: only 226 ends them.
        {kListing, 226, "226 done\r\n", kTransferDone},
        {kListing, 426, "426 aborted\r\n", kListing},
        {kTransfer, 226, "226 done\r\n", kTransferDone},
        {kTransfer, 426, "426 aborted\r\n", kTransfer},
        // A single command.
        {kCommandSent, 257, "257 \"/\"\r\n", kCommandDone},
        {kCommandSent, 110, "110 mark\r\n", kCommandDone},
        {kCommandSent, 150, "150 here\r\n", kCommandDone},
        {kCommandSent, 150, "150 here\r\n226 done\r\n", kTransferDone},
        {kCommandSent, 553, "553 bad name\r\n", kCommandFailed},
        {kCommandSent, 450, "450 busy\r\n", kCommandFailed},
        {kCommandSent, 331, "331 ?\r\n", kCommandSent},
        // Other states are not moved here.
        {kCommandDone, 226, "226 done\r\n", kCommandDone},
        {kConnected, 226, "226 done\r\n", kConnected},
    };
    for (const Case& c : cases)
        EXPECT_EQ(classify_reply(c.state, c.code, c.piece), c.expected)
            << int(c.state) << " " << c.piece;
    EXPECT_TRUE(is_wait_state(kTransfer));
    EXPECT_FALSE(is_wait_state(kCommandDone));
}

TEST(ClientReplies, LoginDialogue) {
    LoginStep greet = login_step(kGreeting, 220, true);
    EXPECT_EQ(greet.state, kUserAsked);
    EXPECT_EQ(greet.ask, Ask::User);
    EXPECT_TRUE(greet.post_pending);
    // A greeting cut in two asks only after the part that ends the line.
    EXPECT_EQ(login_step(kGreeting, 220, false).ask, Ask::None);
    EXPECT_EQ(login_step(kGreeting, 220, false).state, kUserAsked);
    EXPECT_TRUE(login_step(kGreeting, 421, true).prompt);
    EXPECT_EQ(login_step(kGreeting, 500, true).state, 0);

    EXPECT_EQ(login_step(kUserAsked, 331, false).ask, Ask::Password);
    LoginStep direct = login_step(kUserAsked, 230, false);
    EXPECT_TRUE(direct.logged_in);
    EXPECT_FALSE(direct.start_ascii); // only once the reply's line has ended
    EXPECT_TRUE(login_step(kUserAsked, 230, true).start_ascii);
    EXPECT_EQ(login_step(kUserAsked, 332, true).ask, Ask::Account);
    EXPECT_TRUE(login_step(kUserAsked, 530, true).prompt);
    LoginStep again = login_step(kUserAsked, 220, true);
    EXPECT_EQ(again.state, kUserAsked);
    EXPECT_EQ(again.ask, Ask::User);

    LoginStep pass = login_step(kPasswordAsked, 230, false);
    EXPECT_TRUE(pass.cr_first);
    EXPECT_TRUE(pass.start_ascii); // whatever the line end
    EXPECT_EQ(pass.state, kBusy);
    EXPECT_TRUE(login_step(kPasswordAsked, 503, true).prompt);
    EXPECT_EQ(login_step(kPasswordAsked, 332, true).ask, Ask::Account);
    EXPECT_EQ(login_step(kPasswordAsked, 331, true).state, 0);

    EXPECT_TRUE(login_step(kAccountAsked, 502, true).start_ascii);
    EXPECT_TRUE(login_step(kAccountAsked, 202, true).prompt);
    EXPECT_TRUE(login_step(kAccountAsked, 202, true).cr_first);
}

TEST(ClientCommands, LookupIsExactWithTheSixteenCharacterRule) {
    std::string arg = "unchanged";
    EXPECT_EQ(find_command("get  remote.txt  local.txt  ", arg), Cmd::Get);
    EXPECT_EQ(arg, "remote.txt  local.txt");
    EXPECT_EQ(find_command("?", arg), Cmd::Question);
    EXPECT_EQ(arg, "");
    EXPECT_EQ(find_command("more", arg), Cmd::More);
    arg = "kept";
    EXPECT_FALSE(find_command("GET x", arg));
    EXPECT_FALSE(find_command(" get x", arg));
    EXPECT_FALSE(find_command("get\tx", arg));
    EXPECT_FALSE(find_command("", arg));
    EXPECT_FALSE(find_command("abcdefghijklmnop", arg));
    EXPECT_EQ(arg, "kept");
    EXPECT_EQ(kCommandWords.size(), 30u);
    EXPECT_STREQ(kCommandWords[static_cast<int>(Cmd::Ftp)], "ftp");
}

TEST(ClientCommands, HashAndTick) {
    HashSetting s = hash_setting("100", 10240);
    EXPECT_EQ(s.hash_on, 1);
    EXPECT_EQ(s.tick_size, 2048);
    EXPECT_EQ(s.text, "Defaulting to minimum size of 2048 bytes\r\n");
    s = hash_setting("", 10240);
    EXPECT_EQ(s.tick_size, 2048);
    EXPECT_EQ(s.text, "Defaulting to minimum size of 2048 bytes\r\n");
    s = hash_setting("4096 more", 10240);
    EXPECT_EQ(s.tick_size, 4096);
    EXPECT_EQ(s.text, "Ticksize set to 4096 bytes\r\n");
    s = hash_setting("on", 5000);
    EXPECT_EQ(s.hash_on, 1);
    EXPECT_EQ(s.tick_size, 5000);
    EXPECT_EQ(s.text, "");
    s = hash_setting("off", 5000);
    EXPECT_EQ(s.hash_on, 0);
    EXPECT_EQ(s.text, "");
    s = hash_setting("99999999999999", 5000);
    EXPECT_EQ(s.tick_size, 0x7fffffff);
}

TEST(ClientCommands, HelpTextIsExact) {
    EXPECT_STREQ(kHelpText, "Commands are:\r\n\r\n?\r\n"
                            "ascii    dir      lcd      more     quit \r\n"
                            "bin      exit     ldir     mput    *qoute\r\n"
                            "bye      ftp      lpwd     open     rmdir \r\n"
                            "cd       get      ls       prompt   tick  \r\n"
                            "close    hash     mget     put      user  \r\n"
                            "delete\t\thelp     mkdir    pwd            \r\n");
}

TEST(ClientCommands, WordsAndOpenArgument) {
    TwoWords w = two_words("  a.txt   b\\c.txt  extra");
    EXPECT_EQ(w.first, "a.txt");
    EXPECT_EQ(w.second, "b\\c.txt");
    EXPECT_EQ(two_words(std::string(400, 'x')).first.size(), kMaxLocalPath);
    EXPECT_EQ(open_argument("  host.example   2121  x"), "host.example 2121");
    EXPECT_EQ(open_argument("host"), "host");
    EXPECT_EQ(open_argument(std::string(100, 'h')).size(), 80u);
    EXPECT_EQ(port_number("", 21), 21);
    EXPECT_EQ(port_number("0", 23), 23);
    EXPECT_EQ(port_number("2121", 21), 2121);
    EXPECT_EQ(port_number("70000", 21), -1);
    EXPECT_EQ(port_number("-5", 21), -1);
}

TEST(ClientProgress, HashMarksShowEachTickWhateverTheBlocks) {
    HashMarks marks(true, 4096);
    std::string out;
    // 4096-byte reads: one mark each, each a multiple of 4096.
    for (int i = 0; i < 3; ++i)
        out += marks.add(4096);
    EXPECT_EQ(out, "\rbytes transfered: 4096\rbytes transfered: 8192\rbytes transfered: 12288");
    // Uneven pieces and one that spans two ticks.
    EXPECT_EQ(marks.add(1000), "");
    EXPECT_EQ(marks.add(9000), "\rbytes transfered: 16384\rbytes transfered: 20480");
    EXPECT_EQ(marks.total(), 22288);
    EXPECT_EQ(marks.finish(), "\rbytes transfered: 22288\r\n");

    HashMarks off(false, 2048);
    EXPECT_EQ(off.add(100000), "");
    EXPECT_EQ(off.finish(), "");
    EXPECT_EQ(off.total(), 100000);
}

TEST(ClientProgress, ElapsedNeverBorrowsAndTheRateLine) {
    // 1.900 to 3.100: two whole seconds plus |100 - 900| ms.
    EXPECT_DOUBLE_EQ(elapsed_seconds({1, 900}, {3, 100}), 2.8);
    EXPECT_DOUBLE_EQ(elapsed_seconds({5, 0}, {5, 0}), 0.0);
    EXPECT_EQ(rate_line(7, 2048, 0.0, true),
              "(7) 2048 bytes received in 0.00 seconds (2.00 Kbytes/sec)");
    EXPECT_EQ(rate_line(7, 10240, 2.0, false),
              "(7) 10240 bytes sent in 2.00 seconds (5.00 Kbytes/sec)");
}
