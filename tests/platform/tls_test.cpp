// The TLS layer over real loopback sockets: which key files are accepted, the handshake's
// limits, and the session-resumption check that guards protected data connections.
#include "platform/tls.hpp"
#include "support/process.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace orv {
namespace {

using test::TempDir;

// A self-signed certificate and its key, made by the openssl tool.
void make_certificate(const TempDir& dir, const char* cert, const char* key) {
    std::string out;
    int rc = test::run_command({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj",
                                "/CN=localhost", "-keyout", (dir / key).string(), "-out",
                                (dir / cert).string()},
                               out);
    ASSERT_EQ(rc, 0) << out;
    ::chmod((dir / key).c_str(), 0600);
}

// A connected pair of loopback sockets: {server side, client side}.
std::pair<int, int> socket_pair() {
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(listener, reinterpret_cast<sockaddr*>(&addr), len);
    ::listen(listener, 1);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
    int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    int server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    return {server, client};
}

// A blocking OpenSSL client on one socket; `resume` offers an earlier session.
struct Client {
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    SSL* ssl = nullptr;
    explicit Client(int max_version = 0) {
        if (max_version)
            SSL_CTX_set_max_proto_version(ctx, max_version);
    }
    ~Client() {
        SSL_free(ssl);
        SSL_CTX_free(ctx);
    }
    bool connect(int fd, SSL_SESSION* resume = nullptr) {
        SSL_free(ssl);
        ssl = SSL_new(ctx);
        SSL_set_fd(ssl, fd);
        if (resume)
            SSL_set_session(ssl, resume);
        return SSL_connect(ssl) == 1;
    }
    // Reads what the server sent after the handshake (TLS 1.3 tickets come then).
    std::string read_line() {
        char buf[256];
        int n = SSL_read(ssl, buf, sizeof buf);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }
};

class TlsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        make_certificate(dir_, "cert.pem", "key.pem");
        std::string error;
        context_ =
            TlsContext::create((dir_ / "cert.pem").string(), (dir_ / "key.pem").string(), error);
        ASSERT_TRUE(context_) << error;
    }

    // A server stream and a client that completed the handshake and read one line.
    struct Connected {
        std::unique_ptr<TlsStream> server;
        int client_fd = -1;
        ~Connected() {
            if (client_fd >= 0)
                ::close(client_fd);
        }
    };
    bool connect(Client& client, Connected& out, SSL_SESSION* resume = nullptr) {
        auto [s, c] = socket_pair();
        out.client_fd = c;
        out.server = std::make_unique<TlsStream>(context_, s);
        ::close(s); // the stream keeps its own handle
        bool server_ok = false;
        std::thread t([&] {
            std::string error;
            server_ok = out.server->handshake(5000, error);
            if (server_ok)
                out.server->send_all("ok\r\n", 4, nullptr, 1000);
        });
        bool client_ok = client.connect(c, resume) && client.read_line() == "ok\r\n";
        t.join();
        return server_ok && client_ok;
    }

    TempDir dir_;
    std::shared_ptr<TlsContext> context_;
};

TEST_F(TlsTest, KeyFilesThatAreRefused) {
    make_certificate(dir_, "other.pem", "other-key.pem");
    dir_.write("garbage.pem", "not a certificate\n");
    ::chmod((dir_ / "garbage.pem").c_str(), 0600);
    dir_.write("open-key.pem", dir_.read("key.pem"));
    ::chmod((dir_ / "open-key.pem").c_str(), 0644);
    struct Case {
        const char* cert;
        const char* key;
        const char* says;
    } cases[] = {
        {"cert.pem", "open-key.pem", "can be read by others"},
        {"cert.pem", "missing.pem", "cannot read the private key"},
        {"garbage.pem", "key.pem", "cannot use the certificate"},
        {"cert.pem", "garbage.pem", "cannot use the private key"},
        {"cert.pem", "other-key.pem", "cannot use the private key"},
    };
    for (const Case& c : cases) {
        std::string error;
        auto ctx = TlsContext::create((dir_ / c.cert).string(), (dir_ / c.key).string(), error);
        EXPECT_FALSE(ctx) << c.cert << " " << c.key;
        EXPECT_NE(error.find(c.says), std::string::npos) << error;
    }
}

TEST_F(TlsTest, OldProtocolsAreRefused) {
    Client old(TLS1_1_VERSION);
    SSL_CTX_set_min_proto_version(old.ctx, TLS1_VERSION);
    SSL_CTX_set_security_level(old.ctx, 0);
    Connected conn;
    EXPECT_FALSE(connect(old, conn));
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        Client modern(version);
        Connected ok;
        ASSERT_TRUE(connect(modern, ok)) << version;
        EXPECT_NE(ok.server->description().find("TLSv1."), std::string::npos);
    }
}

TEST_F(TlsTest, HandshakeEndsOnGarbageOnStallAndOnStop) {
    auto [s1, c1] = socket_pair();
    TlsStream garbage(context_, s1);
    const char junk[] = "USER anonymous\r\nPASS x\r\n";
    ::send(c1, junk, sizeof junk - 1, 0);
    std::string error;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(garbage.handshake(5000, error));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    auto [s2, c2] = socket_pair();
    TlsStream stalled(context_, s2);
    start = std::chrono::steady_clock::now();
    EXPECT_FALSE(stalled.handshake(300, error));
    EXPECT_EQ(error, "time-out");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    auto [s3, c3] = socket_pair();
    TlsStream stopped(context_, s3);
    std::atomic<int> stop{1};
    EXPECT_FALSE(stopped.handshake(5000, error, &stop));
    EXPECT_EQ(error, "stopped");
    for (int fd : {s1, c1, s2, c2, s3, c3})
        ::close(fd);
}

// The data connection's check: only a connection that resumed this very control
// connection's session passes; a fresh session or another client's session does not.
TEST_F(TlsTest, OnlyTheControlConnectionsOwnSessionIsAccepted) {
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SCOPED_TRACE(version);
        Client owner(version);
        Connected control;
        ASSERT_TRUE(connect(owner, control));
        SSL_SESSION* owners = SSL_get1_session(owner.ssl);

        Client stranger(version);
        Connected other_control;
        ASSERT_TRUE(connect(stranger, other_control));
        SSL_SESSION* strangers = SSL_get1_session(stranger.ssl);

        Client data_client(version);
        Connected resumed;
        ASSERT_TRUE(connect(data_client, resumed, owners));
        EXPECT_TRUE(SSL_session_reused(data_client.ssl));
        EXPECT_TRUE(resumed.server->resumed_from(*control.server));
        EXPECT_FALSE(resumed.server->resumed_from(*other_control.server));

        Connected fresh;
        ASSERT_TRUE(connect(data_client, fresh));
        EXPECT_FALSE(fresh.server->resumed_from(*control.server));

        Connected borrowed;
        ASSERT_TRUE(connect(data_client, borrowed, strangers));
        EXPECT_FALSE(borrowed.server->resumed_from(*control.server));

        SSL_SESSION_free(owners);
        SSL_SESSION_free(strangers);
    }
}

// Bytes both ways, a file out and a file in, and the close that tells an end from a cut.
TEST_F(TlsTest, FilesMoveWholeBothWays) {
    std::string content;
    for (int i = 0; i < 300000; ++i)
        content += static_cast<char>('a' + i % 26);
    dir_.write("out.bin", content);
    Client client;
    Connected conn;
    ASSERT_TRUE(connect(client, conn));

    int file = ::open((dir_ / "out.bin").c_str(), O_RDONLY);
    MoveResult sent;
    std::thread t([&] {
        sent = conn.server->send_file(file, static_cast<long long>(content.size()), MoveControl{});
        conn.server->close_notify(1000);
    });
    std::string got;
    char buf[65536];
    int n;
    while ((n = SSL_read(client.ssl, buf, sizeof buf)) > 0)
        got.append(buf, static_cast<size_t>(n));
    t.join();
    ::close(file);
    EXPECT_EQ(sent.end, MoveEnd::complete);
    EXPECT_EQ(got, content);

    Client uploader;
    Connected up;
    ASSERT_TRUE(connect(uploader, up));
    int sink = ::open((dir_ / "in.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    MoveResult received;
    std::thread r([&] { received = up.server->receive_to_file(sink, MoveControl{}); });
    ASSERT_EQ(SSL_write(uploader.ssl, content.data(), static_cast<int>(content.size())),
              static_cast<int>(content.size()));
    SSL_shutdown(uploader.ssl);
    r.join();
    ::close(sink);
    EXPECT_EQ(received.end, MoveEnd::complete);
    EXPECT_EQ(dir_.read("in.bin"), content);
}

} // namespace
} // namespace orv
