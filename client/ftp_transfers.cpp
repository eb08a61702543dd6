// The FTP client's commands that move data: listings, get/put, mget/mput and more.
#include "client/ftp_commands.hpp"
#include "client/ftp_replies.hpp"
#include "client/ftp_threads.hpp"
#include "client/local_files.hpp"
#include "core/server.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <shared_mutex>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace orv::client {
namespace {

constexpr const char* kPortFailed = "ERROR: could not create PORT\r\n";

struct FileCloser {
    void operator()(FILE* f) const {
        if (f)
            std::fclose(f);
    }
};
using TempFile = std::unique_ptr<FILE, FileCloser>;

// The data command's reply let the transfer go on (and was no refusal in disguise).
bool data_command_accepted(RemoteJob& job, uint8_t state, uint8_t ok_state) {
    return (state == ok_state || state == kTransferDone) && !job.refused();
}

void report_port_failure(RemoteJob& job) {
    job.log(kPortFailed);
    job.say(kPortFailed);
}

// Reads a data connection to its end in pieces of `block` bytes, handing each to `sink`; gives
// up when the server stays silent for the reply time-out or the session ends. Closes it.
template <class Sink> void drain_data(RemoteJob& job, int data_fd, size_t block, Sink sink) {
    std::vector<char> buffer(block);
    int idle = 0;
    int idle_limit = job.reply_timeout_ms();
    while (!job.server.stopping.load()) {
        if (!wait_readable(data_fd, 250)) {
            idle += 250;
            if (idle >= idle_limit || !job.alive())
                break;
            continue;
        }
        idle = 0;
        ssize_t n = ::recv(data_fd, buffer.data(), buffer.size(), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || !sink(buffer.data(), static_cast<size_t>(n)))
            break;
    }
    close_fd(data_fd);
}

// Copies a listing to the user unchanged, in 32768-byte pieces. A user who has gone gets
// nothing; the listing is still read to its end so that the server's "226" comes.
void relay_listing(RemoteJob& job, int data_fd) {
    drain_data(job, data_fd, 32768, [&job](const char* data, size_t size) {
        job.slot->send_bytes(data, size);
        return true;
    });
}

void listing(RemoteJob& job, const std::string& arg, bool long_form) {
    std::string path = two_words(arg).first;
    bool switched = job.type_to_ascii();
    int listen_fd = job.open_data_port();
    if (listen_fd < 0) {
        report_port_failure(job);
    } else {
        if (job.wait_while(kPortSent) == kPortAccepted) {
            std::string text = long_form ? "LIST" : "NLST";
            if (!path.empty())
                text += " " + path;
            job.command(text + "\r\n", kListSent);
            uint8_t state = job.wait_while(kListSent);
            if (data_command_accepted(job, state, kListing)) {
                int data_fd = job.accept_data(listen_fd);
                if (data_fd >= 0) {
                    job.enter_transfer();
                    relay_listing(job, data_fd);
                    if (job.wait_while(kTransfer) == kTransferDone)
                        job.say("226 ASCII Transfer complete.\r\n");
                }
            }
        }
        close_fd(listen_fd);
    }
    job.type_back(switched);
    job.finish(long_form ? "DIR" : "LS", job.user_socket());
}

// False after telling the user why the local file of a get or put could not be opened.
bool local_file_ready(RemoteJob& job, OpenResult result) {
    switch (result) {
    case OpenResult::Denied:
        job.say("local file: permission denied\r\n");
        return false;
    case OpenResult::Failed:
        job.say("Error opening local file\r\n");
        return false;
    case OpenResult::Ok:
        break;
    }
    return true;
}

// The data connection of a RETR or STOR (`command`): the port opened, the command sent once the
// remote side took the PORT, the connection accepted and the transfer state entered. -1 when
// any step fails.
int start_file_transfer(RemoteJob& job, const std::string& command) {
    int listen_fd = job.open_data_port();
    if (listen_fd < 0) {
        report_port_failure(job);
        return -1;
    }
    int data_fd = -1;
    if (job.wait_while(kPortSent) == kPortAccepted) {
        job.command(command, kCommandSent);
        if (data_command_accepted(job, job.wait_while(kCommandSent), kCommandDone))
            data_fd = job.accept_data(listen_fd);
    }
    close_fd(listen_fd);
    if (data_fd >= 0)
        job.enter_transfer();
    return data_fd;
}

// Steps 3 to 7 of a get: `remote` into `name` in `dir`.
void fetch(RemoteJob& job, const NodePtr& dir, const std::string& name, const std::string& remote,
           const NodePtr& start_cwd) {
    std::shared_ptr<User> user = job.user();
    ReceiveTarget target;
    if (!local_file_ready(job, target.open(job.server, user.get(), dir, name)))
        return;
    int data_fd = start_file_transfer(job, "RETR " + remote + "\r\n");
    if (data_fd < 0)
        return;
    target.begin();
    job.receive_file(data_fd, target.fd());
    if (job.wait_while(kTransfer) == kTransferDone)
        job.say("226 Transfer complete.\r\n");
    target.close();
    if (job.slot->cwd() != start_cwd)
        return;
    if (!add_received_file(job.server, user, dir, name, target.size()))
        job.say(
            "Could not add file to Virtual File System\r\nContact the system administrator.\r\n");
}

// Sends one local file (already opened) as `remote`.
void deliver(RemoteJob& job, SendSource& source, const std::string& remote, bool multiple) {
    int data_fd = start_file_transfer(job, "STOR " + remote + "\r\n");
    if (data_fd < 0)
        return;
    job.send_file(data_fd, source.fd());
    if (multiple)
        job.log(strf("(%i) waiting for 226...", job.user_socket()));
    if (job.wait_while(kTransfer) == kTransferDone)
        job.say("226 Transfer complete.\r\n");
}

// Opens a local file for put; false after telling the user why not.
bool open_source(RemoteJob& job, SendSource& source, const NodePtr& dir, const std::string& name) {
    std::shared_ptr<User> user = job.user();
    return local_file_ready(job, source.open(job.server, user.get(), dir, name));
}

void log_search_failure(RemoteJob& job, const char* text) {
    job.log(text);
    job.log(strf("%i", job.slot->state.load()));
    job.log(strf("%i", job.slot->ghost.load()));
}

// The name list of an mget (or the file of a more) fetched into a temporary file in ASCII.
// `verb` is "NLST" or "RETR"; the refusal of it is logged with `refused_text`.
bool fetch_to_temp(RemoteJob& job, FILE* temp, const std::string& verb, const std::string& what,
                   const char* refused_text, bool with_progress) {
    bool switched = job.type_to_ascii();
    bool ok = false;
    int listen_fd = job.open_data_port();
    if (listen_fd < 0) {
        log_search_failure(job, "*** Port error(3)... ***");
    } else if (job.wait_while(kPortSent) != kPortAccepted) {
        log_search_failure(job, "*** Port error(2)... ***");
    } else {
        bool is_list = verb == "NLST";
        uint8_t wait = is_list ? kListSent : kCommandSent;
        job.command(verb + " " + what + "\r\n", wait);
        uint8_t state = job.wait_while(wait);
        int data_fd = -1;
        if (data_command_accepted(job, state, is_list ? kListing : kCommandDone))
            data_fd = job.accept_data(listen_fd);
        if (data_fd < 0) {
            log_search_failure(job, refused_text);
        } else {
            job.enter_transfer();
            std::fflush(temp);
            int file_fd = ::fileno(temp);
            if (with_progress) {
                job.receive_file(data_fd, file_fd);
            } else {
                drain_data(job, data_fd, 32768, [file_fd](const char* data, size_t size) {
                    return ::write(file_fd, data, size) == static_cast<ssize_t>(size);
                });
            }
            ok = job.wait_while(kTransfer) == kTransferDone;
        }
    }
    if (listen_fd >= 0)
        close_fd(listen_fd);
    job.type_back(switched);
    if (ok) {
        job.log("*** list complete ***");
        job.say("Search Complete.\r\n");
    }
    std::rewind(temp);
    return ok;
}

// One line of a name list: at most 260 characters, its line end cut off.
bool next_list_line(FILE* f, std::string& line) {
    char buf[kMaxLocalPath + 1];
    if (!std::fgets(buf, sizeof buf, f))
        return false;
    line = buf;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    return true;
}

} // namespace

void remote_dir_thread(RemoteJob& job, std::string arg) {
    listing(job, arg, true);
}

void remote_ls_thread(RemoteJob& job, std::string arg) {
    listing(job, arg, false);
}

void remote_get_thread(RemoteJob& job, std::string arg) {
    NodePtr start_cwd = job.slot->cwd();
    TwoWords words = two_words(arg);
    if (words.first.empty()) {
        job.say("GET: missing filename\r\n");
    } else {
        std::string local = words.second;
        if (local.empty()) {
            size_t slash = words.first.rfind('/');
            local = slash == std::string::npos ? words.first : words.first.substr(slash + 1);
        }
        LocalName target = split_local_name(job.server, start_cwd, local);
        if (!target.dir)
            job.say(strf("Destination directory doesn't exist: %s\r\n", target.dir_text.c_str()));
        else
            fetch(job, target.dir, target.name, words.first, start_cwd);
    }
    job.finish("GET", job.user_socket());
}

void remote_put_thread(RemoteJob& job, std::string arg) {
    TwoWords words = two_words(arg);
    if (words.first.empty()) {
        job.say("PUT: missing filename\r\n");
    } else {
        LocalName source_name = split_local_name(job.server, job.slot->cwd(), words.first);
        std::string remote = words.second;
        if (remote.empty()) {
            size_t slash = words.first.rfind('/');
            remote = slash == std::string::npos ? words.first : words.first.substr(slash + 1);
        }
        SendSource source;
        if (!source_name.dir)
            job.say(strf("Source directory doesn't exist: %s\r\n", source_name.dir_text.c_str()));
        else if (open_source(job, source, source_name.dir, source_name.name))
            deliver(job, source, remote, false);
    }
    job.finish("PUT", job.user_socket());
}

void remote_mget_thread(RemoteJob& job, std::string arg) {
    NodePtr start_cwd = job.slot->cwd();
    TwoWords words = two_words(arg);
    if (words.first.empty()) {
        job.say("MGET: missing filename\r\n");
        job.finish("MGET", job.user_socket());
        return;
    }
    NodePtr dest = resolve_local_dir(job.server, start_cwd, words.second);
    if (!dest) {
        job.say(strf("Destination directory doesn't exist: %s\r\n", words.second.c_str()));
        job.log("dir problem");
        job.finish("MGET", job.user_socket());
        return;
    }
    TempFile list(std::tmpfile());
    if (!list) {
        job.say("Could not complete your request (tmpfile error)\r\n");
        job.log("could not complete (2)");
        job.finish("MGET", job.user_socket());
        return;
    }
    job.say(strf("Searching for %s ...\r\n", words.first.c_str()));
    if (!fetch_to_temp(job, list.get(), "NLST", words.first, "*** List error(1)... ***", false)) {
        job.say("Could not complete your request\r\n");
        job.log("could not complete (1)");
        job.finish("MGET", job.user_socket());
        return;
    }
    std::string name;
    bool first = true;
    while (job.alive() && job.slot->cwd() == start_cwd && next_list_line(list.get(), name)) {
        if (first && (contains(name, words.first) || contains(name, "No such file or directory"))) {
            // The server put its complaint where the names should be.
            job.say(name + "\r\n");
            break;
        }
        first = false;
        if (name.empty())
            continue;
        if (job.slot->prompting.load() && !job.confirm(strf("get %s [y/n]? ", name.c_str())))
            continue;
        fetch(job, dest, name, name, start_cwd);
    }
    job.finish("MGET", job.user_socket());
}

void remote_mput_thread(RemoteJob& job, std::string arg) {
    std::string pattern = two_words(arg).first;
    if (pattern.empty()) {
        job.say("MPUT: missing filename or wildcard\r\n");
        job.finish("MPUT", job.user_socket());
        return;
    }
    LocalName where = split_local_name(job.server, job.slot->cwd(), pattern);
    if (!where.dir) {
        job.say(strf("Source directory doesn't exist: %s\r\n", where.dir_text.c_str()));
        job.finish("MPUT", job.user_socket());
        return;
    }
    std::vector<NodePtr> files;
    {
        std::shared_lock lock(job.server.tree_mutex);
        for (NodePtr n = match_first(*where.dir, where.name); n; n = match_next(*n, where.name))
            if (!n->is_dir())
                files.push_back(n);
    }
    if (files.empty())
        job.say(strf("mput: %s: No files matched your criteria\r\n", pattern.c_str()));
    for (const NodePtr& node : files) {
        if (!job.alive())
            break;
        std::string name;
        {
            std::shared_lock lock(job.server.tree_mutex);
            name = node->name;
        }
        if (job.slot->prompting.load() && !job.confirm(strf("put %s [y/n]? ", name.c_str())))
            continue;
        std::shared_ptr<User> user = job.user();
        SendSource source;
        switch (source.open(job.server, user.get(), node)) {
        case OpenResult::Denied:
            job.say("local file: permission denied\r\n");
            continue;
        case OpenResult::Failed:
            job.say("Error opening local file\r\n");
            continue;
        case OpenResult::Ok:
            break;
        }
        deliver(job, source, name, true);
    }
    job.finish("MPUT", job.user_socket());
}

void remote_more_thread(RemoteJob& job, std::string arg) {
    std::string name = two_words(arg).first;
    std::string done = strf("(%i) FTP more thread complete", job.user_socket());
    if (has_wildcard(name)) {
        job.say("Wildcards not Allowed");
        job.finish(done);
        return;
    }
    TempFile temp(std::tmpfile());
    if (!temp) {
        job.say("more failed: Failed to create Temp file\r\n");
        job.finish(done);
        return;
    }
    if (!fetch_to_temp(job, temp.get(), "RETR", name, "*** Retr error(1)... ***", true)) {
        job.say("more failed: FTP Retrieve Failure\r\n");
        job.finish(done);
        return;
    }
    int page = 23;
    int shown = 0;
    char buf[81];
    while (std::fgets(buf, sizeof buf, temp.get())) {
        std::string piece = buf;
        if (!piece.empty() && piece.back() == '\n')
            piece.pop_back();
        if (piece.size() < 80)
            piece += "\r\n";
        job.say(piece);
        if (++shown < page)
            continue;
        char key = job.wait_key(true);
        while (key != '\n' && key != ' ' && key != 'q' && key != 'Q')
            key = job.wait_key(false);
        if (key == 'q' || key == 'Q')
            break;
        job.say("\b\b\b\b\b\b      \b\b\b\b\b\b");
        page = key == ' ' ? 23 : 1;
        shown = 0;
    }
    temp.reset();
    job.finish(done);
}

} // namespace orv::client
