#pragma once
// The command threads of the FTP client; each ends with its completion line and the client
// prompt.
#include "client/remote_job.hpp"

#include <string>

namespace orv::client {

// Listings.
void remote_dir_thread(RemoteJob& job, std::string arg);
void remote_ls_thread(RemoteJob& job, std::string arg);
// Whole files.
void remote_get_thread(RemoteJob& job, std::string arg);
void remote_put_thread(RemoteJob& job, std::string arg);
void remote_mget_thread(RemoteJob& job, std::string arg);
void remote_mput_thread(RemoteJob& job, std::string arg);
void remote_more_thread(RemoteJob& job, std::string arg);
// One command, one reply.
void remote_ascii_thread(RemoteJob& job, std::string arg);
void remote_bin_thread(RemoteJob& job, std::string arg);
void remote_dele_thread(RemoteJob& job, std::string arg);
void remote_mkd_thread(RemoteJob& job, std::string arg);
void remote_rmd_thread(RemoteJob& job, std::string arg);
void remote_pwd_thread(RemoteJob& job, std::string arg);
void remote_cd_thread(RemoteJob& job, std::string arg);
void remote_help_thread(RemoteJob& job, std::string arg);

} // namespace orv::client
