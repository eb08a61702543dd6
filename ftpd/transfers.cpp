#include "ftpd/transfers.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/replies.hpp"
#include "platform/files.hpp"
#include "platform/net.hpp"
#include "platform/staged_file.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <fcntl.h>
#include <shared_mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orv {

double transfer_seconds(std::chrono::steady_clock::duration elapsed) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    if (ms <= 0)
        ms = 1;
    return static_cast<double>(ms) / 1000.0;
}

std::string rate_line(int socket, long long bytes, double seconds, const char* verb) {
    return strf("(%i) %lli bytes %s in %.2f seconds (%.2f Kbytes/sec)", socket, bytes, verb,
                seconds, static_cast<double>(bytes) / 1024.0 / seconds);
}

MoveControl transfer_control(const ConnSlot& slot, const Server& server, bool upload) {
    const std::atomic<int>* session = &slot.stop;
    const std::atomic<bool>* stopping = &server.stopping;
    MoveControl c;
    if (upload) {
        c.stop = [stopping] { return stopping->load(); };
        c.stop_when_idle = [session] { return session->load() != 0; };
    } else {
        c.stop = [session, stopping] { return session->load() != 0 || stopping->load(); };
    }
    c.idle_limit_ms = kDataIdleLimitMs;
    return c;
}

const char* transfer_reply(MoveEnd end, bool upload) {
    switch (end) {
    case MoveEnd::complete:
        return ftp_text::kTransferComplete;
    case MoveEnd::source_failed:
        return upload ? ftp_text::kConnectionAborted : ftp_text::kReadFailed;
    case MoveEnd::sink_failed:
        return upload ? ftp_text::kWriteFailed : ftp_text::kConnectionAborted;
    case MoveEnd::peer_failed:
    case MoveEnd::stopped:
        break;
    }
    return ftp_text::kConnectionAborted;
}

int open_for_sending(const HostPath& host) {
    if (host.empty())
        return -1;
    int fd = open_beneath(host.base, host.relative, O_RDONLY | O_NONBLOCK);
    if (fd >= 0 && !is_regular_file(fd)) {
        ::close(fd);
        return -1;
    }
    if (fd >= 0)
        ::fcntl(fd, F_SETFL, 0);
    return fd;
}

const char* claim_upload_target(FtpContext& ctx, const User* user, const NodePtr& dir,
                                const std::string& name, NodePtr& existing, HostPath& host_dir) {
    if (!dir || !ctx.server.vfs)
        return ftp_text::kNoSuchFile;
    existing = find_child(*dir, name);
    bool allowed =
        can_write(user, *dir) && (existing ? can_write(user, *existing) && !existing->is_dir() &&
                                                 existing->status.load() == kStatusNormal
                                           : valid_new_name(name) && virtual_path_fits(*dir, name));
    if (!allowed)
        return ftp_text::kPermissionsDenied;
    host_dir = node_host_path(*ctx.server.vfs, *dir);
    if (existing)
        ctx.busy.acquire(existing);
    return nullptr;
}
namespace {

long long file_size(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

} // namespace

void retr_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->checked_user();
    const char* reply = nullptr;
    NodePtr node;
    HostPath host;
    long long size = 0;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr cwd = slot->cwd();
        if (cwd && server.vfs)
            node = find_child(*cwd, job.arg);
        if (!node) {
            reply = ftp_text::kNoSuchFile;
        } else if (!can_read_path(user.get(), *node)) {
            reply = ftp_text::kPermissionsDenied;
        } else {
            host = node_host_path(*server.vfs, *node);
            size = node->size;
            ctx->busy.acquire(node);
        }
    }
    if (reply) {
        finish_command(*slot, reply);
        log_thread_complete(server, job.socket, "RETR");
        return;
    }

    int file = open_for_sending(host);
    int data = open_data_connection(server, *slot, job.port_arg, job.type, size);
    if (data >= 0) {
        auto start = std::chrono::steady_clock::now();
        MoveResult sent;
        if (file >= 0)
            sent = send_file_to_socket(file, data, file_size(file),
                                       transfer_control(*slot, server, false));
        else
            sent.end = MoveEnd::source_failed;
        auto end = std::chrono::steady_clock::now();
        close_fd(data);
        // Both types send the bytes as they are; only the wording of the log line differs.
        server.log_message(rate_line(job.socket, sent.written, transfer_seconds(end - start),
                                     job.type == 'A' ? "sent" : "received"));
        ctx->busy.release(node);
        finish_command(*slot, transfer_reply(sent.end, false));
    } else {
        ctx->busy.release(node);
        slot->state = 3;
    }
    if (file >= 0)
        ::close(file);
    log_thread_complete(server, job.socket, "RETR");
}

namespace {

// Puts a completed upload in place and into the tree, under the exclusive tree lock so that
// the two agree (rename is a quick metadata change). Nothing is stored when the directory has
// left the tree meanwhile or the name has become a directory. `in_tree` is false when the node
// could not be added.
bool store_upload(Server& server, StagedFile& staged, const NodePtr& cwd, const std::string& name,
                  long long written, const std::shared_ptr<User>& user, bool& in_tree) {
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs || node_host_path(*server.vfs, *cwd).empty())
        return false;
    NodePtr now = find_child(*cwd, name);
    if ((now && now->is_dir()) || !staged.commit())
        return false;
    uint32_t size = static_cast<uint32_t>(written);
    if (now)
        now->size = size; // overwritten, or stored by another session meanwhile
    else
        in_tree = add_node(*server.vfs, *server.accounts, cwd, name, '-', size, user,
                           &server.memory_allocated) != nullptr;
    return true;
}

} // namespace

void stor_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->checked_user();
    const std::string& name = job.arg;
    const char* reply = nullptr;
    NodePtr cwd;
    NodePtr existing;
    HostPath dir;
    {
        std::shared_lock lock(server.tree_mutex);
        cwd = slot->cwd();
        reply = claim_upload_target(*ctx, user.get(), cwd, name, existing, dir);
    }
    if (reply) {
        finish_command(*slot, reply);
        log_thread_complete(server, job.socket, "STOR");
        return;
    }

    // The upload goes to a file of its own beside the target; the target changes only when
    // all of it has arrived.
    StagedFile staged;
    bool staging = !dir.empty() && staged.open(dir.base, dir.relative, name);
    int data = open_data_connection(server, *slot, job.port_arg, job.type, -1);
    if (data < 0) {
        if (existing)
            ctx->busy.release(existing);
        slot->state = 3;
        log_thread_complete(server, job.socket, "STOR");
        return;
    }
    // Text and binary uploads are stored alike: Linux has no line-end translation to apply.
    auto start = std::chrono::steady_clock::now();
    MoveResult got;
    if (staging)
        got = receive_socket_to_file(data, staged.fd(), transfer_control(*slot, server, true));
    else
        got.end = MoveEnd::sink_failed;
    auto end = std::chrono::steady_clock::now();
    close_fd(data);
    server.log_message(rate_line(job.socket, got.bytes, transfer_seconds(end - start), "received"));

    // The tree learns of the file before the reply goes out, so the client's next listing
    // shows it, with the size that is on disk.
    bool in_tree = true;
    if (got.end == MoveEnd::complete &&
        !store_upload(server, staged, cwd, name, got.written, user, in_tree))
        got.end = MoveEnd::sink_failed;
    staged.discard();
    if (existing)
        ctx->busy.release(existing);
    const char* last = transfer_reply(got.end, true);
    if (in_tree) {
        finish_command(*slot, last);
    } else {
        slot->send_text(last);
        finish_command(*slot, ftp_text::kNotAddedToTree);
    }
    log_thread_complete(server, job.socket, "STOR");
}

} // namespace orv
