#include "core/log.hpp"

#include "platform/text.hpp"

#include <cstdarg>
#include <cstdio>

namespace orv {
namespace {
thread_local LogCapture* current_capture = nullptr;
}

LogCapture::LogCapture() : outer_(current_capture) {
    current_capture = this;
}

LogCapture::~LogCapture() {
    current_capture = outer_;
}

void Log::set_sink(Sink sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
}

void Log::set_debug_file(std::filesystem::path path) {
    std::lock_guard lock(mutex_);
    debug_file_ = std::move(path);
}

std::string debug_file_bytes(std::string_view text) {
    std::string out(text);
    if (text.find("\r\n") == std::string_view::npos)
        out += "\r\n";
    return out;
}

void Log::log_message(std::string_view text) {
    if (current_capture)
        current_capture->lines.emplace_back(text);
    std::lock_guard lock(mutex_);
    if (!sink_)
        return;
    sink_(text);
    if (debug_file_.empty())
        return;
    // Opened and closed per line so that nothing is lost when the process is killed.
    FILE* f = std::fopen(debug_file_.c_str(), "a+b");
    if (!f)
        return;
    std::string bytes = debug_file_bytes(text);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

void Log::logf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vstrf(format, args);
    va_end(args);
    log_message(text);
}

} // namespace orv
