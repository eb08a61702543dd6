#pragma once
// The one log operation: a line to the log view (standard output when headless, the window's
// list when on the desktop) and a line appended to the debug file. Safe from any thread.
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

class Log {
  public:
    using Sink = std::function<void(std::string_view)>;

    // The view that takes every line; without one, log_message does nothing at all
    // (not even the file), as when the log panel could not be created.
    void set_sink(Sink sink);
    void set_debug_file(std::filesystem::path path);

    void log_message(std::string_view text);
    void logf(const char* format, ...) __attribute__((format(printf, 2, 3)));

  private:
    std::mutex mutex_;
    Sink sink_;
    std::filesystem::path debug_file_;
};

// While one is alive, every line logged on the thread that made it is also kept in `lines`
// (whether or not the log has a view), so that the admin command line can report what its
// operation logged.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<std::string> lines;

  private:
    friend class Log;
    LogCapture* outer_;
};

// The debug file's bytes for one logged text: "\r\n" is added only when the text has none.
std::string debug_file_bytes(std::string_view text);

} // namespace orv
