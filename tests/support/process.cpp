#include "support/process.hpp"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orv::test {

ServerProcess::ServerProcess(const std::string& binary, const std::vector<std::string>& args,
                             bool merge_stderr) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return;
    std::vector<std::string> all{binary};
    all.insert(all.end(), args.begin(), args.end());
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(fds[1], 1);
        if (merge_stderr)
            ::dup2(fds[1], 2);
        ::unsetenv("DISPLAY");
        ::unsetenv("WAYLAND_DISPLAY");
        std::vector<char*> argv;
        for (std::string& s : all)
            argv.push_back(s.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    out_fd_ = fds[0];
}

ServerProcess::~ServerProcess() {
    if (pid_ > 0 && !exited_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (out_fd_ >= 0)
        ::close(out_fd_);
}

bool ServerProcess::read_more(int timeout_ms) {
    pollfd p{out_fd_, POLLIN, 0};
    char buf[4096];
    ssize_t n = ::poll(&p, 1, timeout_ms) > 0 ? ::read(out_fd_, buf, sizeof buf) : 0;
    if (n <= 0)
        return false;
    partial_.append(buf, static_cast<size_t>(n));
    for (size_t nl; (nl = partial_.find('\n')) != std::string::npos; partial_.erase(0, nl + 1))
        lines_.push_back(partial_.substr(0, nl));
    return true;
}

bool ServerProcess::wait_for_line(const std::string& line, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (size_t checked = 0;;) {
        for (; checked < lines_.size(); ++checked)
            if (lines_[checked] == line)
                return true;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !read_more(static_cast<int>(left.count())))
            return false;
    }
}

void ServerProcess::signal(int sig) {
    if (pid_ > 0 && !exited_)
        ::kill(pid_, sig);
}

int ServerProcess::wait_exit(std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            exited_ = true;
            while (read_more(50)) {
            }
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        read_more(20);
    }
    return -1;
}

int run_command(const std::vector<std::string>& argv, std::string& output) {
    ServerProcess p(argv.front(), {argv.begin() + 1, argv.end()}, true);
    int status = p.wait_exit(std::chrono::seconds(30));
    output.clear();
    for (const std::string& l : p.lines())
        output += l + "\n";
    return status;
}

} // namespace orv::test
