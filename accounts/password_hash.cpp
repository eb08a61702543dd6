// Salted password hashes through libxcrypt (yescrypt at the library's default cost).
#include "accounts/password.hpp"

#include "accounts/user.hpp"
#include "core/auth_settings.hpp"

#include <crypt.h>
#include <memory>

namespace orv {
namespace {

constexpr const char* kPrefix = "$y$";

// "$y$<params>$": the method and cost part of a setting or hash.
std::string_view method_and_cost(std::string_view setting) {
    size_t third = setting.find('$', 3);
    return third == std::string_view::npos ? std::string_view{} : setting.substr(0, third + 1);
}

std::optional<std::string> new_setting() {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    // No random bytes given: the library takes them from the system's generator.
    if (!crypt_gensalt_rn(kPrefix, 0, nullptr, 0, setting, sizeof setting))
        return std::nullopt;
    return std::string(setting);
}

// Only hashes made as this server makes them are checked, so that a crafted `users` line cannot
// name a cost that would tie up a worker for minutes.
bool known_cost(std::string_view stored) {
    static const std::string ours = [] {
        std::optional<std::string> s = new_setting();
        return s ? std::string(method_and_cost(*s)) : std::string();
    }();
    return !ours.empty() && method_and_cost(stored) == ours;
}

std::optional<std::string> run_crypt(std::string_view password, const std::string& setting) {
    auto data = std::make_unique<crypt_data>();
    std::string phrase(password);
    const char* out = crypt_r(phrase.c_str(), setting.c_str(), data.get());
    if (!out || out[0] == '*')
        return std::nullopt;
    return std::string(out);
}

bool same_text(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

} // namespace

bool is_hashed_password(std::string_view stored) {
    return stored.size() > kMaxPassword && stored.front() == '$';
}

std::optional<std::string> hash_password(std::string_view password) {
    if (password_rule({}, password) <= 0)
        return std::nullopt;
    std::optional<std::string> setting = new_setting();
    if (!setting)
        return std::nullopt;
    std::optional<std::string> hash = run_crypt(password, *setting);
    if (!hash || hash->size() > kMaxHashedPassword || !is_hashed_password(*hash))
        return std::nullopt;
    return hash;
}

bool verify_hashed_password(std::string_view stored, std::string_view typed) {
    if (!is_hashed_password(stored) || !known_cost(stored) || password_rule({}, typed) <= 0)
        return false;
    std::optional<std::string> hash = run_crypt(typed, std::string(stored));
    return hash && same_text(*hash, stored);
}

std::optional<std::string> store_password(std::string_view name, std::string_view password,
                                          bool hashed) {
    if (password_rule(name, password) <= 0)
        return std::nullopt;
    return hashed ? hash_password(password) : encode_password(name, password);
}

std::optional<std::string> store_password_for(const std::filesystem::path& start_dir,
                                              std::string_view name, std::string_view password) {
    AuthSettings settings = read_auth_settings(start_dir / "settings.ini", nullptr);
    return store_password(name, password, settings.password_hash);
}

} // namespace orv
