#pragma once
// The byte level of a Telnet session: line editing and echo, the option replies, the special
// input states and taking a complete line out of the line buffer. Pure functions over the
// line buffer, so that they can be fed bytes without a socket.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orv::telnet {

// Telnet protocol bytes.
constexpr unsigned char kIac = 255;
constexpr unsigned char kWill = 251;
constexpr unsigned char kWont = 252;
constexpr unsigned char kDo = 253;
constexpr unsigned char kDont = 254;
constexpr unsigned char kOptEcho = 1;

// Session states that the byte handling tells apart.
enum SessionState : uint8_t {
    kStateLoginName = 1,
    kStatePassword = 2,
    kStateShell = 3,
    kStateOftpLoginFirst = 5, // 5 to 7: the outgoing client's login dialogue
    kStateOftpPassword = 6,
    kStateOftpLoginLast = 7,
    kStateOftpIdle = 8,
    kStateOftpConnected = 9,
    kStateCommand = 10,
    kStateOftpCommand = 11,
    kStateInterrupt = 12,
    kStateTransfer = 23,
    kStateQuestion = 25,
    kStateAnsweredYes = 26,
    kStateAnsweredNo = 27,
    kStateMorePage = 28,
    kStateMoreKey = 29,
    kStateRelay = 30,
};

// The most characters a line keeps: ordinary bytes stop at 240 so that a line end still fits.
constexpr size_t kLineCharLimit = 240;
constexpr size_t kLineEndLimit = 242;

// The three-byte reply to the option command that follows an IAC, or empty for none.
std::string option_reply(unsigned char command, unsigned char option);

// What one read did besides editing the line buffer.
struct InputResult {
    std::string reply;        // echo, erase sequences and option replies, in order
    bool interrupted = false; // Ctrl-C: the rest of the read was discarded
    bool key_taken = false;   // state 28: a pager key was stored
};

// The ordinary states (all but 23, 25, 28 and 30). In state 10 Ctrl-C (or IAC IP, as
// line-mode clients send it) empties the line and the caller requests the interrupt; echo is
// off in the password states 2 and 6.
InputResult feed_ordinary(std::string& line_buf, std::string_view bytes, uint8_t state);
// State 23 (outgoing transfer running): like the ordinary states, but Ctrl-C always
// interrupts (the caller aborts the transfer) and IAC is an ordinary byte.
InputResult feed_transfer(std::string& line_buf, std::string_view bytes);
// State 25 (yes/no question): only y, n, Y, N and the line ends are stored and echoed.
InputResult feed_question(std::string& line_buf, std::string_view bytes);
// State 28 (a pager page waits): space, q, Q and LF are stored, Ctrl-C is stored as Q; no echo.
// CR and every other byte (IAC included) are dropped.
InputResult feed_more_key(std::string& line_buf, std::string_view bytes);

// Takes the first complete line (ended by CR) out of the line buffer, or nothing when the
// buffer holds no CR. `send_lf` is set when the line ended in CR alone: the terminal then
// needs the LF that the echoed CR lacks.
std::optional<std::string> take_line(std::string& line_buf, bool& send_lf);

// The pager key: the first character of the line buffer, removed from it.
std::optional<char> take_key(std::string& line_buf);

} // namespace orv::telnet
