// The FTP service's pure logic: line cutting, command parsing, PORT, the rate line and the
// long listing line's edge cases.
#include "accounts/group.hpp"
#include "accounts/user.hpp"
#include "ftpd/control_connection.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/dispatcher.hpp"
#include "ftpd/listing.hpp"
#include "ftpd/transfers.hpp"
#include "vfs/node.hpp"

#include <gtest/gtest.h>

using namespace orv;

TEST(FtpLineCutting, TakesOneLineAndTwoEndCharacters) {
    struct Case {
        const char* buffer;
        const char* line;
        const char* rest;
    };
    const Case cases[] = {
        {"USER demo\r\nPASS x\r\n", "USER demo", "PASS x\r\n"},
        // No "\r\n" yet: nothing is taken, even with a bare line feed in the buffer.
        {"NOOP\nLIST", "", "NOOP\nLIST"},
        // The line ends at the first line end of either kind; two characters go with it.
        {"abc\ndef\r\n", "abc", "ef\r\n"},
        {"\r\nrest", "", "rest"},
    };
    for (const Case& c : cases) {
        std::string buffer = c.buffer;
        EXPECT_EQ(take_command_line(buffer), c.line) << c.buffer;
        EXPECT_EQ(buffer, c.rest) << c.buffer;
    }
}

TEST(FtpCommandParsing, VerbsArgumentsAndTheLengthRule) {
    ParsedCommand c = parse_ftp_command("retr   my file.txt  ");
    EXPECT_EQ(c.index, kVerbRetr);
    EXPECT_EQ(c.argument, "my file.txt");
    EXPECT_EQ(parse_ftp_command("Pwd").index, kVerbPwd);
    EXPECT_EQ(parse_ftp_command(" USER demo").index, -1); // the verb is empty
    // A verb of 16 characters or more is never looked up.
    EXPECT_EQ(parse_ftp_command("USERUSERUSERUSER x").index, -1);
}

TEST(FtpPort, ArgumentDecodingAndReplies) {
    PortTarget t = decode_port_arg("10,1,2,3,300,7");
    EXPECT_EQ(t.address, "10.1.2.3");
    EXPECT_EQ(t.port, (300 % 256) * 256 + 7);
    EXPECT_EQ(decode_port_arg("127,0,0,1").port, 0);

    std::string stored = "old";
    EXPECT_EQ(port_reply("123,123,123,123,123,123", stored), "200 Port Command OK.\r\n");
    EXPECT_EQ(port_reply("123,123,123,123,123,1234", stored),
              "500 Syntax Error, Command not understood.\r\n");
    EXPECT_EQ(stored, "123,123,123,123,123,123"); // 23 characters: the longest taken
}

TEST(FtpTransferTexts, RateLine) {
    EXPECT_EQ(rate_line(7, 2048, 2.0, "sent"),
              "(7) 2048 bytes sent in 2.00 seconds (1.00 Kbytes/sec)");
    // Start and end in the same millisecond: one millisecond is taken.
    EXPECT_DOUBLE_EQ(transfer_seconds(std::chrono::microseconds(300)), 0.001);
    EXPECT_EQ(rate_line(7, 1024, transfer_seconds({}), "received"),
              "(7) 1024 bytes received in 0.00 seconds (1000.00 Kbytes/sec)");
}

TEST(FtpListingLine, NamesCutFlagsAndSignedSizes) {
    auto owner = std::make_shared<User>();
    owner->name = "abcdefghij";
    auto staff = std::make_shared<Group>();
    staff->name = "developers";
    VfsNode d;
    d.name = "src";
    d.kind = 'd';
    d.owner = owner;
    d.group = staff;
    // Owner and group names are cut to 8; only a flag of exactly 1 shows as granted.
    d.flags = {1, 1, 1, 2, 0, 1, 0, 0, 1};
    EXPECT_EQ(long_line(d), "drwx--x--x     abcdefgh develope          0 Jan  1  1998 src\r\n");
    d.size = 77;
    EXPECT_EQ(dot_line(d, ".."), "drwx--x--x     abcdefgh develope          0 Jan  1  1998 ..\r\n");
    // Sizes are shown as signed 32-bit numbers; a wider number is printed whole.
    d.size = 3000000000u;
    EXPECT_NE(long_line(d).find(" -1294967296 Jan"), std::string::npos);

    EXPECT_EQ(listing_word("-l"), "*.*");
    EXPECT_EQ(listing_word("-la sub"), "sub");
    EXPECT_EQ(listing_word("\"my dir\" x"), "my dir");
}
