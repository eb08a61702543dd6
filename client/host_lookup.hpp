#pragma once
// Host and port words of the `ftp`/`open` and `telnet` commands.
#include <cstdint>
#include <string>
#include <string_view>

namespace orv::client {

// "a.b.c.d" as typed: no lookup needed.
bool dotted_address(const std::string& host, uint32_t& addr_be);
// How long an outgoing `open` waits for the host name's address and then for the connection;
// both waits also end when the session's stop flag is raised.
constexpr int kLookupTimeoutMs = 15000;
constexpr int kConnectTimeoutMs = 20000;
// The port word's decimal value; absent or 0 gives `default_port`, and a value no TCP port
// can have gives -1 (the connect then fails as a refused one does).
int port_number(std::string_view word, int default_port);

// The open argument: the host word (up to 80 characters) and, when given, " " and the port
// word (up to 64).
std::string open_argument(std::string_view arg);

} // namespace orv::client
