#pragma once
// printf-style formatting and the C-like number conversions the file formats rely on.
#include <cstdarg>
#include <string>
#include <string_view>

namespace orv {

// The one formatting helper: every reply and log text is a printf format.
std::string strf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string vstrf(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

// Plain decimal conversion as atoi does it: leading blanks, a sign, digits; anything else
// stops the conversion and text that is not a number gives 0. Saturates instead of overflowing.
long to_long(std::string_view text);
int to_int(std::string_view text);

// Removes leading and trailing blanks (only ' ', as the command parsers do).
std::string_view trim_blanks(std::string_view text);

bool contains(std::string_view text, std::string_view part);
bool contains_any(std::string_view text, std::string_view chars);

// Upper-cases ASCII letters only.
std::string to_upper_ascii(std::string_view text);

// A client's text made safe for one log line: bytes below 32 and 127 become "\xNN" (two
// upper-case hex digits), so that no client can end a line of the log or forge another.
std::string log_safe(std::string_view text);

} // namespace orv
