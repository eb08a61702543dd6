#include "sshd/ssh_bridge.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace orv::ssh;

namespace {

// Feeds `chunks` one after the other, so that every split of a sequence is tried.
template <typename Coder> std::string run(Coder& coder, const std::vector<std::string>& chunks) {
    std::string out;
    for (const std::string& c : chunks) {
        if constexpr (std::is_same_v<Coder, ShellInput>)
            out += coder.encode(c);
        else
            out += coder.decode(c);
    }
    return out;
}

std::vector<std::string> split_at(const std::string& s, size_t at) {
    return {s.substr(0, at), s.substr(at)};
}

} // namespace

TEST(SshShellInput, LineEndsAndIacBecomeWhatTheLineReaderTakes) {
    struct Case {
        std::string in, out;
    } cases[] = {
        {"ls\r", "ls\r\n"},                   // a terminal's Enter
        {"ls\n", "ls\r\n"},                   // a pipe's line end
        {"ls\r\n", "ls\r\n"},                 // already a pair: not doubled
        {std::string("ls\r\0", 4), "ls\r\n"}, // CR NUL
        {"a\r\rb\n\n", "a\r\n\r\nb\r\n\r\n"},
        {"x\xffy", "x\xff\xffy"},
        {"\x7f\x03", "\x7f\x03"}, // erase and interrupt keys pass as they are
    };
    for (const Case& c : cases) {
        for (size_t at = 0; at <= c.in.size(); ++at) {
            ShellInput input;
            EXPECT_EQ(run(input, split_at(c.in, at)), c.out) << "split at " << at;
        }
    }
}

TEST(SshShellOutput, NegotiationIsDroppedAcrossAnySplit) {
    const std::string wire = std::string("\xff\xfb\x01") + "hi\r\n" + "\xff\xff" + "x" +
                             "\xff\xfa\x18\x01\xff\xf0" + "# " + "\xff\xf1" + "z";
    const std::string want = std::string("hi\r\n") + "\xff" + "x# z";
    for (size_t at = 0; at <= wire.size(); ++at) {
        ShellOutput output;
        EXPECT_EQ(run(output, split_at(wire, at)), want) << "split at " << at;
    }
    ShellOutput plain;
    EXPECT_EQ(plain.decode("no telnet here\r\n"), "no telnet here\r\n");
}

TEST(SshExecOutput, EchoAndFinalPromptAreNotPassedOn) {
    ExecOutput exec;
    EXPECT_EQ(exec.feed("ls -l", false), "");
    EXPECT_EQ(exec.feed("\r\nfile one\r\n", false), "file one\r\n");
    // A "# " in the middle of the output is text, even when it ends a read.
    EXPECT_EQ(exec.feed("a # ", false), "a ");
    EXPECT_EQ(exec.feed("b\r\n", false), "# b\r\n");
    EXPECT_FALSE(exec.done());
    EXPECT_EQ(exec.feed("# ", true), "");
    EXPECT_TRUE(exec.done());
    EXPECT_EQ(exec.output(), "file one\r\na # b\r\n");
    EXPECT_EQ(exec.feed("more\r\n", true), "");
}

TEST(SshExecOutput, PromptHeldUntilTheShellIsBackAtIt) {
    ExecOutput exec;
    exec.feed("cd x\r\n", false);
    // The prompt arrives before the shell's state says so: it waits, then ends the command.
    EXPECT_EQ(exec.feed("#", false), "");
    EXPECT_EQ(exec.feed(" ", false), "");
    EXPECT_FALSE(exec.done());
    EXPECT_EQ(exec.feed("", true), "");
    EXPECT_TRUE(exec.done());
    EXPECT_EQ(exec.output(), "");
}

TEST(SshExecStatus, RefusalsAndUnknownCommandsAreFailures) {
    struct Case {
        const char* command;
        const char* output;
        int status;
    } cases[] = {
        {"ls", "drwxr-xr-x     root     <none>            0 pub\r\n", 0},
        {"pwd", "\\\r\n", 0},
        {"cd nothere", "", 0},
        {"bogus x", "bogus: not found\r\n", 127},
        {"cd nothere", "nothere: does not exist\r\n", 1},
        {"cd file", "file: not a directory\r\n", 1},
        {"ls gone", "gone: No such file or directory\r\n", 1},
        {"mkdir a", "mkdir: Permissions Denied\r\n", 1},
        {"rm x", "rm: \"x\"; Permissions Denied\r\n", 1},
        {"more f", "more failed: Permissions Denied\r\n", 1},
        {"chmod 9 f", "chmod: ERROR: invalid mode\r\n", 1},
        // A listing that merely contains such words is no failure.
        {"ls", "-rw-r--r--     root     <none>           10 mkdir: failed\r\n", 0},
        {"who", "demo  127.0.0.1\r\n", 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(exec_exit_status(c.command, c.output), c.status) << c.command;
}
