#include "telnet_input.hpp"

namespace orv::telnet {
namespace {

constexpr unsigned char kCtrlC = 3;
constexpr unsigned char kBackspace = 8;
constexpr unsigned char kDel = 127;
constexpr unsigned char kLf = 10;
constexpr unsigned char kCr = 13;
constexpr unsigned char kEsc = 27;
constexpr unsigned char kInterruptProcess = 244;

// Option numbers the server answers.
constexpr unsigned char kOptSuppressGoAhead = 3;
constexpr unsigned char kOptStatus = 5;
constexpr unsigned char kOptTerminalType = 24;
constexpr unsigned char kOptNaws = 31;
constexpr unsigned char kOptTerminalSpeed = 32;
constexpr unsigned char kOptToggleFlow = 33;
constexpr unsigned char kOptLinemode = 34;
constexpr unsigned char kOptNewEnviron = 39;

// Appends a byte as the C line buffer of the design did: a NUL ends the text there, so it
// never shows up in the line.
void store(std::string& line_buf, unsigned char c) {
    if (c != 0)
        line_buf.push_back(static_cast<char>(c));
}

// The editing rules shared by the ordinary states and the transfer state.
void edit_byte(std::string& line_buf, unsigned char c, bool echo, std::string& reply) {
    if (c == kBackspace || c == kDel) {
        if (line_buf.empty())
            return;
        line_buf.pop_back();
        if (echo)
            reply += "\b \b";
    } else if (c == kCr || c == kLf) {
        if (line_buf.size() >= kLineEndLimit)
            return;
        store(line_buf, c);
        reply.push_back(static_cast<char>(c)); // line ends are echoed even for passwords
    } else if (c == kEsc) {
        reply += "^[";
    } else {
        if (line_buf.size() >= kLineCharLimit)
            return;
        store(line_buf, c);
        if (echo)
            reply.push_back(static_cast<char>(c));
    }
}

} // namespace

std::string option_reply(unsigned char command, unsigned char option) {
    auto reply = [](unsigned char verb, unsigned char opt) {
        return std::string{static_cast<char>(kIac), static_cast<char>(verb),
                           static_cast<char>(opt)};
    };
    if (command == kWill) {
        switch (option) {
        case kOptTerminalType:
        case kOptNaws:
        case kOptTerminalSpeed:
        case kOptToggleFlow:
        case kOptLinemode:
        case kOptNewEnviron:
            return reply(kDont, option);
        default:
            return {};
        }
    }
    if (command == kDo && (option == kOptSuppressGoAhead || option == kOptStatus))
        return reply(kWill, option);
    return {};
}

InputResult feed_ordinary(std::string& line_buf, std::string_view bytes, uint8_t state) {
    InputResult result;
    const bool echo = state != kStatePassword && state != kStateOftpPassword;
    for (size_t i = 0; i < bytes.size(); ++i) {
        auto c = static_cast<unsigned char>(bytes[i]);
        if (c == kCtrlC) {
            if (state != kStateCommand)
                continue;
            line_buf.clear();
            result.interrupted = true;
            return result;
        }
        if (c == kIac) {
            // Exactly three bytes per IAC; a sequence cut by the end of the read is dropped.
            unsigned char command = i + 1 < bytes.size() ? bytes[i + 1] : 0;
            unsigned char option = i + 2 < bytes.size() ? bytes[i + 2] : 0;
            // Line-mode clients send Ctrl-C as "interrupt process".
            if (command == kInterruptProcess && state == kStateCommand) {
                line_buf.clear();
                result.interrupted = true;
                return result;
            }
            result.reply += option_reply(command, option);
            i += 2;
            continue;
        }
        edit_byte(line_buf, c, echo, result.reply);
    }
    return result;
}

InputResult feed_transfer(std::string& line_buf, std::string_view bytes) {
    InputResult result;
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        if (c == kCtrlC) {
            line_buf.clear();
            result.interrupted = true;
            return result;
        }
        edit_byte(line_buf, c, true, result.reply);
    }
    return result;
}

InputResult feed_question(std::string& line_buf, std::string_view bytes) {
    InputResult result;
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        if (c == kCr || c == kLf) {
            if (line_buf.size() >= kLineEndLimit)
                continue;
        } else if (c == 'y' || c == 'Y' || c == 'n' || c == 'N') {
            if (line_buf.size() >= kLineCharLimit)
                continue;
        } else {
            continue;
        }
        line_buf.push_back(ch);
        result.reply.push_back(ch);
    }
    return result;
}

InputResult feed_more_key(std::string& line_buf, std::string_view bytes) {
    InputResult result;
    // Byte by byte: a space followed by CR LF is two keys (a page, then one line), and an
    // IAC with whatever follows it is no key at all, so "interrupt process" only drops out.
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        char key = ch;
        if (c == kCtrlC)
            key = 'Q';
        else if (c != ' ' && c != 'q' && c != 'Q' && c != kLf)
            continue; // CR, IAC and every other byte
        // The same limits as typed characters: a flood of keys must not grow the line.
        if (line_buf.size() >= (c == kLf ? kLineEndLimit : kLineCharLimit))
            continue;
        line_buf.push_back(key);
        result.key_taken = true;
    }
    return result;
}

std::optional<std::string> take_line(std::string& line_buf, bool& send_lf) {
    send_lf = false;
    size_t cr = line_buf.find('\r');
    if (cr == std::string::npos)
        return std::nullopt;
    size_t crlf = line_buf.find("\r\n");
    std::string line;
    if (crlf != std::string::npos) {
        line = line_buf.substr(0, crlf);
        line_buf.erase(0, crlf + 2);
    } else {
        send_lf = true;
        line = line_buf.substr(0, cr);
        line_buf.erase(0, cr + 1);
    }
    return line;
}

std::optional<char> take_key(std::string& line_buf) {
    if (line_buf.empty())
        return std::nullopt;
    char key = line_buf.front();
    line_buf.erase(0, 1);
    return key;
}

} // namespace orv::telnet
