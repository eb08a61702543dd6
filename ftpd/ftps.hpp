#pragma once
// FTP over TLS: AUTH TLS on the control connection (or TLS from the first byte on the
// implicit port), PBSZ, PROT and CCC, the refusals of clear-text logins and data when TLS is
// required, and protected data connections that must resume the control connection's session.
#include "ftpd/ftp_context.hpp"
#include "platform/byte_mover.hpp"

#include <atomic>
#include <memory>
#include <string>

namespace orv {

struct Extensions;
class TlsContext;
class TlsStream;

// A session's TLS state.
struct FtpsSession {
    // Set on the event thread once the handshake is done, before the session reads again;
    // command threads start later and only read it.
    std::shared_ptr<TlsStream> control;
    bool pbsz = false; // event thread
    std::atomic<bool> protect_data{false};
    // tls_session_reuse as it stood when the session began (the settings may change later).
    bool require_reuse = true;
};

// The server's TLS context from the [Extensions] keys; null (and `error` set) when FTPS cannot
// be offered. Paths are taken relative to `start_dir`.
std::shared_ptr<TlsContext> make_ftps_context(const Extensions& ext, const std::string& start_dir,
                                              std::string& error);

// Replies computed without a socket.
std::string auth_reply(const std::string& arg, bool secured, bool& start_handshake);
std::string pbsz_reply(const std::string& arg, bool secured, bool& pbsz);
std::string prot_reply(const std::string& arg, bool secured, bool pbsz, bool& protect);
// The refusal of `verb` under the TLS policy, or null when it may go on: a login before the
// control connection is protected, a data command before the data is.
const char* tls_policy_refusal(const std::string& verb, bool secured, bool protect_data,
                               bool require_tls);

// The TLS verbs and the policy, for sessions of a server that offers FTPS: true when the line
// was answered here.
bool ftps_dispatch(const FtpContextPtr& ctx, const SlotPtr& slot, const std::string& verb,
                   const std::string& arg);
// A session accepted on the implicit port: the handshake first, then the greeting.
void start_implicit_tls(const FtpContextPtr& ctx, const SlotPtr& slot);

// How long a handshake may take (10 s; ORVANE_TLS_HANDSHAKE_MS for tests).
int tls_handshake_timeout_ms();

// A data connection as the transfers use it: the socket, and its TLS when PROT P is on.
struct DataLink {
    int fd = -1;
    std::unique_ptr<TlsStream> tls;
    DataLink();
    ~DataLink();
    DataLink(DataLink&&) noexcept;
    DataLink& operator=(DataLink&&) noexcept;
};

// Opens the data connection (the 150 line first) and, when the session protects its data,
// runs the handshake on it and checks it resumed the control connection's session. On a
// failure the client has its 425 reply, and `fd` is -1.
DataLink open_data_link(Server& server, ConnSlot& slot, const FtpJob& job, long long size);
MoveResult link_send_file(DataLink& link, int file_fd, long long size, const MoveControl& control);
MoveResult link_receive_file(DataLink& link, int file_fd, const MoveControl& control);
bool link_send_all(DataLink& link, const std::string& data, const std::atomic<int>* stop);
// Ends the connection: the TLS close first when there is one, then the socket.
void close_link(DataLink& link);

} // namespace orv
