// Compares the ways the byte mover can carry a download or an upload over loopback, in
// alternating rounds: wall-clock rate, and the CPU time of the moving thread (the server's
// side) and of the peer thread (the client's side) per GiB.
//
//   mover_bench [WORK_DIR] [MIB] [ROUNDS]     defaults: /var/tmp/orvane-bench-mover 1024 5
#include "platform/byte_mover.hpp"
#include "platform/net.hpp"
#include "platform/staged_file.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace orv;
namespace fs = std::filesystem;

namespace {

double thread_cpu() {
    rusage ru{};
    ::getrusage(RUSAGE_THREAD, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

struct Pair {
    int server = tcp_socket();
    int client = -1;
    Pair() {
        int listener = tcp_socket();
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
            ::listen(listener, 1) == 0 &&
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&sa), &len) == 0 &&
            connect_ipv4(server, sa.sin_addr.s_addr, ntohs(sa.sin_port), 5000) == 0)
            client = ::accept(listener, nullptr, nullptr);
        close_fd(listener);
    }
    ~Pair() {
        close_fd(server);
        close_fd(client);
    }
};

struct Sample {
    double mbps, server_cpu, client_cpu; // CPU in s/GiB
};

Sample download(const fs::path& file, long long size, SendMethod method) {
    Pair pair;
    double client_cpu = 0;
    std::thread reader([&] {
        double c0 = thread_cpu();
        std::vector<char> block(1 << 20);
        while (::recv(pair.client, block.data(), block.size(), 0) > 0) {
        }
        client_cpu = thread_cpu() - c0;
    });
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    auto t0 = std::chrono::steady_clock::now();
    double c0 = thread_cpu();
    MoveResult r = send_file_to_socket(fd, pair.server, size, {}, method);
    ::shutdown(pair.server, SHUT_WR);
    double server_cpu = thread_cpu() - c0;
    reader.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    ::close(fd);
    if (r.end != MoveEnd::complete || r.written != size)
        std::fprintf(stderr, "download incomplete\n");
    double gib = static_cast<double>(size) / (1 << 30);
    return {static_cast<double>(size) / 1e6 / secs, server_cpu / gib, client_cpu / gib};
}

Sample upload(const fs::path& dir, long long size, ReceiveMethod method) {
    Pair pair;
    double client_cpu = 0;
    std::thread writer([&] {
        double c0 = thread_cpu();
        std::vector<char> block(1 << 20, 'u');
        for (long long left = size; left > 0;) {
            size_t want = static_cast<size_t>(std::min<long long>(left, block.size()));
            ssize_t n = ::send(pair.client, block.data(), want, MSG_MORE | MSG_NOSIGNAL);
            if (n <= 0)
                break;
            left -= n;
        }
        ::shutdown(pair.client, SHUT_WR);
        client_cpu = thread_cpu() - c0;
    });
    auto t0 = std::chrono::steady_clock::now();
    double c0 = thread_cpu();
    StagedFile staged;
    staged.open(dir.string(), "", "stor.bin");
    MoveResult r = receive_socket_to_file(pair.server, staged.fd(), {}, method);
    bool ok = staged.commit();
    double server_cpu = thread_cpu() - c0;
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    writer.join();
    if (r.end != MoveEnd::complete || r.written != size || !ok)
        std::fprintf(stderr, "upload incomplete\n");
    fs::remove(dir / "stor.bin"); // no dirty pages carried into the next round
    double gib = static_cast<double>(size) / (1 << 30);
    return {static_cast<double>(size) / 1e6 / secs, server_cpu / gib, client_cpu / gib};
}

void print(const char* what, std::vector<Sample> s) {
    auto med = [&](auto get) {
        std::vector<double> v;
        for (const Sample& x : s)
            v.push_back(get(x));
        std::sort(v.begin(), v.end());
        return std::make_tuple(v[v.size() / 2], v.front(), v.back());
    };
    auto [m, lo, hi] = med([](const Sample& x) { return x.mbps; });
    auto [sc, sl, sh] = med([](const Sample& x) { return x.server_cpu; });
    auto [cc, cl, ch] = med([](const Sample& x) { return x.client_cpu; });
    std::printf("%-22s %8.0f MB/s (%.0f-%.0f)  mover %.3f s/GiB (%.3f-%.3f)  peer %.3f s/GiB "
                "(%.3f-%.3f)\n",
                what, m, lo, hi, sc, sl, sh, cc, cl, ch);
}

} // namespace

int main(int argc, char** argv) {
    fs::path work = argc > 1 ? argv[1] : "/var/tmp/orvane-bench-mover";
    long long mib = argc > 2 ? std::atoll(argv[2]) : 1024;
    int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    long long size = mib << 20;
    fs::create_directories(work);
    fs::path file = work / "send.bin";
    if (!fs::exists(file) || static_cast<long long>(fs::file_size(file)) != size) {
        std::FILE* f = std::fopen(file.c_str(), "wb");
        std::vector<char> block(1 << 20, 'd');
        for (long long i = 0; i < mib; ++i)
            std::fwrite(block.data(), 1, block.size(), f);
        std::fclose(f);
    }
    download(file, size, SendMethod::read_send); // warm the page cache

    const std::pair<const char*, SendMethod> sends[] = {
        {"RETR read+send 1 MiB", SendMethod::read_send},
        {"RETR sendfile+cork", SendMethod::sendfile_cork},
        {"RETR sendfile 16 MiB", SendMethod::sendfile_plain},
        {"RETR splice 1 MiB", SendMethod::splice_pipe}};
    const std::pair<const char*, ReceiveMethod> receives[] = {
        {"STOR recv+write", ReceiveMethod::recv_write},
        {"STOR recv+write-behind", ReceiveMethod::recv_write_behind},
        {"STOR splice 1 MiB", ReceiveMethod::splice_pipe},
        {"STOR recv+direct 1 MiB", ReceiveMethod::recv_direct}};
    std::map<std::string, std::vector<Sample>> got;
    for (int round = 0; round < rounds; ++round) {
        // Every other round in reverse order, so that drift favours nobody.
        for (int i = 0; i < 4; ++i) {
            auto& [name, m] = sends[round % 2 ? 3 - i : i];
            got[name].push_back(download(file, size, m));
        }
        for (int i = 0; i < 4; ++i) {
            auto& [name, m] = receives[round % 2 ? 3 - i : i];
            got[name].push_back(upload(work, size, m));
        }
    }
    std::printf("%lld MiB, %d rounds; medians (min-max)\n", mib, rounds);
    for (auto& [name, m] : sends)
        print(name, got[name]);
    for (auto& [name, m] : receives)
        print(name, got[name]);
}
