#pragma once
// One SFTP request in, its reply out: the protocol's policy, computed without any channel so
// that tests and the fuzzer can drive it directly.
#include "sshd/sftp_files.hpp"

#include <string>
#include <string_view>

namespace orv::sftp {

// The protocol version served.
constexpr uint32_t kVersion3 = 3;
// The one extension served: the sizes and counts this server accepts.
constexpr const char kLimitsExtension[] = "limits@openssh.com";

class Session {
  public:
    explicit Session(Files& files) : files_(files) {}
    // Handles one packet (type byte onward) and appends the reply to `out`. False when the
    // session must end: a request before the version exchange, or one that is not a request.
    bool handle(std::string_view packet, std::string& out);

  private:
    Files& files_;
    bool started_ = false;
};

} // namespace orv::sftp
