#include "sshd/authorized_keys.hpp"

#include <fstream>
#include <sstream>

namespace orv::ssh {
namespace {

// A key file larger than this is not read: nobody keeps thousands of keys per account.
constexpr std::uintmax_t kKeyFileLimit = 1 << 20;

std::string_view next_word(std::string_view& rest) {
    size_t start = rest.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        rest = {};
        return {};
    }
    rest.remove_prefix(start);
    size_t end = rest.find_first_of(" \t");
    std::string_view word = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
    return word;
}

} // namespace

std::vector<KeyLine> parse_authorized_keys(std::string_view text) {
    std::vector<KeyLine> keys;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        std::string_view rest = line;
        std::string_view type = next_word(rest);
        if (type.empty() || type.front() == '#')
            continue;
        if (ssh_key_type_from_name(std::string(type).c_str()) == SSH_KEYTYPE_UNKNOWN)
            continue; // options first, or a type we do not know
        std::string_view blob = next_word(rest);
        if (blob.empty())
            continue;
        keys.push_back({std::string(type), std::string(blob)});
    }
    return keys;
}

std::filesystem::path authorized_keys_file(const std::filesystem::path& start_dir,
                                           std::string_view account) {
    if (account.empty() || account == "." || account == ".." || account.size() > 255 ||
        account.find_first_of(std::string_view("/\\\0", 3)) != std::string_view::npos)
        return {};
    return start_dir / "authorized_keys" / std::string(account);
}

bool key_is_authorized(const std::filesystem::path& start_dir, std::string_view account,
                       ssh_key key) {
    std::filesystem::path file = authorized_keys_file(start_dir, account);
    if (file.empty() || !key)
        return false;
    std::error_code ec;
    if (!std::filesystem::is_regular_file(file, ec) ||
        std::filesystem::file_size(file, ec) > kKeyFileLimit || ec)
        return false;
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    for (const KeyLine& line : parse_authorized_keys(text.str())) {
        ssh_key listed = nullptr;
        if (ssh_pki_import_pubkey_base64(
                line.base64.c_str(), ssh_key_type_from_name(line.type.c_str()), &listed) != SSH_OK)
            continue;
        bool same = ssh_key_cmp(listed, key, SSH_KEY_CMP_PUBLIC) == 0;
        ssh_key_free(listed);
        if (same)
            return true;
    }
    return false;
}

} // namespace orv::ssh
