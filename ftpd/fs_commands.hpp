#pragma once
// Moving through the tree and changing it: CWD/XCWD, CDUP, PWD/XPWD, MKD/XMKD, RMD/XRMD and
// DELE. PWD answers on the event thread; the others run on a thread each.
#include "ftpd/ftp_context.hpp"

#include <string>

namespace orv {

class Server;

// "257 "<path>" is current directory." with "/" between the components.
std::string pwd_reply(Server& server, const ConnSlot& slot);

void cwd_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);
void cdup_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);
void mkd_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);
void rmd_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);
void dele_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);

// The reply of each command, computed from the tree and the host without any socket.
std::string change_directory(Server& server, ConnSlot& slot, const std::string& path);
std::string change_to_parent(Server& server, ConnSlot& slot);
std::string make_directory(Server& server, const ConnSlot& slot, std::string argument);
std::string remove_directory(Server& server, const ConnSlot& slot, std::string argument);
std::string delete_file(Server& server, const ConnSlot& slot, std::string argument);

} // namespace orv
