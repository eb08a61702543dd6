// The FTP service's pure logic: line cutting, command parsing, PORT, the rate line and the
// long listing line.
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
    std::string buffer = "USER demo\r\nPASS x\r\n";
    EXPECT_EQ(take_command_line(buffer), "USER demo");
    EXPECT_EQ(buffer, "PASS x\r\n");
    EXPECT_EQ(take_command_line(buffer), "PASS x");
    EXPECT_EQ(buffer, "");

    // No "\r\n" yet: nothing is taken, even with a bare line feed in the buffer.
    buffer = "NOOP\nLIST";
    EXPECT_EQ(take_command_line(buffer), "");
    EXPECT_EQ(buffer, "NOOP\nLIST");

    // The line ends at the first line end of either kind; two characters go with it.
    buffer = "abc\ndef\r\n";
    EXPECT_EQ(take_command_line(buffer), "abc");
    EXPECT_EQ(buffer, "ef\r\n");

    buffer = "\r\nrest";
    EXPECT_EQ(take_command_line(buffer), "");
    EXPECT_EQ(buffer, "rest");
}

TEST(FtpCommandParsing, VerbsArgumentsAndTableIndex) {
    ParsedCommand c = parse_ftp_command("retr   my file.txt  ");
    EXPECT_EQ(c.index, kVerbRetr);
    EXPECT_EQ(c.argument, "my file.txt");

    EXPECT_EQ(parse_ftp_command("Pwd").index, kVerbPwd);
    EXPECT_EQ(parse_ftp_command("PWD").argument, "");
    EXPECT_EQ(parse_ftp_command("NOOP").index, 35);
    EXPECT_EQ(parse_ftp_command("EPRT |1|127.0.0.1|5000|").index, -1);
    EXPECT_EQ(parse_ftp_command("").index, -1);
    EXPECT_EQ(parse_ftp_command(" USER demo").index, -1); // the verb is empty
    // A verb of 16 characters or more is never looked up.
    EXPECT_EQ(parse_ftp_command("USERUSERUSERUSER x").index, -1);
    EXPECT_EQ(parse_ftp_command("USERUSERUSERUSE").index, -1); // 15: looked up, unknown
}

TEST(FtpPort, ArgumentDecodingAndReplies) {
    PortTarget t = decode_port_arg("127,0,0,1,4,1");
    EXPECT_EQ(t.address, "127.0.0.1");
    EXPECT_EQ(t.port, 1025);
    t = decode_port_arg("10,1,2,3,300,7");
    EXPECT_EQ(t.address, "10.1.2.3");
    EXPECT_EQ(t.port, (300 % 256) * 256 + 7);
    EXPECT_EQ(decode_port_arg("127,0,0,1").port, 0);
    EXPECT_EQ(decode_port_arg("garbage").address, "garbage");

    std::string stored = "old";
    EXPECT_EQ(port_reply("127,0,0,1,200,100", stored), "200 Port Command OK.\r\n");
    EXPECT_EQ(stored, "127,0,0,1,200,100");
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

namespace {

std::unique_ptr<VfsNode> file_node(const std::string& name, uint32_t size,
                                   std::shared_ptr<User> owner, std::shared_ptr<Group> group,
                                   std::array<uint8_t, 9> flags) {
    auto n = std::make_unique<VfsNode>();
    n->name = name;
    n->size = size;
    n->owner = std::move(owner);
    n->group = std::move(group);
    n->flags = flags;
    return n;
}

} // namespace

TEST(FtpListingLine, FieldsByteForByte) {
    auto anne = std::make_shared<User>();
    anne->name = "anne";
    auto n = file_node("report.txt", 1234, anne, nullptr, {1, 1, 0, 1, 0, 0, 1, 0, 0});
    EXPECT_EQ(long_line(*n),
              "-rw-r--r--     anne     <none>         1234 Jan  1  1998 report.txt\r\n");

    // Owner and group names are cut to 8; only a flag of exactly 1 shows as granted.
    auto longname = std::make_shared<User>();
    longname->name = "abcdefghij";
    auto staff = std::make_shared<Group>();
    staff->name = "developers";
    auto d = file_node("src", 0, longname, staff, {1, 1, 1, 2, 0, 1, 0, 0, 1});
    d->kind = 'd';
    EXPECT_EQ(long_line(*d), "drwx--x--x     abcdefgh develope          0 Jan  1  1998 src\r\n");
    EXPECT_EQ(dot_line(*d, "."), "drwx--x--x     abcdefgh develope          0 Jan  1  1998 .\r\n");
    EXPECT_EQ(dot_line(*n, ".."),
              "-rw-r--r--     anne     <none>            0 Jan  1  1998 ..\r\n");

    // Sizes are shown as signed 32-bit numbers; a wider number is printed whole.
    auto big = file_node("big", 3000000000u, anne, nullptr, {});
    EXPECT_NE(long_line(*big).find(" -1294967296 Jan"), std::string::npos);
}

TEST(FtpListingLine, WordSkipsOptions) {
    EXPECT_EQ(listing_word(""), "*.*");
    EXPECT_EQ(listing_word("-l"), "*.*");
    EXPECT_EQ(listing_word("-la sub"), "sub");
    EXPECT_EQ(listing_word("*.txt"), "*.txt");
    EXPECT_EQ(listing_word("\"my dir\" x"), "my dir");
}
