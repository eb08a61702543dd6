#pragma once
// Passive data connections (PASV, EPSV) and extended active ones (EPRT), and the opening of
// the data connection for sessions with the newer command set.
#include "ftpd/ftp_context.hpp"
#include "ftpd/modern_session.hpp"

#include <string>
#include <string_view>

namespace orv {

class Server;
struct Extensions;

// Addresses a client reaches us by directly: loopback, private (RFC 1918), link-local and
// IPv6 unique-local ones.
bool is_private_address(const SockAddr& addr);
// The text of an address ("192.0.2.1", "::1"; IPv4-mapped IPv6 shown as IPv4).
std::string address_text(const SockAddr& addr);
// True when both name the same host (an IPv4 address equals its IPv4-mapped IPv6 form).
bool same_host(const SockAddr& a, const SockAddr& b);

// "227 Entering Passive Mode (h1,h2,h3,h4,p1,p2).": `announce` is the IPv4 address (network
// order) to give.
std::string pasv_reply(uint32_t announce_be, int port);
// The IPv4 address a PASV reply names: the configured public address for clients from
// outside, the control connection's own address otherwise. 0 when the control connection is
// not IPv4.
uint32_t pasv_announce_address(const Extensions& ext, const FtpSessionExtras& session);

// EPRT's argument "|1|addr|port|" or "|2|addr|port|" (any delimiter between 33 and 126).
bool parse_eprt(std::string_view arg, SockAddr& out);

// How long a passive port waits for its connection (30 s; ORVANE_PASSIVE_TIMEOUT_MS for tests).
int passive_timeout_ms();

// PASV and EPSV on the event thread: opens a listener on the control connection's local
// address with a port from the configured range and schedules its closing. Returns the reply.
std::string passive_command(const FtpContextPtr& ctx, const SlotPtr& slot, bool extended,
                            std::string_view arg);
// EPRT on the event thread.
std::string eprt_command(const SlotPtr& slot, std::string_view arg);
// PORT for these sessions: drops a passive listener, then the classic handling.
std::string modern_port_command(const SlotPtr& slot, std::string_view arg);

// The data connection for a session with the newer command set: sends the 150 line, then
// accepts on the passive listener (from the control connection's peer only) or connects to
// the EPRT or PORT address. On failure logs "Data Connection failed!", answers 425 and
// returns -1.
int open_modern_data_connection(Server& server, ConnSlot& slot, const std::string& port_arg,
                                char type, long long size);

} // namespace orv
