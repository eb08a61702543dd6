#include "sshd/ssh_bridge.hpp"

#include <array>

namespace orv::ssh {
namespace {

constexpr unsigned char kIac = 255;
constexpr unsigned char kSb = 250;
constexpr unsigned char kSe = 240;
constexpr unsigned char kWill = 251;
constexpr unsigned char kDont = 254;
constexpr char kCr = '\r';
constexpr char kLf = '\n';

// How the shell's refusals and failures read: "cmd: ..." lines, "path: <reason>" lines, and
// the pager's "more failed: ...".
constexpr std::array<std::string_view, 4> kFailureEnds = {
    ": No such file or directory", ": permission denied", ": does not exist", ": not a directory"};
constexpr std::array<std::string_view, 3> kFailureMarks = {"failed", "Failed", "Denied"};

bool is_failure_line(std::string_view line, std::string_view word) {
    if (line.size() > word.size() && line.starts_with(word)) {
        if (line[word.size()] == ':')
            return true;
        if (line[word.size()] == ' ')
            for (std::string_view mark : kFailureMarks)
                if (line.find(mark) != std::string_view::npos)
                    return true;
    }
    for (std::string_view end : kFailureEnds)
        if (line.ends_with(end))
            return true;
    return false;
}

} // namespace

std::string ShellInput::encode(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() + 8);
    for (char c : bytes) {
        bool was_cr = after_cr_;
        after_cr_ = false;
        if (c == kCr) {
            out += "\r\n";
            after_cr_ = true;
        } else if (c == kLf || c == '\0') {
            if (!was_cr)
                out += c == kLf ? "\r\n" : std::string_view("\0", 1);
        } else if (static_cast<unsigned char>(c) == kIac) {
            out += "\xff\xff";
        } else {
            out += c;
        }
    }
    return out;
}

std::string ShellOutput::decode(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        switch (state_) {
        case State::Data:
            if (c == kIac)
                state_ = State::Iac;
            else
                out += ch;
            break;
        case State::Iac:
            if (c == kIac) {
                out += ch;
                state_ = State::Data;
            } else if (c >= kWill && c <= kDont) {
                state_ = State::Option;
            } else if (c == kSb) {
                state_ = State::Sub;
            } else {
                state_ = State::Data; // a two-byte command
            }
            break;
        case State::Option:
            state_ = State::Data;
            break;
        case State::Sub:
            if (c == kIac)
                state_ = State::SubIac;
            break;
        case State::SubIac:
            state_ = c == kSe ? State::Data : State::Sub;
            break;
        }
    }
    return out;
}

std::string ExecOutput::feed(std::string_view bytes, bool at_shell_prompt) {
    if (done_)
        return {};
    if (!echo_seen_) {
        size_t lf = bytes.find(kLf);
        if (lf == std::string_view::npos)
            return {};
        echo_seen_ = true;
        bytes.remove_prefix(lf + 1);
    }
    std::string text = held_ + std::string(bytes);
    held_.clear();
    if (text.ends_with("# ") && at_shell_prompt) {
        text.resize(text.size() - 2);
        done_ = true;
    } else if (text.ends_with("# ")) {
        held_ = "# ";
        text.resize(text.size() - 2);
    } else if (text.ends_with('#')) {
        held_ = "#";
        text.pop_back();
    }
    output_ += text;
    return text;
}

int exec_exit_status(std::string_view command, std::string_view output) {
    std::string_view word = command.substr(0, command.find(' '));
    if (output == std::string(word) + ": not found\r\n")
        return 127;
    // Only the shell's own answer lines count, not names in a listing.
    while (!output.empty()) {
        size_t end = output.find(kLf);
        std::string_view line = output.substr(0, end);
        output = end == std::string_view::npos ? std::string_view() : output.substr(end + 1);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (!word.empty() && is_failure_line(line, word))
            return 1;
    }
    return 0;
}

} // namespace orv::ssh
