#include "ftpd/modern_transfers.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/ftps.hpp"
#include "ftpd/modern_paths.hpp"
#include "ftpd/modern_session.hpp"
#include "ftpd/replies.hpp"
#include "ftpd/transfers.hpp"
#include "platform/byte_mover.hpp"
#include "platform/files.hpp"
#include "platform/net.hpp"
#include "platform/staged_file.hpp"

#include <fcntl.h>
#include <shared_mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace orv {

namespace {

constexpr const char* kRestTooFar = "554 Restart position beyond the end of the file.\r\n";

// A restarted or appended upload writes into the file itself (the classic STOR stages a new
// version instead): opened below its directory, created when missing, never through a link.
int open_to_continue(const HostPath& dir, const std::string& name, long long rest, bool append) {
    std::string relative = dir.relative.empty() ? name : dir.relative + "/" + name;
    int fd =
        dir.empty() ? -1 : open_beneath(dir.base, relative, O_WRONLY | O_CREAT | O_NONBLOCK, 0644);
    if (fd < 0)
        return -1;
    // The mover writes at the descriptor's offset (O_APPEND would not be honoured by every way
    // it writes), so an append starts from the end as it is now.
    bool placed = is_regular_file(fd) &&
                  (append ? ::lseek(fd, 0, SEEK_END) >= 0
                          : ::ftruncate(fd, rest) == 0 && ::lseek(fd, rest, SEEK_SET) == rest);
    if (!placed) {
        ::close(fd);
        return -1;
    }
    ::fcntl(fd, F_SETFL, 0);
    return fd;
}

} // namespace

bool finish_aborted(ConnSlot& slot) {
    if (!slot.ftp_extras || !slot.ftp_extras->abort.exchange(false))
        return false;
    slot.send_text("426 Connection closed; transfer aborted.\r\n");
    if (slot.control_open())
        slot.stop = 0; // the session goes on
    finish_command(slot, "226 ABOR command successful.\r\n");
    return true;
}

void modern_retr_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                        long long rest) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->checked_user();
    const char* reply = nullptr;
    NodePtr node;
    HostPath host;
    live_refresh(server, *slot, job.arg);
    {
        std::shared_lock lock(server.tree_mutex);
        node = resolve_path(server, user.get(), slot->cwd(), job.arg);
        if (!node || node->is_dir()) {
            reply = ftp_text::kNoSuchFile;
        } else if (!can_read_path(user.get(), *node)) {
            reply = ftp_text::kPermissionsDenied;
        } else {
            host = node_host_path(*server.vfs, *node);
            ctx->busy.acquire(node);
        }
    }
    int file = reply ? -1 : open_for_sending(host);
    struct stat st {};
    if (!reply && (file < 0 || ::fstat(file, &st) != 0 || rest > st.st_size ||
                   (rest > 0 && ::lseek(file, rest, SEEK_SET) != rest))) {
        ctx->busy.release(node);
        reply = file >= 0 && rest > 0 ? kRestTooFar : ftp_text::kReadFailed;
    }
    if (reply) {
        if (file >= 0)
            ::close(file);
        finish_command(*slot, reply);
        log_thread_complete(server, job.socket, "RETR");
        return;
    }
    DataLink data = open_data_link(server, *slot, job, st.st_size);
    if (data.fd < 0) {
        ::close(file);
        ctx->busy.release(node);
        finish_command(*slot, "");
        log_thread_complete(server, job.socket, "RETR");
        return;
    }
    auto start = std::chrono::steady_clock::now();
    MoveResult sent =
        link_send_file(data, file, st.st_size - rest, transfer_control(*slot, server, false));
    auto end = std::chrono::steady_clock::now();
    close_link(data);
    ::close(file);
    server.log_message(rate_line(job.socket, sent.written, transfer_seconds(end - start),
                                 job.type == 'A' ? "sent" : "received"));
    ctx->busy.release(node);
    if (!finish_aborted(*slot))
        finish_command(*slot, transfer_reply(sent.end, false));
    log_thread_complete(server, job.socket, "RETR");
}

void modern_stor_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                        long long rest, UploadMode mode) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->checked_user();
    const bool append = mode == UploadMode::Append;
    const char* name_of_thread = append ? "APPE" : "STOR";
    const char* reply = nullptr;
    NodePtr dir;
    NodePtr existing;
    std::string name;
    HostPath host_dir;
    live_refresh(server, *slot, job.arg);
    {
        std::shared_lock lock(server.tree_mutex);
        NewEntry target = resolve_new_entry(server, user.get(), slot->cwd(), job.arg);
        dir = target.dir;
        name = target.name;
        reply = claim_upload_target(*ctx, user.get(), dir, name, existing, host_dir);
    }
    if (reply) {
        finish_command(*slot, reply);
        log_thread_complete(server, job.socket, name_of_thread);
        return;
    }
    // A whole new upload is staged beside the target and put in place only when complete; a
    // restarted or appended one continues the file that is there.
    bool continuing = append || rest > 0;
    StagedFile staged;
    int file = -1;
    if (continuing)
        file = open_to_continue(host_dir, name, rest, append);
    else if (!host_dir.empty() && staged.open(host_dir.base, host_dir.relative, name))
        file = staged.fd();
    DataLink data = open_data_link(server, *slot, job, -1);
    if (data.fd < 0) {
        if (continuing && file >= 0)
            ::close(file);
        if (existing)
            ctx->busy.release(existing);
        finish_command(*slot, "");
        log_thread_complete(server, job.socket, name_of_thread);
        return;
    }
    auto start = std::chrono::steady_clock::now();
    MoveResult got;
    if (file >= 0)
        got = link_receive_file(data, file, transfer_control(*slot, server, true));
    else
        got.end = MoveEnd::sink_failed;
    auto end = std::chrono::steady_clock::now();
    close_link(data);
    server.log_message(rate_line(job.socket, got.bytes, transfer_seconds(end - start), "received"));

    struct stat st {};
    bool stored = file >= 0 && (continuing || got.end == MoveEnd::complete);
    if (stored && !continuing && !staged.commit()) {
        stored = false;
        got.end = MoveEnd::sink_failed;
    }
    if (continuing && file >= 0) {
        ::fstat(file, &st);
        if (::close(file) != 0 && got.end == MoveEnd::complete)
            got.end = MoveEnd::sink_failed;
    } else {
        st.st_size = got.written;
    }
    staged.discard();
    // The tree learns of the file before the reply goes out, with the size that is on disk.
    bool in_tree = true;
    if (stored) {
        std::unique_lock lock(server.tree_mutex);
        uint32_t size = static_cast<uint32_t>(st.st_size);
        if (NodePtr now = find_child(*dir, name)) {
            if (!now->is_dir())
                now->size = size;
        } else if (dir == server.vfs->root || dir->parent_node()) {
            in_tree = add_node(*server.vfs, *server.accounts, dir, name, '-', size, user,
                               &server.memory_allocated) != nullptr;
        }
    }
    if (existing)
        ctx->busy.release(existing);
    if (!finish_aborted(*slot)) {
        const char* last = transfer_reply(got.end, true);
        if (in_tree) {
            finish_command(*slot, last);
        } else {
            slot->send_text(last);
            finish_command(*slot, ftp_text::kNotAddedToTree);
        }
    }
    log_thread_complete(server, job.socket, name_of_thread);
}

} // namespace orv
