#pragma once
// The algorithms the SSH listener offers: modern ones only (no SHA-1, no CBC, no small or
// fixed Diffie-Hellman groups, no NIST-curve key exchange), strongest first.
namespace orv::ssh {

inline constexpr const char kKeyExchange[] = "curve25519-sha256,curve25519-sha256@libssh.org";
inline constexpr const char kHostKeys[] =
    "ssh-ed25519,ecdsa-sha2-nistp521,ecdsa-sha2-nistp384,ecdsa-sha2-nistp256,rsa-sha2-512,"
    "rsa-sha2-256";
inline constexpr const char kCiphers[] =
    "chacha20-poly1305@openssh.com,aes256-gcm@openssh.com,aes128-gcm@openssh.com,aes256-ctr,"
    "aes192-ctr,aes128-ctr";
inline constexpr const char kMacs[] = "hmac-sha2-256-etm@openssh.com,hmac-sha2-512-etm@openssh.com";

// The software part of the version line: the server's own name, not the library's, so that
// scanners do not match our listener against the library's old advisories by version.
inline constexpr const char kVersionBanner[] = "OrvaneServer_" ORVANE_VERSION;

} // namespace orv::ssh
