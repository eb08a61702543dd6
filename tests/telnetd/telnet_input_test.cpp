// Byte handling of Telnet input, line taking, command look-up, chmod modes and the listing and
// who lines, fed without sockets.
#include "accounts/group.hpp"
#include "accounts/user.hpp"
#include "telnetd/shell_dispatch.hpp"
#include "telnetd/shell_listing.hpp"
#include "telnetd/shell_ownership.hpp"
#include "telnetd/telnet_input.hpp"
#include "vfs/node.hpp"

#include <gtest/gtest.h>

namespace orv::telnet {
namespace {

std::string bytes(std::initializer_list<int> values) {
    std::string s;
    for (int v : values)
        s.push_back(static_cast<char>(v));
    return s;
}

TEST(TelnetInput, EchoesAndStoresOrdinaryCharacters) {
    std::string line;
    InputResult r = feed_ordinary(line, "ls -l", kStateShell);
    EXPECT_EQ(line, "ls -l");
    EXPECT_EQ(r.reply, "ls -l");
    r = feed_ordinary(line, "\r", kStateShell);
    EXPECT_EQ(r.reply, "\r");
    EXPECT_EQ(line, "ls -l\r");
}

TEST(TelnetInput, PasswordStatesDoNotEchoButLineEndsAre) {
    for (uint8_t state : {uint8_t{kStatePassword}, uint8_t{kStateOftpPassword}}) {
        std::string line;
        InputResult r = feed_ordinary(line, "secret\r\n", state);
        EXPECT_EQ(line, "secret\r\n");
        EXPECT_EQ(r.reply, "\r\n");
        r = feed_ordinary(line, "\b", state);
        EXPECT_EQ(r.reply, "");
        EXPECT_EQ(line, "secret\r");
    }
}

TEST(TelnetInput, BackspaceAndDeleteEditTheLine) {
    std::string line;
    InputResult r = feed_ordinary(line, bytes({'a', 'b', 8, 'c', 127, 127, 127}), kStateShell);
    EXPECT_EQ(line, "");
    EXPECT_EQ(r.reply, "ab\b \bc\b \b\b \b");
}

TEST(TelnetInput, EscapeIsShownNotStored) {
    std::string line;
    InputResult r = feed_ordinary(line, bytes({27, 'x'}), kStateShell);
    EXPECT_EQ(r.reply, "^[x");
    EXPECT_EQ(line, "x");
}

TEST(TelnetInput, OrdinaryBytesStopAt240LineEndsAt242) {
    std::string line;
    feed_ordinary(line, std::string(250, 'a'), kStateShell);
    EXPECT_EQ(line.size(), 240u);
    InputResult r = feed_ordinary(line, "\r\n\r", kStateShell);
    EXPECT_EQ(line.size(), 242u);
    EXPECT_EQ(r.reply, "\r\n");
    r = feed_ordinary(line, "z", kStateShell);
    EXPECT_EQ(r.reply, "");
    EXPECT_EQ(line.size(), 242u);
}

TEST(TelnetInput, HighAndControlBytesAreOrdinaryNulIsNotStored) {
    std::string line;
    feed_ordinary(line, bytes({1, 2, 128, 254, 0, 'x'}), kStateShell);
    EXPECT_EQ(line, bytes({1, 2, 128, 254, 'x'}));
}

TEST(TelnetInput, CtrlCInterruptsOnlyARunningCommand) {
    std::string line = "typed";
    InputResult r = feed_ordinary(line, bytes({'a', 3, 'b'}), kStateCommand);
    EXPECT_TRUE(r.interrupted);
    EXPECT_EQ(line, "");
    EXPECT_EQ(r.reply, "a");
    line.clear();
    r = feed_ordinary(line, bytes({'a', 3, 'b'}), kStateShell);
    EXPECT_FALSE(r.interrupted);
    EXPECT_EQ(line, "ab");
}

TEST(TelnetInput, OptionRepliesAreThreeBytesEach) {
    struct Case {
        int command, option;
        std::string reply;
    };
    const Case cases[] = {
        {251, 24, bytes({255, 254, 24})},
        {251, 31, bytes({255, 254, 31})},
        {251, 32, bytes({255, 254, 32})},
        {251, 33, bytes({255, 254, 33})},
        {251, 34, bytes({255, 254, 34})},
        {251, 39, bytes({255, 254, 39})},
        {253, 3, bytes({255, 251, 3})},
        {253, 5, bytes({255, 251, 5})},
        {253, 1, ""},
        {251, 1, ""},
        {252, 24, ""},
        {254, 3, ""},
        {250, 24, ""},
        {253, 24, ""},
    };
    for (const Case& c : cases) {
        std::string line;
        InputResult r = feed_ordinary(line, bytes({255, c.command, c.option}), kStateShell);
        EXPECT_EQ(r.reply, c.reply) << c.command << " " << c.option;
        EXPECT_EQ(line, "");
    }
}

TEST(TelnetInput, IacConsumesExactlyThreeBytesAndSubnegotiationLeaksAsText) {
    std::string line;
    // IAC SB 24 Q IAC SE k: the SB takes three bytes, "Q" is typed, IAC SE k takes three.
    InputResult r = feed_ordinary(line, bytes({255, 250, 24, 'Q', 255, 240, 'k'}), kStateShell);
    EXPECT_EQ(line, "Q");
    EXPECT_EQ(r.reply, "Q");
    line.clear();
    r = feed_ordinary(line, bytes({'a', 255, 251}), kStateShell); // cut by the end of the read
    EXPECT_EQ(line, "a");
}

TEST(TelnetInput, QuestionStateStoresOnlyYesNoAndLineEnds) {
    std::string line;
    InputResult r = feed_question(line, bytes({'x', 'Y', 255, 'n', 3, '\r'}));
    EXPECT_EQ(line, "Yn\r");
    EXPECT_EQ(r.reply, "Yn\r");
}

TEST(TelnetInput, MorePageStoresKeysWithoutEcho) {
    std::string line;
    InputResult r = feed_more_key(line, bytes({'x', ' ', '\n', '\r', 'q', 3}));
    EXPECT_TRUE(r.key_taken);
    EXPECT_EQ(r.reply, "");
    EXPECT_EQ(line, " \nqQ");
    EXPECT_EQ(take_key(line), ' ');
    EXPECT_EQ(line, "\nqQ");
    r = feed_more_key(line, "abc");
    EXPECT_FALSE(r.key_taken);
}

TEST(TelnetInput, MorePageTakesALineModeKeyOnceAndEnterAsAKey) {
    std::string line;
    feed_more_key(line, " \r\n");
    EXPECT_EQ(line, " ");
    line.clear();
    feed_more_key(line, "\r\n");
    EXPECT_EQ(line, "\n");
    line.clear();
    feed_more_key(line, bytes({255, 244, 255, 253, 6}));
    EXPECT_EQ(line, "Q");
}

TEST(TelnetInput, InterruptProcessActsAsCtrlCInACommand) {
    std::string line = "typed";
    InputResult r = feed_ordinary(line, bytes({255, 244, 255, 253, 6}), kStateCommand);
    EXPECT_TRUE(r.interrupted);
    EXPECT_EQ(line, "");
    EXPECT_EQ(r.reply, "");
}

TEST(TelnetInput, TransferStateTreatsIacAsTextAndCtrlCAborts) {
    std::string line;
    InputResult r = feed_transfer(line, bytes({'a', 255, 251, 24}));
    EXPECT_EQ(line, bytes({'a', 255, 251, 24}));
    r = feed_transfer(line, bytes({'b', 3, 'c'}));
    EXPECT_TRUE(r.interrupted);
    EXPECT_EQ(line, "");
}

TEST(TelnetLine, CrLfAndCrAloneCompleteLfAloneDoesNot) {
    bool send_lf = false;
    std::string buf = "ls\r\npwd\r\n";
    EXPECT_EQ(take_line(buf, send_lf), "ls");
    EXPECT_FALSE(send_lf);
    EXPECT_EQ(buf, "pwd\r\n");

    buf = "cd x\rmore";
    EXPECT_EQ(take_line(buf, send_lf), "cd x");
    EXPECT_TRUE(send_lf);
    EXPECT_EQ(buf, "more");

    buf = "who\n";
    EXPECT_EQ(take_line(buf, send_lf), std::nullopt);
    EXPECT_EQ(buf, "who\n");
    buf += "\r";
    EXPECT_EQ(take_line(buf, send_lf), "who\n");
    EXPECT_TRUE(send_lf);
}

TEST(TelnetLine, CrLfAnywhereWinsOverAnEarlierCr) {
    bool send_lf = false;
    std::string buf = "a\rb\r\nc";
    EXPECT_EQ(take_line(buf, send_lf), "a\rb");
    EXPECT_FALSE(send_lf);
    EXPECT_EQ(buf, "c");
}

TEST(ShellLookup, FindsExactNamesAndTrimsTheArgument) {
    std::string line = "ls   -l   ";
    EXPECT_EQ(find_shell_command(line), 14);
    EXPECT_EQ(line, "-l");
    line = "ls -l";
    EXPECT_EQ(find_shell_command(line), 14);
    EXPECT_EQ(line, "-l");
    line = "telnet";
    EXPECT_EQ(find_shell_command(line), 20);
    EXPECT_EQ(line, "");
    line = "?";
    EXPECT_EQ(find_shell_command(line), 16);
}

TEST(ShellLookup, CaseTabsLeadingBlanksAndLongWordsAreNotCommands) {
    std::string line = "Help me";
    EXPECT_EQ(find_shell_command(line), -1);
    EXPECT_EQ(line, "Help");
    line = "ls\t-l";
    EXPECT_EQ(find_shell_command(line), -1);
    line = " ls";
    EXPECT_EQ(find_shell_command(line), -1);
    EXPECT_EQ(line, "");
    line = "abcdefghijklmnop rest";
    EXPECT_EQ(find_shell_command(line), -1);
    EXPECT_EQ(line, "abcdefghijklmnop rest");
    line = "abcdefghijklmno rest"; // 15 characters is looked up
    EXPECT_EQ(find_shell_command(line), -1);
    EXPECT_EQ(line, "abcdefghijklmno");
}

TEST(ChmodMode, OctalDigitsReplaceAllNineFlags) {
    ModeParse m = parse_chmod_mode("754");
    ASSERT_EQ(m.kind, ModeParse::Ok);
    EXPECT_EQ(m.flags, (std::array<uint8_t, 9>{1, 1, 1, 1, 0, 1, 1, 0, 0}));
    m = parse_chmod_mode("7");
    EXPECT_EQ(m.flags, (std::array<uint8_t, 9>{0, 0, 0, 0, 0, 0, 1, 1, 1}));
    m = parse_chmod_mode("55");
    EXPECT_EQ(m.flags, (std::array<uint8_t, 9>{0, 0, 0, 1, 0, 1, 1, 0, 1}));
}

TEST(ChmodMode, SymbolicInvalidAndIgnoredModes) {
    EXPECT_EQ(parse_chmod_mode("0755").kind, ModeParse::Invalid);
    EXPECT_EQ(parse_chmod_mode("u+x").kind, ModeParse::Symbolic);
    EXPECT_EQ(parse_chmod_mode("a=rwx").kind, ModeParse::Symbolic);
    EXPECT_EQ(parse_chmod_mode("8").kind, ModeParse::Ignored);
    EXPECT_EQ(parse_chmod_mode("7z").kind, ModeParse::Ignored);
}

TEST(ShellListingLine, FormatsKindModeOwnerGroupSizeAndName) {
    auto owner = std::make_shared<User>();
    owner->name = "averylongname";
    auto group = std::make_shared<Group>();
    group->name = "staff";
    VfsNode node;
    node.kind = '-';
    node.size = 1234;
    node.owner = owner;
    node.group = group;
    node.flags = {1, 1, 0, 1, 0, 0, 1, 0, 0};
    EXPECT_EQ(listing_line(node, "notes.txt", false),
              "-rw-r--r--     averylon staff          1234 notes.txt\r\n");
    node.group.reset();
    node.kind = 'd';
    node.flags = {1, 1, 1, 1, 0, 1, 1, 0, 1};
    EXPECT_EQ(listing_line(node, ".", true), "drwxr-xr-x     averylon <none>            0 .\r\n");
    node.size = 4000000000u;
    EXPECT_EQ(listing_line(node, "big", false),
              "drwxr-xr-x     averylon <none>   4000000000 big\r\n");
}

TEST(ShellListingLine, OnlyAFlagOfOneShowsAsGranted) {
    VfsNode node;
    node.flags = {2, 1, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(listing_line(node, "x", false).substr(0, 10), "--w-------");
}

TEST(ShellWhoLine, PadsNamesAndWritesTheSocketWithThreeDigits) {
    EXPECT_EQ(who_line("Login", 7, true, {127, 0, 0, 1}),
              "Login            port 007   127.0.0.1\r\n");
    EXPECT_EQ(who_line("averyveryverylongname", 1234, false, {}),
              "averyveryverylon port 1234   ???.???.???.???\r\n");
}

} // namespace
} // namespace orv::telnet
