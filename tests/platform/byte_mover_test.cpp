// The byte mover over a real loopback connection, for every way it can move the bytes: every
// byte arrives in order, and each way a move can end is reported as what it is.
#include "platform/byte_mover.hpp"
#include "platform/net.hpp"
#include "support/temp_dir.hpp"
#include "support/test_server.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orv;
using namespace std::chrono_literals;

namespace {

// A connected loopback pair: `server` is the mover's end, `client` the test's.
struct Pair {
    int server = tcp_socket();
    int client = -1;
    Pair() {
        int port = 0;
        int listener = test::loopback_listener(1, port);
        if (listener >= 0 && connect_ipv4(server, htonl(INADDR_LOOPBACK), port, 5000) == 0)
            client = ::accept(listener, nullptr, nullptr);
        close_fd(listener);
        timeval tv{20, 0}; // no read in a test waits for ever
        ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Pair() {
        close_fd(server);
        close_fd(client);
    }
    std::string read_to_end() const {
        std::string out;
        char block[65536];
        for (ssize_t n; (n = ::recv(client, block, sizeof block, 0)) > 0;)
            out.append(block, static_cast<size_t>(n));
        return out;
    }
    void send_all(const std::string& bytes) const {
        for (size_t at = 0; at < bytes.size();) {
            ssize_t n = ::send(client, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (n <= 0)
                return;
            at += static_cast<size_t>(n);
        }
    }
    // Ends the connection with a reset instead of an orderly close.
    void reset_client() {
        linger l{1, 0};
        ::setsockopt(client, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        close_fd(client);
        client = -1;
    }
};

std::string pattern(size_t size) {
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i)
        content[i] = static_cast<char>((i * 131 + i / 4096) & 0xff);
    return content;
}

int open_read(const std::filesystem::path& p) {
    return ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
}

const SendMethod kSendMethods[] = {SendMethod::automatic, SendMethod::read_send,
                                   SendMethod::sendfile_cork, SendMethod::sendfile_plain,
                                   SendMethod::splice_pipe};
const ReceiveMethod kReceiveMethods[] = {ReceiveMethod::automatic, ReceiveMethod::recv_write,
                                         ReceiveMethod::recv_write_behind,
                                         ReceiveMethod::splice_pipe, ReceiveMethod::recv_direct};

} // namespace

class ByteMoverSend : public ::testing::TestWithParam<SendMethod> {};
INSTANTIATE_TEST_SUITE_P(Methods, ByteMoverSend, ::testing::ValuesIn(kSendMethods));

TEST_P(ByteMoverSend, DeliversEveryByteAndTellsAShortFile) {
    test::TempDir dir;
    // Empty, smaller than one block, several blocks with a partial last one.
    for (size_t size : {size_t{0}, size_t{1234}, size_t{3} * 1024 * 1024 + 4097}) {
        std::string content = pattern(size);
        dir.write("file.bin", content);
        Pair pair;
        ASSERT_GE(pair.client, 0);
        auto received = std::async(std::launch::async, [&] { return pair.read_to_end(); });
        int fd = open_read(dir / "file.bin");
        long long last_progress = -1;
        MoveControl control;
        control.progress = [&](long long total) { last_progress = total; };
        MoveResult r =
            send_file_to_socket(fd, pair.server, static_cast<long long>(size), control, GetParam());
        ::close(fd);
        ::shutdown(pair.server, SHUT_WR);
        EXPECT_EQ(r.end, MoveEnd::complete) << size;
        EXPECT_EQ(r.written, static_cast<long long>(size));
        if (size > 0) {
            EXPECT_EQ(last_progress, static_cast<long long>(size));
        }
        EXPECT_TRUE(received.get() == content) << "size " << size;
    }
    // A file that ends before the size it had when the transfer began (truncated meanwhile)
    // was not sent whole.
    dir.write("short.bin", pattern(5000));
    Pair pair;
    auto received = std::async(std::launch::async, [&] { return pair.read_to_end(); });
    int fd = open_read(dir / "short.bin");
    MoveResult r = send_file_to_socket(fd, pair.server, 8000, {}, GetParam());
    ::close(fd);
    ::shutdown(pair.server, SHUT_WR);
    EXPECT_EQ(r.end, MoveEnd::source_failed);
    EXPECT_EQ(received.get().size(), 5000u);
}

TEST_P(ByteMoverSend, EndsWhenTheReaderGoesAwayOrAStopIsRequested) {
    std::signal(SIGPIPE, SIG_IGN); // as the server does
    test::TempDir dir;
    const size_t size = size_t{64} * 1024 * 1024; // far more than the socket buffers hold
    dir.write("big.bin", std::string(size, 'x'));
    {
        Pair pair;
        ASSERT_GE(pair.client, 0);
        pair.reset_client();
        int fd = open_read(dir / "big.bin");
        MoveResult r = send_file_to_socket(fd, pair.server, size, {}, GetParam());
        ::close(fd);
        EXPECT_EQ(r.end, MoveEnd::peer_failed);
        EXPECT_LT(r.written, static_cast<long long>(size));
    }
    Pair pair;
    ASSERT_GE(pair.client, 0);
    std::atomic<bool> stop{false};
    MoveControl control;
    control.stop = [&] { return stop.load(); };
    // Nobody reads, so the move waits on a full socket until the stop request.
    int fd = open_read(dir / "big.bin");
    auto sent = std::async(std::launch::async, [&] {
        return send_file_to_socket(fd, pair.server, size, control, GetParam());
    });
    std::this_thread::sleep_for(200ms);
    stop = true;
    ASSERT_EQ(sent.wait_for(10s), std::future_status::ready);
    MoveResult r = sent.get();
    ::close(fd);
    EXPECT_EQ(r.end, MoveEnd::stopped);
    EXPECT_LT(r.written, static_cast<long long>(size));
}

class ByteMoverReceive : public ::testing::TestWithParam<ReceiveMethod> {};
INSTANTIATE_TEST_SUITE_P(Methods, ByteMoverReceive, ::testing::ValuesIn(kReceiveMethods));

TEST_P(ByteMoverReceive, StoresEveryByteAndTellsHowItEnded) {
    test::TempDir dir;
    for (size_t size : {size_t{0}, size_t{1234}, size_t{20} * 1024 * 1024 + 17}) {
        std::string content = pattern(size);
        Pair pair;
        ASSERT_GE(pair.client, 0);
        auto sender = std::async(std::launch::async, [&] {
            pair.send_all(content);
            ::shutdown(pair.client, SHUT_WR);
        });
        int fd = ::open((dir / "up.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        MoveResult r = receive_socket_to_file(pair.server, fd, {}, GetParam());
        ::close(fd);
        sender.get();
        EXPECT_EQ(r.end, MoveEnd::complete) << size;
        EXPECT_EQ(r.bytes, static_cast<long long>(size));
        EXPECT_EQ(r.written, static_cast<long long>(size));
        EXPECT_TRUE(dir.read("up.bin") == content) << "size " << size;
    }
    {
        // A reset is no orderly end: the upload is incomplete.
        Pair pair;
        pair.send_all(pattern(100000));
        pair.reset_client();
        int fd = ::open((dir / "cut.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        MoveResult r = receive_socket_to_file(pair.server, fd, {}, GetParam());
        ::close(fd);
        EXPECT_EQ(r.end, MoveEnd::peer_failed);
    }
    {
        // A disk that is full ends the move at once.
        Pair pair;
        auto sender = std::async(std::launch::async, [&] {
            pair.send_all(pattern(4 << 20));
            ::shutdown(pair.client, SHUT_WR);
        });
        int fd = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        MoveResult r = receive_socket_to_file(pair.server, fd, {}, GetParam());
        ::close(fd);
        ::shutdown(pair.server, SHUT_RDWR);
        sender.get();
        EXPECT_EQ(r.end, MoveEnd::sink_failed);
        EXPECT_EQ(r.written, 0);
    }
}

TEST(ByteMoverReceiveStop, AnEndedSessionStopsOnlyWhenNothingArrives) {
    test::TempDir dir;
    Pair pair;
    std::atomic<bool> session_over{true};
    MoveControl control;
    control.stop_when_idle = [&] { return session_over.load(); };
    pair.send_all("still coming");
    int fd = ::open((dir / "up.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    auto got = std::async(std::launch::async,
                          [&] { return receive_socket_to_file(pair.server, fd, control); });
    ASSERT_EQ(got.wait_for(10s), std::future_status::ready);
    MoveResult r = got.get();
    ::close(fd);
    EXPECT_EQ(r.end, MoveEnd::stopped);
    EXPECT_EQ(r.bytes, 12); // what had come was taken in first
}

TEST(ByteMoverCopy, CopiesFromTheOffsetToTheEndAndStopsOnRequest) {
    test::TempDir dir;
    std::string content = pattern((9 << 20) + 123); // more than one kernel copy piece
    dir.write("from", content);
    int in = open_read(dir.path() / "from");
    ASSERT_EQ(::lseek(in, 5, SEEK_SET), 5);
    int out = ::open((dir.path() / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    long long last = 0;
    MoveControl control;
    control.progress = [&](long long total) { last = total; };
    MoveResult r = copy_file_to_file(in, out, control);
    ::close(out);
    EXPECT_EQ(r.end, MoveEnd::complete);
    EXPECT_EQ(r.written, static_cast<long long>(content.size() - 5));
    EXPECT_EQ(last, r.written);
    EXPECT_EQ(dir.read("to"), content.substr(5));

    ASSERT_EQ(::lseek(in, 0, SEEK_SET), 0);
    out = ::open((dir.path() / "stopped").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    control.stop = [] { return true; };
    EXPECT_EQ(copy_file_to_file(in, out, control).end, MoveEnd::stopped);
    ::close(out);
    ::close(in);
}
