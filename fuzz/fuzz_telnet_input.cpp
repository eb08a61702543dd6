// The byte level of a Telnet session in every input state: line editing and echo, IAC
// sequences, the yes/no answer (state 25), the pager key (state 28) and the transfer state,
// with lines and keys taken out between reads as the event thread does. The line buffer must
// never pass its limit, a password must never be echoed, and option replies are whole.
#include "fuzz/fuzz_world.hpp"
#include "telnetd/telnet_input.hpp"

#include <fuzzer/FuzzedDataProvider.h>

using namespace orv;
using namespace orv::telnet;

namespace {

constexpr uint8_t kStates[] = {kStateLoginName,    kStatePassword,
                               kStateShell,        5,
                               kStateOftpPassword, 7,
                               kStateOftpIdle,     kStateOftpConnected,
                               kStateCommand,      kStateOftpCommand,
                               kStateInterrupt,    kStateTransfer,
                               kStateQuestion,     kStateMorePage};

bool is_ordinary(uint8_t state) {
    return state != kStateTransfer && state != kStateQuestion && state != kStateMorePage;
}

void check_reply(const std::string& reply, uint8_t state) {
    if (state == kStatePassword || state == kStateOftpPassword) {
        // Only line ends, erase sequences, "^[" and option replies may go back.
        for (size_t i = 0; i < reply.size(); ++i) {
            auto c = static_cast<unsigned char>(reply[i]);
            if (c == kIac) {
                fuzz::check(i + 2 < reply.size(), "option reply cut short");
                i += 2;
                continue;
            }
            fuzz::check(c == '\r' || c == '\n' || c == '^' || c == '[',
                        "a password character was echoed");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::string line_buf;
    while (input.remaining_bytes() > 0) {
        uint8_t state = input.PickValueInArray(kStates);
        size_t n = input.ConsumeIntegralInRange<size_t>(1, 600);
        std::string bytes = input.ConsumeBytesAsString(n);
        InputResult r;
        switch (state) {
        case kStateTransfer:
            r = feed_transfer(line_buf, bytes);
            break;
        case kStateQuestion:
            r = feed_question(line_buf, bytes);
            for (char c : r.reply)
                fuzz::check(std::string_view("yYnN\r\n").find(c) != std::string_view::npos,
                            "question echoed a byte it does not take");
            break;
        case kStateMorePage: {
            // Typed-ahead text may already wait in the line; the pager state adds keys only.
            size_t before = line_buf.size();
            r = feed_more_key(line_buf, bytes);
            fuzz::check(r.reply.empty(), "pager key echoed");
            fuzz::check(line_buf.substr(0, before).size() == before &&
                            line_buf.find_first_not_of(" qQ\n", before) == std::string::npos,
                        "pager stored a key it does not know");
            take_key(line_buf);
            break;
        }
        default:
            r = feed_ordinary(line_buf, bytes, state);
            check_reply(r.reply, state);
            if (r.interrupted)
                fuzz::check(line_buf.empty(), "interrupt kept the line");
            break;
        }
        fuzz::check(line_buf.size() <= kLineEndLimit, "line buffer over its limit");

        // Lines are taken only in the states where the event thread takes them.
        if (is_ordinary(state) && state <= kStateOftpConnected) {
            bool send_lf = false;
            // A CR LF ends the line at the first CR LF, so a lone CR before it may stay inside.
            while (std::optional<std::string> line = take_line(line_buf, send_lf))
                fuzz::check(line->find("\r\n") == std::string::npos, "line holds a CR LF");
        } else if (state == kStateQuestion) {
            bool send_lf = false;
            take_line(line_buf, send_lf);
        }
    }
    if (size >= 2) {
        std::string reply = option_reply(data[0], data[1]);
        fuzz::check(reply.empty() ||
                        (reply.size() == 3 && static_cast<unsigned char>(reply[0]) == kIac),
                    "option reply not three bytes");
    }
    return 0;
}
