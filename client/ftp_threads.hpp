#pragma once
// The command threads of the FTP client; each ends with its completion line and the client
// prompt.
#include "client/ftp_job.hpp"

#include <string>

namespace orv::client {

// Listings.
void dir_thread(FtpJob& job, std::string arg);
void ls_thread(FtpJob& job, std::string arg);
// Whole files.
void get_thread(FtpJob& job, std::string arg);
void put_thread(FtpJob& job, std::string arg);
void mget_thread(FtpJob& job, std::string arg);
void mput_thread(FtpJob& job, std::string arg);
void more_thread(FtpJob& job, std::string arg);
// One command, one reply.
void ascii_thread(FtpJob& job, std::string arg);
void bin_thread(FtpJob& job, std::string arg);
void dele_thread(FtpJob& job, std::string arg);
void mkd_thread(FtpJob& job, std::string arg);
void rmd_thread(FtpJob& job, std::string arg);
void pwd_thread(FtpJob& job, std::string arg);
void cd_thread(FtpJob& job, std::string arg);
void help_thread(FtpJob& job, std::string arg);

} // namespace orv::client
