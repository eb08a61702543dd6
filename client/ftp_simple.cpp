// The FTP client's commands that send one command and wait for one reply, and the help text.
#include "client/ftp_commands.hpp"
#include "client/ftp_replies.hpp"
#include "client/ftp_threads.hpp"

namespace orv::client {
namespace {

// Sends `text`, waits for the reply; true when it was a success. The server's own reply is
// what the user sees.
bool one_command(RemoteJob& job, const std::string& text) {
    job.command(text, kCommandSent);
    return job.wait_while(kCommandSent) == kCommandDone;
}

void set_type(RemoteJob& job, char type, const char* name) {
    if (one_command(job, type == 'A' ? "TYPE A\r\n" : "TYPE I\r\n"))
        job.slot->transfer_type = type;
    job.finish(name, job.control_number());
}

void with_name(RemoteJob& job, const std::string& arg, const char* verb, const char* name) {
    one_command(job, std::string(verb) + " " + two_words(arg).first + "\r\n");
    job.finish(name, job.control_number());
}

} // namespace

void remote_ascii_thread(RemoteJob& job, std::string) {
    set_type(job, 'A', "ASCII");
}

void remote_bin_thread(RemoteJob& job, std::string) {
    set_type(job, 'I', "BIN");
}

void remote_dele_thread(RemoteJob& job, std::string arg) {
    with_name(job, arg, "DELE", "DELE");
}

void remote_mkd_thread(RemoteJob& job, std::string arg) {
    with_name(job, arg, "MKD", "MKD");
}

void remote_rmd_thread(RemoteJob& job, std::string arg) {
    with_name(job, arg, "RMD", "RMD");
}

void remote_pwd_thread(RemoteJob& job, std::string) {
    one_command(job, "XPWD\r\n");
    job.finish("PWD", job.control_number());
}

void remote_cd_thread(RemoteJob& job, std::string arg) {
    std::string name = two_words(arg).first;
    if (!name.empty())
        one_command(job, "CWD " + name + "\r\n");
    job.finish("CD", job.control_number());
}

void remote_help_thread(RemoteJob& job, std::string) {
    job.say(kHelpText);
    job.finish("HELP", job.user_socket());
}

} // namespace orv::client
