// Floods of input in every Telnet input state stay within the line's limits (240 typed
// characters, 242 with the line end), whatever the state: a client that holds a key down at a
// "-MORE-" page or answers a question with megabytes must not grow the line without bound.
#include "telnetd/telnet_input.hpp"

#include <gtest/gtest.h>

namespace orv::telnet {
namespace {

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
