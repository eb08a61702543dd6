#pragma once
// FTP control connections: the session made at accept with its greeting, the cutting of the
// byte stream into command lines, and the ways a session ends. Event thread only.
#include "ftpd/ftp_context.hpp"

#include <asio/ip/tcp.hpp>
#include <string>

namespace orv {

// A line is refused when the buffered text and one read together reach this many bytes.
constexpr size_t kCommandBufferLimit = 240;

// Takes the next command line out of `buffer` once it holds "\r\n": the text before the first
// carriage return or line feed; the buffer then loses the line and the two characters after
// it. Without "\r\n" the buffer stays and the line is empty.
std::string take_command_line(std::string& buffer);
// Logs a command line as it arrives: "(%i) <password>" for a password in any state, else the
// line with its control bytes escaped.
void log_command_line(Server& server, const ConnSlot& slot, const std::string& line);
// Ends a session from the server's side: "FTP Close port %i", the socket closed, and whatever
// runs for it told to stop.
void close_after(FtpContext& ctx, const SlotPtr& slot);

// Makes the session for an accepted socket, greets it and starts reading its commands.
// On the implicit FTPS port (`implicit_tls`) the TLS handshake comes before the greeting.
void open_session(const FtpContextPtr& ctx, asio::ip::tcp::socket socket, int socket_number,
                  bool implicit_tls = false);

// ftp_conn_close: unlinks the session, lowers the login count it raised, sends the 221 lines
// and rewrites the title. The caller logs its close line and closes the socket. Always true.
bool close_session(FtpContext& ctx, const SlotPtr& slot);

// The bytes of one read event on a session's control socket.
void on_control_read(const FtpContextPtr& ctx, const SlotPtr& slot, const char* data, size_t size);

} // namespace orv
