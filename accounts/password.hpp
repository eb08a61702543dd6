#pragma once
// The stored form of a password: deterministic for a name and password, printable, free of
// ":" and line ends, at most 31 characters for an accepted password, and reversible for the
// User settings dialog.
#include <optional>
#include <string>
#include <string_view>

namespace orv {

struct User;

// Greater than 0 when the password can be encoded for this name; 0 or less when the rule
// refuses it (empty, longer than the stored form allows, or characters outside printable
// ASCII).
int password_rule(std::string_view name, std::string_view password);
// The stored form, or nothing when the rule refuses the password.
std::optional<std::string> encode_password(std::string_view name, std::string_view password);
// The clear password back from a stored form (for display).
std::string decode_password(std::string_view name, std::string_view stored);
// True when `typed` is the user's password: the typed text must pass the rule and encode to
// exactly the stored form.
bool check_password(const User& user, std::string_view typed);

} // namespace orv
