#include "sshd/authorized_keys.hpp"
#include "sshd/ssh_algorithms.hpp"
#include "sshd/ssh_host_key.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace orv;
using namespace orv::ssh;

namespace {

mode_t mode_of(const std::filesystem::path& p) {
    struct stat st {};
    EXPECT_EQ(::stat(p.c_str(), &st), 0);
    return st.st_mode & 07777;
}

std::string public_line(ssh_key key) {
    char* b64 = nullptr;
    EXPECT_EQ(ssh_pki_export_pubkey_base64(key, &b64), SSH_OK);
    std::string line = std::string(ssh_key_type_to_char(ssh_key_type(key))) + " " + b64;
    ssh_string_free_char(b64);
    return line;
}

} // namespace

TEST(SshHostKey, MadeOnceWithOwnerOnlyModeThenReused) {
    test::TempDir dir;
    std::filesystem::path file = dir / kHostKeyFile;
    mode_t old_mask = ::umask(0);
    std::string error;
    ssh_key first = load_or_create_host_key(file, error);
    ::umask(old_mask);
    ASSERT_NE(first, nullptr) << error;
    EXPECT_EQ(mode_of(file), 0600u);
    EXPECT_EQ(ssh_key_type(first), SSH_KEYTYPE_ED25519);
    ssh_key again = load_or_create_host_key(file, error);
    ASSERT_NE(again, nullptr) << error;
    EXPECT_EQ(ssh_key_cmp(first, again, SSH_KEY_CMP_PRIVATE), 0);
    ssh_key_free(first);
    ssh_key_free(again);
}

TEST(SshHostKey, ExistingKeyOfAnotherTypeIsUsedAndGarbageRefused) {
    test::TempDir dir;
    ssh_key ecdsa = nullptr;
    ASSERT_EQ(ssh_pki_generate(SSH_KEYTYPE_ECDSA_P256, 256, &ecdsa), SSH_OK);
    char* text = nullptr;
    ASSERT_EQ(ssh_pki_export_privkey_base64(ecdsa, nullptr, nullptr, nullptr, &text), SSH_OK);
    dir.write(kHostKeyFile, text);
    ssh_string_free_char(text);
    std::string error;
    ssh_key loaded = load_or_create_host_key(dir / kHostKeyFile, error);
    ASSERT_NE(loaded, nullptr) << error;
    EXPECT_EQ(ssh_key_cmp(ecdsa, loaded, SSH_KEY_CMP_PUBLIC), 0);
    ssh_key_free(loaded);
    ssh_key_free(ecdsa);

    dir.write("broken", "not a key\n");
    EXPECT_EQ(load_or_create_host_key(dir / "broken", error), nullptr);
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(dir.read("broken"), "not a key\n"); // never overwritten
}

TEST(SshHostKey, PrivateFileIsNeverWrittenOverOrThroughALink) {
    test::TempDir dir;
    EXPECT_TRUE(write_private_file(dir / "k", "secret"));
    EXPECT_FALSE(write_private_file(dir / "k", "other"));
    EXPECT_EQ(dir.read("k"), "secret");
    std::filesystem::create_symlink(dir / "target", dir / "link");
    EXPECT_FALSE(write_private_file(dir / "link", "x"));
    EXPECT_FALSE(std::filesystem::exists(dir / "target"));
}

TEST(SshAlgorithms, OnlyModernOnesAreOffered) {
    for (const char* list : {kKeyExchange, kHostKeys, kCiphers, kMacs}) {
        std::string s = list;
        for (const char* weak : {"sha1", "cbc", "group1", "group14", "ssh-rsa,", "ssh-dss", "md5",
                                 "arcfour", "3des", "umac-64", "none"})
            EXPECT_EQ(s.find(weak), std::string::npos) << weak << " in " << s;
        EXPECT_FALSE(s.ends_with("ssh-rsa"));
    }
    // Every MAC is encrypt-then-MAC; the key exchange is curve25519 alone.
    EXPECT_EQ(std::string(kMacs).find("hmac-sha2-256,"), std::string::npos);
    EXPECT_EQ(std::string(kKeyExchange).find("nistp"), std::string::npos);
}

TEST(SshAuthorizedKeys, LinesAreParsedAndNamesConfined) {
    auto keys = parse_authorized_keys("# mine\n\nssh-ed25519 AAAAC3Nz one@host\r\n"
                                      "from=\"10.0.0.1\" ssh-ed25519 AAAAopt\n"
                                      "  ecdsa-sha2-nistp256 AAAAE2  \nssh-ed25519\n");
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0].type, "ssh-ed25519");
    EXPECT_EQ(keys[0].base64, "AAAAC3Nz");
    EXPECT_EQ(keys[1].type, "ecdsa-sha2-nistp256");
    EXPECT_EQ(keys[1].base64, "AAAAE2");

    std::filesystem::path start = "/srv/start";
    EXPECT_EQ(authorized_keys_file(start, "demo"), "/srv/start/authorized_keys/demo");
    for (std::string_view bad :
         {std::string_view(""), std::string_view("."), std::string_view(".."),
          std::string_view("../users"), std::string_view("a\\b"), std::string_view("a\0b", 3)})
        EXPECT_TRUE(authorized_keys_file(start, bad).empty()) << bad;
}

TEST(SshAuthorizedKeys, OnlyTheListedKeyOfThatAccountIsAccepted) {
    test::TempDir dir;
    ssh_key listed = nullptr, other = nullptr;
    ASSERT_EQ(ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &listed), SSH_OK);
    ASSERT_EQ(ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &other), SSH_OK);
    dir.write("authorized_keys/demo", "# keys\n" + public_line(listed) + " demo@box\n");
    EXPECT_TRUE(key_is_authorized(dir.path(), "demo", listed));
    EXPECT_FALSE(key_is_authorized(dir.path(), "demo", other));
    EXPECT_FALSE(key_is_authorized(dir.path(), "admin", listed));
    EXPECT_FALSE(key_is_authorized(dir.path(), "../authorized_keys/demo", listed));
    ssh_key_free(listed);
    ssh_key_free(other);
}
