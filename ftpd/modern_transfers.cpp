#include "ftpd/modern_transfers.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/modern_paths.hpp"
#include "ftpd/modern_session.hpp"
#include "ftpd/replies.hpp"
#include "ftpd/transfers.hpp"
#include "platform/net.hpp"

#include <shared_mutex>

namespace orv {

namespace {

constexpr const char* kReadFailed = "451 Transfer aborted: the file could not be read\r\n";
constexpr const char* kRestTooFar = "554 Restart position beyond the end of the file.\r\n";

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
    std::string real;
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
            real = node_real_path(*server.vfs, *node);
            host = node_host_path(*server.vfs, *node);
            ctx->busy.acquire(node);
        }
    }
    struct stat st {};
    if (!reply && (!host_stat(host, st) || rest > st.st_size)) {
        ctx->busy.release(node);
        reply = rest > 0 ? kRestTooFar : kReadFailed;
    }
    if (reply) {
        finish_command(*slot, reply);
        log_thread_complete(server, job.socket, "RETR");
        return;
    }
    long long want = static_cast<long long>(st.st_size) - rest;
    int data = open_data_connection(server, *slot, job.port_arg, job.type, st.st_size);
    if (data < 0) {
        ctx->busy.release(node);
        finish_command(*slot, "");
        log_thread_complete(server, job.socket, "RETR");
        return;
    }
    auto start = std::chrono::steady_clock::now();
    long long bytes = send_file(real, data, {&slot->stop, &server.stopping}, rest);
    auto end = std::chrono::steady_clock::now();
    close_fd(data);
    server.log_message(rate_line(job.socket, bytes, transfer_seconds(end - start),
                                 job.type == 'A' ? "sent" : "received"));
    ctx->busy.release(node);
    if (!finish_aborted(*slot))
        finish_command(*slot, bytes < want ? kReadFailed : ftp_text::kTransferComplete);
    log_thread_complete(server, job.socket, "RETR");
}

void modern_stor_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                        long long rest, UploadMode mode) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->checked_user();
    const char* name_of_thread = mode == UploadMode::Append ? "APPE" : "STOR";
    const char* reply = nullptr;
    NodePtr dir;
    NodePtr existing;
    std::string name;
    std::string real;
    live_refresh(server, *slot, job.arg);
    {
        std::shared_lock lock(server.tree_mutex);
        NewEntry target = resolve_new_entry(server, user.get(), slot->cwd(), job.arg);
        dir = target.dir;
        name = target.name;
        if (!dir) {
            reply = ftp_text::kNoSuchFile;
        } else {
            existing = find_child(*dir, name);
            bool allowed = can_write(user.get(), *dir) &&
                           (existing ? !existing->is_dir() && can_write(user.get(), *existing) &&
                                           existing->status.load() == kStatusNormal
                                     : valid_new_name(name) && virtual_path_fits(*dir, name));
            if (!allowed) {
                reply = ftp_text::kPermissionsDenied;
            } else {
                real = existing ? node_real_path(*server.vfs, *existing)
                                : child_real_path(*server.vfs, *dir, name);
                if (existing)
                    ctx->busy.acquire(existing);
            }
        }
    }
    if (reply) {
        finish_command(*slot, reply);
        log_thread_complete(server, job.socket, name_of_thread);
        return;
    }
    int data = open_data_connection(server, *slot, job.port_arg, job.type, -1);
    if (data < 0) {
        if (existing)
            ctx->busy.release(existing);
        finish_command(*slot, "");
        log_thread_complete(server, job.socket, name_of_thread);
        return;
    }
    long long position = mode == UploadMode::Append ? kWriteAppend
                         : rest > 0                 ? rest
                                                    : kWriteFromStart;
    auto start = std::chrono::steady_clock::now();
    Received got = receive_file(data, real, {&slot->stop, &server.stopping}, position);
    auto end = std::chrono::steady_clock::now();
    close_fd(data);
    server.log_message(rate_line(job.socket, got.bytes, transfer_seconds(end - start), "received"));

    bool in_tree = true;
    if (got.opened) {
        struct stat st {};
        uint32_t size = static_cast<uint32_t>(got.written);
        if (::stat(real.c_str(), &st) == 0)
            size = static_cast<uint32_t>(st.st_size);
        std::unique_lock lock(server.tree_mutex);
        if (existing) {
            existing->size = size;
        } else if (NodePtr raced = find_child(*dir, name)) {
            if (!raced->is_dir())
                raced->size = size;
        } else if (dir->parent_node() || dir == server.vfs->root) {
            in_tree = add_node(*server.vfs, *server.accounts, dir, name, '-', size, user,
                               &server.memory_allocated) != nullptr;
        }
    }
    if (existing)
        ctx->busy.release(existing);
    if (!finish_aborted(*slot)) {
        const char* last =
            got.write_failed || !got.opened ? ftp_text::kWriteFailed : ftp_text::kTransferComplete;
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
