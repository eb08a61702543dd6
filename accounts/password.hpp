#pragma once
// The stored form of a password. The classic form is deterministic for a name and password,
// printable, free of ":" and line ends, at most 31 characters for an accepted password, and
// reversible for the User settings dialog. With password_hash on, passwords are stored as a
// slow salted hash instead (yescrypt), which is never shown and only checked.
#include <filesystem>
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
// The clear password back from a stored form (for display); empty for a hashed one.
std::string decode_password(std::string_view name, std::string_view stored);
// True when `typed` is the user's password: the typed text must pass the rule and encode to
// exactly the stored form, or match the stored hash. Checking a hash takes tens of
// milliseconds: never call it for a hashed password on the event thread.
bool check_password(const User& user, std::string_view typed);

// True for a stored hash (longer than any classic form and in the "$id$..." form). Admin
// dialogs show such a password as an empty field, and an empty field then means "unchanged".
bool is_hashed_password(std::string_view stored);
// A new salted hash of the password, or nothing when the rule refuses it or hashing fails.
std::optional<std::string> hash_password(std::string_view password);
// True when `typed` passes the rule and matches the stored hash.
bool verify_hashed_password(std::string_view stored, std::string_view typed);

// The form to store for a new or changed password: the hash when `hashed`, else the classic
// form; nothing when the rule refuses the password.
std::optional<std::string> store_password(std::string_view name, std::string_view password,
                                          bool hashed);
// The form the server started in `start_dir` would store (its settings.ini decides).
std::optional<std::string> store_password_for(const std::filesystem::path& start_dir,
                                              std::string_view name, std::string_view password);

} // namespace orv
