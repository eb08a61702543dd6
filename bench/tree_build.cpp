// Times the start-up tree build on a home of 100,000 files in 10,000 directories against a
// plain `find` walk of the same tree, and reports the memory the tree takes.
//
//   tree_build [WORK_DIR] [RUNS]
//
// WORK_DIR (default /tmp/orvane-bench-tree) keeps the generated home between runs.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kTopDirs = 100;
constexpr int kSubDirs = 99;     // per top directory: 100 + 100 * 99 = 10,000 directories
constexpr int kFilesPerDir = 10; // 10,000 * 10 = 100,000 files

void make_home(const fs::path& work, const fs::path& home) {
    fs::path done = work / "complete";
    if (fs::exists(done))
        return;
    std::printf("making %s ...\n", home.c_str());
    fs::remove_all(home);
    auto fill = [](const fs::path& dir) {
        fs::create_directories(dir);
        for (int f = 0; f < kFilesPerDir; ++f) {
            std::ofstream out(dir / ("file" + std::to_string(f) + ".dat"), std::ios::binary);
            out << std::string(static_cast<size_t>(f * 7), 'x');
        }
    };
    for (int t = 0; t < kTopDirs; ++t) {
        fs::path top = home / ("dir" + std::to_string(t));
        fill(top);
        for (int s = 0; s < kSubDirs; ++s)
            fill(top / ("sub" + std::to_string(s)));
    }
    std::ofstream(done) << "ok\n";
}

long rss_bytes() {
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * ::sysconf(_SC_PAGESIZE);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// CPU seconds (user + system) of this process or of its finished children: on a machine
// shared with other work this is steadier than the wall clock.
double cpu_seconds(int who) {
    rusage u{};
    ::getrusage(who, &u);
    auto secs = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return secs(u.ru_utime) + secs(u.ru_stime);
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct BuiltServer {
    explicit BuiltServer(const fs::path& start, const fs::path& home) : server(start) {
        server.accounts = std::make_shared<orv::Accounts>(&server.memory_allocated);
        server.log.set_sink([](std::string_view) {});
        server.settings.serverhome = home.string();
    }
    orv::Server server;
};

} // namespace

int main(int argc, char** argv) {
    fs::path work = argc > 1 ? fs::path(argv[1]) : fs::path("/tmp/orvane-bench-tree");
    int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
    fs::path home = work / "home";
    fs::path start = work / "start"; // no mounts, no fpl.txt
    fs::create_directories(start);
    fs::remove(start / "fpl.txt");
    make_home(work, home);

    std::string find_cmd = "find '" + home.string() + "' > /dev/null";
    if (std::system(find_cmd.c_str()) != 0) // warms the cache
        return 1;
    std::vector<double> find_times, find_cpu;
    for (int i = 0; i < runs; ++i) {
        double c0 = cpu_seconds(RUSAGE_CHILDREN);
        auto t0 = Clock::now();
        if (std::system(find_cmd.c_str()) != 0)
            return 1;
        find_times.push_back(seconds_since(t0));
        find_cpu.push_back(cpu_seconds(RUSAGE_CHILDREN) - c0);
    }

    std::vector<double> build_times, build_cpu;
    long rss_growth = 0, counter = 0, directories = 0, files = 0;
    for (int i = 0; i < runs; ++i) {
        BuiltServer b(start, home);
        long rss_before = rss_bytes();
        double c0 = cpu_seconds(RUSAGE_SELF);
        auto t0 = Clock::now();
        orv::build_file_system(b.server);
        build_times.push_back(seconds_since(t0));
        build_cpu.push_back(cpu_seconds(RUSAGE_SELF) - c0);
        if (i == 0) {
            rss_growth = rss_bytes() - rss_before;
            counter = b.server.memory_allocated.load();
            directories = b.server.vfs->directories;
            files = b.server.vfs->files;
        }
    }

    // The same build with a permission list naming every node (a restart after a shutdown).
    std::vector<double> fpl_times;
    {
        BuiltServer b(start, home);
        orv::build_file_system(b.server);
        orv::write_fpl(b.server);
    }
    for (int i = 0; i < runs; ++i) {
        BuiltServer b(start, home);
        auto t0 = Clock::now();
        orv::build_file_system(b.server);
        fpl_times.push_back(seconds_since(t0));
    }
    fs::remove(start / "fpl.txt");

    double find_s = median(find_times);
    double build_s = median(build_times);
    std::printf("tree: %ld directories, %ld files; medians of %d runs\n", directories, files, runs);
    std::printf("                          wall        cpu\n");
    std::printf("find walk              %8.1f ms %8.1f ms\n", find_s * 1e3, median(find_cpu) * 1e3);
    std::printf("build_file_system      %8.1f ms %8.1f ms\n", build_s * 1e3,
                median(build_cpu) * 1e3);
    std::printf("build with fpl.txt     %8.1f ms\n", median(fpl_times) * 1e3);
    std::printf("build / find           %8.2f    %8.2f\n", build_s / find_s,
                median(build_cpu) / median(find_cpu));
    std::printf("memory counter         %8.1f MiB (%ld bytes)\n", counter / 1048576.0, counter);
    std::printf("RSS growth             %8.1f MiB (%.0f bytes per node)\n", rss_growth / 1048576.0,
                static_cast<double>(rss_growth) / static_cast<double>(directories + files + 1));
    return 0;
}
