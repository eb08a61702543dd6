#include "platform/text.hpp"

#include <climits>
#include <cstdarg>
#include <cstdio>

namespace orv {

std::string vstrf(const char* format, va_list args) {
    char small[512];
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
    std::string out;
    if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
        out.assign(small, static_cast<size_t>(n));
    } else if (n >= 0) {
        out.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(out.data(), out.size(), format, again);
        out.resize(static_cast<size_t>(n));
    }
    va_end(again);
    return out;
}

std::string strf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string out = vstrf(format, args);
    va_end(args);
    return out;
}

long to_long(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                               text[i] == '\r' || text[i] == '\v' || text[i] == '\f'))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    long value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        int digit = text[i] - '0';
        if (value > (LONG_MAX - digit) / 10)
            return negative ? LONG_MIN : LONG_MAX;
        value = value * 10 + digit;
    }
    return negative ? -value : value;
}

int to_int(std::string_view text) {
    long v = to_long(text);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

std::string_view trim_blanks(std::string_view text) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool contains_any(std::string_view text, std::string_view chars) {
    return text.find_first_of(chars) != std::string_view::npos;
}

std::string to_upper_ascii(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return out;
}

std::string log_safe(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 32 || byte == 127)
            out += strf("\\x%02X", byte);
        else
            out += c;
    }
    return out;
}

} // namespace orv
