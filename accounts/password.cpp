#include "accounts/password.hpp"

#include "accounts/user.hpp"

#include <cstdint>

namespace orv {
namespace {

// The stored form uses the same 94 characters a password may hold: printable ASCII with the
// blank but without ":" (the field separator of the `users` file). Each position is shifted
// within that alphabet by an amount taken from the binary digits of the name's character at
// that place, so equal passwords of different users look unrelated and the mapping stays
// reversible.
constexpr int kAlphabetSize = 94;

int to_index(unsigned char c) {
    if (c < 32 || c > 126 || c == ':')
        return -1;
    return c < ':' ? c - 32 : c - 33;
}

char from_index(int i) {
    return static_cast<char>(i < ':' - 32 ? i + 32 : i + 33);
}

int shift_at(std::string_view name, size_t pos) {
    unsigned char key = name.empty() ? 0x5A : static_cast<unsigned char>(name[pos % name.size()]);
    // Read the key's eight binary digits, most significant first, as a rotated bit string.
    unsigned rotated = ((key << (pos % 8)) | (key >> (8 - pos % 8))) & 0xFF;
    int ones = 0;
    for (int bit = 7; bit >= 0; --bit)
        ones += (key >> bit) & 1;
    return static_cast<int>((rotated + ones * 11 + pos * 29 + name.size() * 7) % kAlphabetSize);
}

} // namespace

int password_rule(std::string_view, std::string_view password) {
    if (password.empty() || password.size() > kMaxPassword)
        return 0;
    for (char c : password)
        if (to_index(static_cast<unsigned char>(c)) < 0)
            return 0;
    return 1;
}

std::optional<std::string> encode_password(std::string_view name, std::string_view password) {
    if (password_rule(name, password) <= 0)
        return std::nullopt;
    std::string out(password.size(), ' ');
    for (size_t i = 0; i < password.size(); ++i) {
        int v = to_index(static_cast<unsigned char>(password[i]));
        out[i] = from_index((v + shift_at(name, i)) % kAlphabetSize);
    }
    return out;
}

std::string decode_password(std::string_view name, std::string_view stored) {
    if (is_hashed_password(stored))
        return {};
    std::string out;
    out.reserve(stored.size());
    for (size_t i = 0; i < stored.size(); ++i) {
        int v = to_index(static_cast<unsigned char>(stored[i]));
        if (v < 0)
            return {};
        out.push_back(from_index((v - shift_at(name, i) + kAlphabetSize) % kAlphabetSize));
    }
    return out;
}

bool check_password(const User& user, std::string_view typed) {
    if (is_hashed_password(user.password))
        return verify_hashed_password(user.password, typed);
    std::optional<std::string> encoded = encode_password(user.name, typed);
    return encoded && *encoded == user.password;
}

} // namespace orv
