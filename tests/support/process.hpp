#pragma once
// Runs the built server binary as a child process with its output on a pipe.
#include <chrono>
#include <string>
#include <vector>

namespace orv::test {

class ServerProcess {
  public:
    // Starts `binary` with `args`; standard output (and error, when merge_stderr) is captured.
    ServerProcess(const std::string& binary, const std::vector<std::string>& args,
                  bool merge_stderr = false);
    ~ServerProcess(); // kills the process if it still runs
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // Reads output lines until one equals `line`; false on time-out or exit.
    bool wait_for_line(const std::string& line,
                       std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Every line read so far (without the "\n").
    const std::vector<std::string>& lines() const { return lines_; }
    void signal(int sig);
    // Waits for the exit and reads the rest of the output; the exit status, or -1.
    int wait_exit(std::chrono::milliseconds limit = std::chrono::seconds(10));

  private:
    bool read_more(int timeout_ms);
    int pid_ = -1;
    int out_fd_ = -1;
    std::string partial_;
    std::vector<std::string> lines_;
    bool exited_ = false;
};

// Runs a command to completion; returns its exit status and fills `output` (stdout+stderr).
int run_command(const std::vector<std::string>& argv, std::string& output);

} // namespace orv::test
