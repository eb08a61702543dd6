#pragma once
// Host name look-ups with a deadline. The resolver has no time-out of its own, so the look-up
// runs on a thread that holds nothing but its own copy of the name and its result: a caller
// that gives up (time up, or its stop flag raised) returns at once, and the thread ends on its
// own whenever the resolver answers.
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace orv {

// The first IPv4 address of `host` (a dotted address is taken as it stands, without a
// look-up). False when the name has no IPv4 address, when `timeout_ms` has passed, or when
// `*stop` has become non-zero.
bool resolve_ipv4(const std::string& host, uint32_t& addr_be, int timeout_ms,
                  const std::atomic<int>* stop = nullptr);

// Replaces the system resolver (tests: a resolver that never answers). Empty restores it.
using NameResolver = std::function<bool(const std::string& host, uint32_t& addr_be)>;
void set_name_resolver(NameResolver resolver);

} // namespace orv
