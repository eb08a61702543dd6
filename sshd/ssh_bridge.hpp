#pragma once
// The byte translation between an SSH channel and the shell's Telnet-style control socket.
// Pure and stateful across reads, so that it can be fed any split of the stream.
#include <string>
#include <string_view>

namespace orv::ssh {

// Channel -> shell. A 0xFF byte is doubled (it would otherwise start a Telnet command), and
// every line end (CR, LF, CR LF, CR NUL; a terminal's Enter is a lone CR, a pipe's is LF)
// becomes the CR LF that the shell's line reader takes as one line end.
class ShellInput {
  public:
    std::string encode(std::string_view bytes);

  private:
    bool after_cr_ = false;
};

// Shell -> channel. Telnet negotiation (IAC with a verb and option, IAC SB ... IAC SE, other
// two-byte commands) is dropped, IAC IAC becomes one 0xFF; every other byte passes.
class ShellOutput {
  public:
    std::string decode(std::string_view bytes);

  private:
    enum class State { Data, Iac, Option, Sub, SubIac };
    State state_ = State::Data;
};

// The output of a one-command session: the echo of the command line (everything up to the
// first LF) is dropped, and the prompt that follows the command ("# " while the shell waits
// for the next line) ends it and is not passed on.
class ExecOutput {
  public:
    // `at_shell_prompt` tells whether the shell is waiting at its prompt now. Returns the
    // bytes to pass on; sets done() once the command has finished.
    std::string feed(std::string_view bytes, bool at_shell_prompt);
    // Everything passed on so far (for the exit status).
    const std::string& output() const { return output_; }
    bool done() const { return done_; }

  private:
    bool echo_seen_ = false;
    bool done_ = false;
    std::string held_; // a trailing "#" or "# " that may be the prompt
    std::string output_;
};

// The exit status of a one-command session from the shell's answer: 127 when the command word
// was not found, 1 when the answer is one of the shell's refusals or failures, else 0.
int exec_exit_status(std::string_view command, std::string_view output);

} // namespace orv::ssh
