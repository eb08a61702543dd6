#pragma once
// The newer command set (switched on by ftp_modern): line intake that answers every complete
// line in turn, and the verbs today's clients use by default.
#include "ftpd/ftp_context.hpp"

#include <string>

namespace orv {

// Makes the session's extras at accept (its addresses and the wake-up after a command).
void start_modern_session(const FtpContextPtr& ctx, const SlotPtr& slot, int socket_number);

// The bytes of one read: every complete line is handled in turn; lines that come while a
// command runs wait for it (ABOR excepted, which ends the running transfer).
void modern_control_read(const FtpContextPtr& ctx, const SlotPtr& slot, const char* data,
                         size_t size);
// Handles the lines that waited (event thread).
void take_waiting_lines(const FtpContextPtr& ctx, const SlotPtr& slot);

// Called by the dispatcher once the session is busy: true when the verb was handled here.
bool modern_dispatch(const FtpContextPtr& ctx, const SlotPtr& slot, const std::string& line);

// Replies computed without a socket.
// `tls`: the TLS commands are offered too.
std::string feat_reply(bool tls = false);
std::string help_reply();
std::string opts_reply(ConnSlot& slot, const std::string& arg);
std::string modern_type_reply(const std::string& arg, char& type);
std::string rest_reply(const std::string& arg, long long& rest);
std::string size_reply(Server& server, ConnSlot& slot, const std::string& path);
std::string mdtm_reply(Server& server, ConnSlot& slot, const std::string& path);
std::string mfmt_reply(Server& server, ConnSlot& slot, const std::string& arg);
std::string rnfr_reply(Server& server, ConnSlot& slot, const std::string& path);
std::string rnto_reply(Server& server, ConnSlot& slot, const std::string& path);
std::string modern_delete(Server& server, ConnSlot& slot, const std::string& path);
std::string status_reply(Server& server, const ConnSlot& slot);

// The longest line the newer command set takes (a full virtual path and the verb).
constexpr size_t kModernLineLimit = 4096 + 512;

} // namespace orv
