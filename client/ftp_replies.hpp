#pragma once
// What the FTP client does with a piece of reply text from the remote server, decided without
// a socket: the reply code, the login dialogue and the waiting states of the command threads.
#include <cstdint>
#include <string_view>

namespace orv::client {

// Client states of the slot's state byte.
enum OftpState : uint8_t {
    kShell = 3,
    kGreeting = 4,
    kUserAsked = 5,
    kPasswordAsked = 6,
    kAccountAsked = 7,
    kIdle = 8,
    kConnected = 9,
    kBusy = 11,
    kPortSent = 14,
    kListSent = 15,
    kPortAccepted = 16,
    kListing = 17,
    kCommandSent = 18,
    kCommandDone = 19,
    kCommandFailed = 21,
    kTransfer = 23,
    kTransferDone = 24,
    kQuestion = 25,
    kAnswerYes = 26,
    kAnswerNo = 27,
    kMorePage = 28,
    kMoreKey = 29,
    kRelaying = 30,
    kRelayConnecting = 31,
};

// The decimal value of the first three received characters (0 when they are no number).
int reply_code(std::string_view piece);
// The piece's last two bytes are CR LF.
bool ends_crlf(std::string_view piece);

// The piece holds the last line of a reply with this code ("230 ..." rather than "230-...")
// and ends with it.
bool completes_reply(std::string_view piece, int code);

// States in which the reply handler classifies for a waiting thread.
bool is_wait_state(uint8_t state);
// The state after a reply arrives in a waiting state (14, 15, 17, 18, 23); `state` itself
// when the reply does not move it.
uint8_t classify_reply(uint8_t state, int code, std::string_view piece);

// The login dialogue (states 4 to 7): what to do besides echoing the text.
enum class Ask : uint8_t { None, User, Password, Account };
struct LoginStep {
    uint8_t state = 0;         // new state, 0 = unchanged
    bool cr_first = false;     // "\r" before the echo
    Ask ask = Ask::None;       // the question to print after the echo
    bool post_pending = false; // let a typed-ahead answer go at once
    bool prompt = false;       // the client prompt (the dialogue ended without a login)
    bool logged_in = false;    // type 'A'; the ASCII thread sets the server's type
    bool start_ascii = false;  // start the ASCII thread now (the reply's last line is in)
};
LoginStep login_step(uint8_t state, int code, std::string_view piece);

} // namespace orv::client
