// Byte handling of Telnet input, line taking, command look-up and the listing and who lines,
// fed without sockets.
#include "accounts/group.hpp"
#include "accounts/user.hpp"
#include "telnetd/shell_dispatch.hpp"
#include "telnetd/shell_listing.hpp"
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

TEST(TelnetInput, OrdinaryStatesEchoEditAndStore) {
    struct Case {
        std::string in;
        uint8_t state;
        std::string line, reply;
        bool interrupted = false;
    };
    const Case cases[] = {
        {"ls -l\r", kStateShell, "ls -l\r", "ls -l\r"},
        // Passwords are not echoed, but their line ends are; backspace is not shown.
        {"secret\r\n\b", kStatePassword, "secret\r", "\r\n"},
        {"pw\r\n", kStateOftpPassword, "pw\r\n", "\r\n"},
        {bytes({'a', 'b', 8, 'c', 127, 127, 127}), kStateShell, "", "ab\b \bc\b \b\b \b"},
        {bytes({27, 'x'}), kStateShell, "x", "^[x"}, // escape is shown, not stored
        // High and control bytes are ordinary; NUL is echoed but not stored.
        {bytes({1, 2, 128, 254, 0, 'x'}), kStateShell, bytes({1, 2, 128, 254, 'x'}),
         bytes({1, 2, 128, 254, 0, 'x'})},
        // Ctrl-C (or IAC IP) interrupts only a running command, and drops the typed line.
        {bytes({'a', 3, 'b'}), kStateCommand, "", "a", true},
        {bytes({'a', 3, 'b'}), kStateShell, "ab", "ab"},
        {bytes({255, 244, 255, 253, 6}), kStateCommand, "", "", true},
        // IAC takes exactly three bytes: IAC SB 24, then "Q" is typed, then IAC SE k.
        {bytes({255, 250, 24, 'Q', 255, 240, 'k'}), kStateShell, "Q", "Q"},
        {bytes({'a', 255, 251}), kStateShell, "a", "a"}, // cut by the end of the read
    };
    for (const Case& c : cases) {
        std::string line = c.state == kStateCommand ? "typed" : "";
        InputResult r = feed_ordinary(line, c.in, c.state);
        EXPECT_EQ(line, c.line) << testing::PrintToString(c.in);
        EXPECT_EQ(r.reply, c.reply) << testing::PrintToString(c.in);
        EXPECT_EQ(r.interrupted, c.interrupted) << testing::PrintToString(c.in);
    }
}

TEST(TelnetInput, QuestionMorePageAndTransferStates) {
    std::string line;
    InputResult r = feed_question(line, bytes({'x', 'Y', 255, 'n', 3, '\r'}));
    EXPECT_EQ(line, "Yn\r");
    EXPECT_EQ(r.reply, "Yn\r");

    // The pager stores its keys without echo; Ctrl-C becomes "Q".
    line.clear();
    r = feed_more_key(line, bytes({'x', ' ', '\n', '\r', 'q', 3}));
    EXPECT_TRUE(r.key_taken);
    EXPECT_EQ(r.reply, "");
    EXPECT_EQ(line, " \nqQ");
    EXPECT_EQ(take_key(line), ' ');
    EXPECT_EQ(line, "\nqQ");
    EXPECT_FALSE(feed_more_key(line, "abc").key_taken);
    // Every key byte counts: a space then Enter is a page and a line; IAC IP is no key at all.
    for (auto [in, stored] : {std::pair{std::string(" \r\n"), std::string(" \n")},
                              {"\r\n", "\n"},
                              {"q\r\n", "q\n"},
                              {bytes({255, 244}), ""},
                              {bytes({255, 244, ' '}), " "}}) {
        line.clear();
        feed_more_key(line, in);
        EXPECT_EQ(line, stored);
    }

    // A transfer takes IAC as text; Ctrl-C aborts it.
    line.clear();
    feed_transfer(line, bytes({'a', 255, 251, 24}));
    EXPECT_EQ(line, bytes({'a', 255, 251, 24}));
    r = feed_transfer(line, bytes({'b', 3, 'c'}));
    EXPECT_TRUE(r.interrupted);
    EXPECT_EQ(line, "");
}

TEST(TelnetLine, CrLfAndCrAloneCompleteLfAloneDoesNot) {
    bool send_lf = false;
    std::string buf = "a\rb\r\nc"; // a CR LF anywhere wins over an earlier CR
    EXPECT_EQ(take_line(buf, send_lf), "a\rb");
    EXPECT_FALSE(send_lf);
    EXPECT_EQ(buf, "c");

    buf = "cd x\rmore";
    EXPECT_EQ(take_line(buf, send_lf), "cd x");
    EXPECT_TRUE(send_lf);
    EXPECT_EQ(buf, "more");

    buf = "who\n";
    EXPECT_EQ(take_line(buf, send_lf), std::nullopt);
    buf += "\r";
    EXPECT_EQ(take_line(buf, send_lf), "who\n");
}

TEST(ShellLookup, ExactNamesTrimmedArgumentsAndTheLengthRule) {
    struct Case {
        const char* in;
        int index;
        const char* rest;
    };
    const Case cases[] = {
        {"ls   -l   ", 14, "-l"},
        {"telnet", 20, ""},
        {"Help me", -1, "Help"},
        {" ls", -1, ""},
        {"ls\t-l", -1, "ls\t-l"},
        {"abcdefghijklmno rest", -1, "abcdefghijklmno"}, // 15 characters is looked up
        {"abcdefghijklmnop rest", -1, "abcdefghijklmnop rest"},
    };
    for (const Case& c : cases) {
        std::string line = c.in;
        EXPECT_EQ(find_shell_command(line), c.index) << c.in;
        EXPECT_EQ(line, c.rest) << c.in;
    }
}

TEST(ShellLines, ListingAndWhoEdgeCases) {
    auto owner = std::make_shared<User>();
    owner->name = "averylongname";
    VfsNode node;
    node.kind = 'd';
    node.size = 4000000000u; // unsigned here, unlike the FTP listing
    node.owner = owner;
    node.flags = {2, 1, 1, 1, 0, 1, 1, 0, 1}; // only a flag of exactly 1 shows as granted
    EXPECT_EQ(listing_line(node, "big", false),
              "d-wxr-xr-x     averylon <none>   4000000000 big\r\n");
    EXPECT_EQ(listing_line(node, ".", true), "d-wxr-xr-x     averylon <none>            0 .\r\n");
    EXPECT_EQ(who_line("averyveryverylongname", 1234, false, {}),
              "averyveryverylon port 1234   ???.???.???.???\r\n");
}

// Floods in every input state stay within the line's limits: a client that holds a key down at
// a "-MORE-" page or answers a question with megabytes must not grow the line without bound.
TEST(InputLimits, EveryStateKeepsTheLineWithinItsLimit) {
    const std::string spaces(10000, ' ');
    const std::string keys(10000, 'q');
    const std::string answers(10000, 'y');
    const std::string letters(10000, 'x');
    const std::string line_ends(10000, '\n');

    std::string line;
    feed_more_key(line, spaces);
    EXPECT_EQ(line.size(), kLineCharLimit);
    feed_more_key(line, line_ends);
    EXPECT_EQ(line.size(), kLineEndLimit);

    line.clear();
    feed_more_key(line, keys + std::string(5000, '\x03'));
    EXPECT_EQ(line, std::string(kLineCharLimit, 'q'));

    line.clear();
    feed_question(line, answers + line_ends);
    EXPECT_EQ(line.size(), kLineEndLimit);

    line.clear();
    feed_transfer(line, letters + line_ends);
    EXPECT_EQ(line.size(), kLineEndLimit);

    for (uint8_t state : {kStateLoginName, kStatePassword, kStateShell, kStateCommand}) {
        line.clear();
        feed_ordinary(line, letters, state);
        EXPECT_EQ(line.size(), kLineCharLimit) << int(state);
    }
}

TEST(InputLimits, TheKeyStillWorksWhenTheLineIsFull) {
    std::string line(kLineCharLimit, 'a'); // typed ahead while the page was being sent
    feed_more_key(line, " ");
    std::optional<char> key = take_key(line);
    ASSERT_TRUE(key);
    EXPECT_EQ(*key, 'a'); // the first waiting character is the key, as it always was
}

} // namespace
} // namespace orv::telnet
