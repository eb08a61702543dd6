#pragma once
// USER and PASS: the account look-up, the "Ftp IN" right, the password, the server-wide and
// per-user limits, the failure path that always ends the connection, and the login message.
#include "ftpd/ftp_context.hpp"

#include <string>

namespace orv {

// Event thread.
void ftp_user(FtpContext& ctx, const SlotPtr& slot, const std::string& name);
void ftp_pass(const FtpContextPtr& ctx, const SlotPtr& slot, const std::string& password);
// ftp_login_failed: logs, answers "550 Login incorrect" and ends the connection.
void ftp_login_failed(FtpContext& ctx, const SlotPtr& slot);

// ftp_login_message: the thread that sends motd.txt and the 230 lines.
void login_message_thread(const FtpContextPtr& ctx, const SlotPtr& slot);

} // namespace orv
