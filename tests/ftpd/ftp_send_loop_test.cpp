// The RETR send loop over a real loopback connection: every byte arrives in order whatever
// the file's size, and a reader that goes away or a stop request ends it without a hang.
#include "ftpd/transfers.hpp"
#include "platform/net.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

using namespace orv;
using namespace std::chrono_literals;

namespace {

// A connected loopback pair: `sender` is what send_file writes to.
struct Pair {
    int sender = tcp_socket();
    int reader = -1;
    Pair() {
        int listener = tcp_socket();
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
            ::listen(listener, 1) == 0 &&
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&sa), &len) == 0 &&
            connect_ipv4(sender, sa.sin_addr.s_addr, ntohs(sa.sin_port), 5000) == 0)
            reader = ::accept(listener, nullptr, nullptr);
        close_fd(listener);
        timeval tv{20, 0}; // no read in a test waits for ever
        ::setsockopt(reader, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Pair() {
        close_fd(sender);
        close_fd(reader);
    }
    std::string read_to_end() const {
        std::string out;
        char block[65536];
        for (ssize_t n; (n = ::recv(reader, block, sizeof block, 0)) > 0;)
            out.append(block, static_cast<size_t>(n));
        return out;
    }
};

} // namespace

TEST(FtpSendLoop, DeliversEveryByteInOrder) {
    test::TempDir dir;
    // Empty, smaller than one step, and several steps with a partial last one.
    for (size_t size : {size_t{0}, size_t{1234}, size_t{3} * 1024 * 1024 + 4097}) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i)
            content[i] = static_cast<char>((i * 131 + i / 4096) & 0xff);
        dir.write("file.bin", content);
        Pair pair;
        ASSERT_GE(pair.reader, 0);
        auto received = std::async(std::launch::async, [&] { return pair.read_to_end(); });
        EXPECT_EQ(send_file((dir / "file.bin").string(), pair.sender, {}),
                  static_cast<long long>(size));
        ::shutdown(pair.sender, SHUT_WR);
        EXPECT_TRUE(received.get() == content) << "size " << size;
    }
    // A FIFO with no writer must neither block the thread nor send anything.
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    Pair pair;
    for (const char* name : {"fifo", "missing", ""})
        EXPECT_EQ(send_file((dir / name).string(), pair.sender, {}), 0) << name;
}

TEST(FtpSendLoop, EndsWhenTheReaderGoesAwayOrAStopIsRequested) {
    std::signal(SIGPIPE, SIG_IGN); // as the server does: a vanished client is an error return
    test::TempDir dir;
    const size_t size = size_t{64} * 1024 * 1024; // far more than the socket buffers hold
    dir.write("big.bin", std::string(size, 'x'));
    {
        Pair pair;
        ASSERT_GE(pair.reader, 0);
        close_fd(pair.reader);
        pair.reader = -1;
        EXPECT_LT(send_file((dir / "big.bin").string(), pair.sender, {}),
                  static_cast<long long>(size));
    }
    Pair pair;
    ASSERT_GE(pair.reader, 0);
    std::atomic<int> stop{0};
    // Nobody reads, so the loop waits on a full socket until the stop request.
    auto sent = std::async(std::launch::async, [&] {
        return send_file((dir / "big.bin").string(), pair.sender, {&stop, nullptr});
    });
    std::this_thread::sleep_for(200ms);
    stop = 1;
    ASSERT_EQ(sent.wait_for(10s), std::future_status::ready);
    EXPECT_LT(sent.get(), static_cast<long long>(size));
}
