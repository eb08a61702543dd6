#include "sshd/ssh_host_key.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace orv::ssh {

bool write_private_file(const std::filesystem::path& path, std::string_view text) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return false;
    // The mode is set explicitly as well: a umask must not matter, nor widen it.
    bool ok = ::fchmod(fd, 0600) == 0;
    const char* p = text.data();
    size_t left = text.size();
    while (ok && left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (::fsync(fd) != 0)
        ok = false;
    if (::close(fd) != 0)
        ok = false;
    if (!ok) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
    return ok;
}

ssh_key load_or_create_host_key(const std::filesystem::path& path, std::string& error) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        ssh_key fresh = nullptr;
        if (ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &fresh) != SSH_OK) {
            error = "cannot make a host key";
            return nullptr;
        }
        char* text = nullptr;
        int rc = ssh_pki_export_privkey_base64(fresh, nullptr, nullptr, nullptr, &text);
        if (rc != SSH_OK || !text) {
            ssh_key_free(fresh);
            error = "cannot encode the host key";
            return nullptr;
        }
        bool written = write_private_file(path, text);
        std::memset(text, 0, std::strlen(text));
        ssh_string_free_char(text);
        if (!written) {
            ssh_key_free(fresh);
            error = "cannot write " + path.string();
            return nullptr;
        }
        return fresh;
    }
    ssh_key key = nullptr;
    if (ssh_pki_import_privkey_file(path.c_str(), nullptr, nullptr, nullptr, &key) != SSH_OK) {
        error = "cannot read the host key " + path.string();
        return nullptr;
    }
    return key;
}

} // namespace orv::ssh
