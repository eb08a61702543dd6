#include "app/admin_client.hpp"

#include "app/admin_cli.hpp"
#include "app/admin_socket.hpp"
#include "app/instance_lock.hpp"
#include "app/server_app.hpp"
#include "app/table_saver.hpp"
#include "core/server.hpp"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <optional>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace orv {
namespace {

std::optional<std::string> read_line(std::istream& in) {
    std::string line;
    if (!std::getline(in, line) && line.empty())
        return std::nullopt;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

// From the terminal without echo (asked twice), or the first line of standard input.
std::optional<std::string> read_password(std::string& error) {
    if (!::isatty(STDIN_FILENO)) {
        std::optional<std::string> line = read_line(std::cin);
        if (!line)
            error = "no password on standard input";
        return line;
    }
    termios saved{};
    bool quiet = ::tcgetattr(STDIN_FILENO, &saved) == 0;
    if (quiet) {
        termios silent = saved;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    std::fputs("Password: ", stderr);
    std::optional<std::string> first = read_line(std::cin);
    std::fputs("\nRetype password: ", stderr);
    std::optional<std::string> second = first ? read_line(std::cin) : std::nullopt;
    std::fputc('\n', stderr);
    if (quiet)
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    if (!first || !second) {
        error = "no password given";
        return std::nullopt;
    }
    if (*first != *second) {
        error = "the passwords do not match";
        return std::nullopt;
    }
    return first;
}

// No server: the tables are loaded (quietly: the load's own lines are the server's), the
// command runs on them, and the tables it changed are written back. Its log lines reach the
// debug file as the server's would.
AdminOutcome run_on_stopped_server(const std::filesystem::path& start_dir,
                                   const AdminRequest& request) {
    Server server(start_dir);
    load_server_tables(server);
    TableSaver saver(server);
    saver.remember_current();
    server.log.set_debug_file(server.table_path("debug.txt"));
    server.log.set_sink([](std::string_view) {});
    AdminOutcome outcome = run_admin_command(server, nullptr, request);
    if (!saver.save_changed() && outcome.status == 0)
        outcome = {1, outcome.out, "orvane-server admin: the tables could not be written\n"};
    return outcome;
}

// A server that is still loading its tables has no socket yet (or one a killed server left
// behind): it is given a little while.
std::optional<AdminOutcome> ask_running_server(const std::filesystem::path& start_dir,
                                               const AdminRequest& request) {
    // Only a connection that was never made is tried again: a request that reached the
    // server must not run twice.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        bool connected = false;
        std::optional<AdminOutcome> answer = send_admin_request(start_dir, request, &connected);
        if (answer || connected || std::chrono::steady_clock::now() >= deadline)
            return answer;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

} // namespace

int run_admin_client(const std::filesystem::path& start_dir, const std::vector<std::string>& args) {
    if (args.empty() || args[0] == "help" || args[0] == "--help") {
        std::fputs(admin_usage().c_str(), args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    AdminRequest request;
    request.args = args;
    // A relative directory to mount is meant from where the command is typed; the server
    // would take it from its start directory.
    size_t real_dir = args.size() > 2 && args[0] == "mount" ? (args[1] == "add"    ? 2
                                                               : args[1] == "edit" ? 3
                                                                                   : 0)
                                                            : 0;
    if (real_dir && real_dir < args.size() && !args[real_dir].empty()) {
        std::error_code ec;
        std::filesystem::path absolute = std::filesystem::absolute(args[real_dir], ec);
        if (!ec)
            request.args[real_dir] = absolute.lexically_normal().string();
    }
    if (admin_needs_password(args)) {
        std::string error;
        request.password = read_password(error);
        if (!request.password) {
            std::fprintf(stderr, "orvane-server admin: %s\n", error.c_str());
            return 2;
        }
    }
    AdminOutcome outcome;
    InstanceLock lock(start_dir);
    if (lock.held()) {
        outcome = run_on_stopped_server(start_dir, request);
    } else if (std::optional<AdminOutcome> answer = ask_running_server(start_dir, request)) {
        outcome = *answer;
    } else {
        std::fprintf(stderr,
                     "orvane-server admin: a server is running in %s but does not answer on "
                     "%s\n",
                     start_dir.c_str(), kAdminSocketName);
        return 1;
    }
    std::fputs(outcome.out.c_str(), stdout);
    std::fputs(outcome.err.c_str(), stderr);
    return outcome.status;
}

} // namespace orv
