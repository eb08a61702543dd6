#include "client/ftp_replies.hpp"

#include "platform/text.hpp"

#include <algorithm>
#include <initializer_list>

namespace orv::client {
namespace {

bool one_of(int code, std::initializer_list<int> codes) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

// A listing or transfer whose end was announced in the same piece as its start.
bool holds_226(std::string_view piece) {
    return piece.find("\r\n226 ") != std::string_view::npos;
}

} // namespace

int reply_code(std::string_view piece) {
    return to_int(piece.substr(0, 3));
}

bool ends_crlf(std::string_view piece) {
    return piece.size() >= 2 && piece.substr(piece.size() - 2) == "\r\n";
}

bool completes_reply(std::string_view piece, int code) {
    std::string last = std::to_string(code) + " ";
    return ends_crlf(piece) &&
           (piece.substr(0, last.size()) == last || piece.find("\r\n" + last) != piece.npos);
}

bool is_wait_state(uint8_t state) {
    return state == kPortSent || state == kListSent || state == kListing || state == kCommandSent ||
           state == kTransfer;
}

uint8_t classify_reply(uint8_t state, int code, std::string_view piece) {
    switch (state) {
    case kPortSent:
        if (one_of(code, {200, 500, 501, 530}))
            return holds_226(piece) ? kTransferDone : kPortAccepted;
        if (code == 421)
            return kCommandFailed;
        return state;
    case kListSent:
        if (one_of(code, {125, 150, 250, 500, 501, 502, 530}))
            return holds_226(piece) ? kTransferDone : kListing;
        if (one_of(code, {421, 425, 426, 450, 451, 550}))
            return kCommandFailed;
        return state;
    case kListing:
    case kTransfer:
        return code == 226 ? static_cast<uint8_t>(kTransferDone) : state;
    case kCommandSent:
        // A small file's "150" and "226" often arrive together; without this the thread
        // would wait for a "226" that has already gone by.
        if (one_of(code, {110, 125, 150}) && holds_226(piece))
            return kTransferDone;
        if (one_of(code, {110, 125, 150, 200, 226, 250, 257}))
            return kCommandDone;
        if (one_of(code, {421, 425, 426, 450, 451, 500, 501, 502, 530, 550, 553}))
            return kCommandFailed;
        return state;
    default:
        return state;
    }
}

LoginStep login_step(uint8_t state, int code, std::string_view piece) {
    bool crlf = ends_crlf(piece);
    LoginStep step;
    // The three ways a reply moves the dialogue on.
    auto ask = [&](uint8_t next, Ask question) {
        step.state = next;
        step.ask = question;
        step.post_pending = true;
    };
    auto log_in = [&] {
        step.state = kBusy;
        step.logged_in = true;
    };
    auto give_up = [&] {
        step.state = kIdle;
        step.prompt = true;
    };
    switch (state) {
    case kGreeting:
        if (code == 220)
            ask(kUserAsked, crlf ? Ask::User : Ask::None);
        else if (code == 120 || code == 421)
            give_up();
        break;
    case kUserAsked:
        if (code == 331) {
            ask(kPasswordAsked, Ask::Password);
        } else if (code == 230) {
            log_in();
        } else if (code == 332) {
            ask(kAccountAsked, Ask::Account);
        } else if (one_of(code, {120, 421, 500, 501, 530, 550})) {
            give_up();
        } else {
            step.state = kUserAsked;
            step.ask = crlf ? Ask::User : Ask::None;
        }
        break;
    case kPasswordAsked:
        step.cr_first = true;
        if (code == 230)
            log_in();
        else if (code == 332)
            ask(kAccountAsked, Ask::Account);
        else if (one_of(code, {202, 421, 500, 501, 503, 530}))
            give_up();
        break;
    case kAccountAsked:
        step.cr_first = true;
        if (code == 230 || code == 502)
            log_in();
        else if (one_of(code, {202, 421, 500, 501, 503, 530}))
            give_up();
        break;
    default:
        break;
    }
    // The ASCII thread starts once the whole login reply is in; a reply cut short of its last
    // line starts it when the rest arrives.
    step.start_ascii = step.logged_in && completes_reply(piece, code);
    return step;
}

} // namespace orv::client
