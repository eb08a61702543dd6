#include "ftpd/fs_commands.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/replies.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"
#include "vfs/busy_mark.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <fcntl.h>
#include <shared_mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace orv {

namespace {

bool is_separator(char c) {
    return c == '\\' || c == '/';
}

// Path resolution for a session. Before a completed login nothing resolves, so that a client
// cannot even learn which names exist.
NodePtr resolve(const Server& server, const User* user, const NodePtr& cwd, std::string_view path) {
    if (!user || !server.vfs)
        return nullptr;
    if (!cwd && (path.empty() || !is_separator(path.front())))
        return nullptr;
    return find_node(*server.vfs, path, cwd);
}

bool is_mount_point(const VfsNode& node, const VfsNode& parent) {
    return node.mount && node.mount != parent.mount;
}

// Host directories are made and removed through a handle on their parent, opened below the
// base directory: no link made on the host leads elsewhere, and paths deeper than the host's
// path limit still work. Both return 0 or the errno value.
int make_host_directory(const HostPath& parent, const std::string& name) {
    if (parent.empty())
        return ENOENT; // the directory has left the tree
    int dir = open_beneath(parent.base, parent.relative, O_RDONLY | O_DIRECTORY);
    if (dir < 0)
        return errno;
    int rc = ::mkdirat(dir, name.c_str(), 0755) == 0 ? 0 : errno;
    ::close(dir);
    return rc;
}

int remove_host_directory(const HostPath& host) {
    if (host.empty() || host.relative.empty())
        return EBUSY; // a base directory (the home or a mount's) is never removed
    size_t cut = host.relative.rfind('/');
    std::string parent = cut == std::string::npos ? std::string() : host.relative.substr(0, cut);
    std::string name = host.relative.substr(cut == std::string::npos ? 0 : cut + 1);
    int dir = open_beneath(host.base, parent, O_RDONLY | O_DIRECTORY);
    if (dir < 0)
        return errno;
    int rc = ::unlinkat(dir, name.c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
    ::close(dir);
    return rc;
}

} // namespace

std::string pwd_reply(Server& server, const ConnSlot& slot) {
    std::shared_lock lock(server.tree_mutex);
    NodePtr cwd = slot.cwd();
    return strf(ftp_text::kPwdFmt, cwd ? node_virtual_path(*cwd, '/').c_str() : "/");
}

std::string change_directory(Server& server, ConnSlot& slot, const std::string& path) {
    std::shared_ptr<User> user = slot.checked_user();
    std::shared_lock lock(server.tree_mutex);
    NodePtr node = resolve(server, user.get(), slot.cwd(), path);
    // A file is no place to stand in: it is refused as a directory that does not exist.
    if (!node || !node->is_dir())
        return strf(ftp_text::kCwdMissingFmt, path.c_str());
    if (!can_read(user.get(), *node))
        return strf(ftp_text::kCwdDeniedFmt, path.c_str());
    slot.set_cwd(node);
    return ftp_text::kCwdOk;
}

std::string change_to_parent(Server& server, ConnSlot& slot) {
    std::shared_ptr<User> user = slot.checked_user();
    std::shared_lock lock(server.tree_mutex);
    NodePtr cwd = slot.cwd();
    if (NodePtr parent = cwd ? cwd->parent_node() : nullptr) {
        if (!can_read(user.get(), *parent))
            return strf(ftp_text::kCwdDeniedFmt, "");
        slot.set_cwd(parent);
    }
    return ftp_text::kCwdOk;
}

std::string make_directory(Server& server, const ConnSlot& slot, std::string argument) {
    std::string word = next_word(argument);
    std::shared_ptr<User> user = slot.checked_user();
    NodePtr parent;
    std::string name;
    HostPath host;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr cwd = slot.cwd();
        if (resolve(server, user.get(), cwd, word))
            return strf(ftp_text::kMkdExistsFmt, word.c_str());
        // Only "\" parts the parent from the new name; whatever is left must be one component,
        // so "open/made" is a name that cannot be made, not "made" inside "open".
        size_t cut = word.rfind('\\');
        if (cut == std::string::npos) {
            name = word;
            parent = user ? cwd : nullptr;
        } else {
            name = word.substr(cut + 1);
            // "\name" is made in the root.
            parent = resolve(server, user.get(), cwd,
                             cut == 0 ? word.substr(0, 1) : word.substr(0, cut));
        }
        if (!parent || !parent->is_dir() || !valid_new_name(name) ||
            !virtual_path_fits(*parent, name))
            return strf(ftp_text::kMkdNoParentFmt, word.c_str());
        if (!can_write(user.get(), *parent))
            return ftp_text::kMkdDenied;
        host = node_host_path(*server.vfs, *parent);
    }
    int made = make_host_directory(host, name);
    if (made != 0)
        return made == EEXIST ? strf(ftp_text::kMkdExistsFmt, word.c_str())
                              : std::string(ftp_text::kMkdDenied);
    {
        std::unique_lock lock(server.tree_mutex);
        if (!find_child(*parent, name))
            add_node(*server.vfs, *server.accounts, parent, name, 'd', 0, user,
                     &server.memory_allocated);
    }
    return strf(ftp_text::kMkdOkFmt, word.c_str());
}

std::string remove_directory(Server& server, const ConnSlot& slot, std::string argument) {
    std::string word = next_word(argument);
    std::shared_ptr<User> user = slot.checked_user();
    NodePtr node;
    HostPath host;
    {
        // Exclusive: the checks and the busy mark must not interleave with another command's.
        std::unique_lock lock(server.tree_mutex);
        node = resolve(server, user.get(), slot.cwd(), word);
        // The name in these replies is not known yet: the quotes stay empty.
        if (!node)
            return strf(ftp_text::kRmdMissingFmt, "");
        if (!node->children.empty())
            return strf(ftp_text::kRmdNotEmptyFmt, "");
        // Taking an entry out of a directory needs write permission there, as DELE does. The
        // root (and a directory already taken out of the tree) is never removed, nor is a
        // mount point: that would remove the mounted host directory itself.
        NodePtr parent = node->parent_node();
        if (!parent || is_mount_point(*node, *parent) || !can_read(user.get(), *node) ||
            !can_write(user.get(), *node) || !can_write(user.get(), *parent))
            return strf(ftp_text::kRmdDeniedFmt, "");
        if (!try_mark_busy(*node))
            return ftp_text::kRmdBusy;
        host = node_host_path(*server.vfs, *node);
    }
    std::string name = word.substr(word.find_last_of('\\') + 1);
    if (remove_host_directory(host) != 0) {
        clear_busy(*node);
        return strf(ftp_text::kRmdInUseFmt, name.c_str());
    }
    {
        std::unique_lock lock(server.tree_mutex);
        unlink_node(node, &server.memory_allocated);
    }
    return strf(ftp_text::kRmdOkFmt, name.c_str());
}

std::string delete_file(Server& server, const ConnSlot& slot, std::string argument) {
    std::string word = next_word(argument);
    std::shared_ptr<User> user = slot.checked_user();
    NodePtr node;
    std::string real;
    {
        std::unique_lock lock(server.tree_mutex);
        NodePtr cwd = slot.cwd();
        if (!cwd || !server.vfs)
            return ftp_text::kNoSuchFile;
        // A missing file gets the same answer as a forbidden one.
        if (can_write(user.get(), *cwd))
            node = find_child(*cwd, word);
        if (!node || !can_write(user.get(), *node))
            return ftp_text::kPermissionsDenied;
        // A file in transfer cannot go, as the host refuses to delete an open file.
        if (!try_mark_busy(*node))
            return ftp_text::kDeleFailed;
        real = node_real_path(*server.vfs, *node);
    }
    if (::unlink(real.c_str()) != 0) {
        clear_busy(*node);
        return ftp_text::kDeleFailed;
    }
    {
        std::unique_lock lock(server.tree_mutex);
        unlink_node(node, &server.memory_allocated);
    }
    return ftp_text::kDeleOk;
}

// CWD and CDUP write no log line, unlike the other threads.
void cwd_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    finish_command(*slot, change_directory(ctx->server, *slot, job.arg));
}

void cdup_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob&) {
    finish_command(*slot, change_to_parent(ctx->server, *slot));
}

void mkd_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    finish_command(*slot, make_directory(ctx->server, *slot, job.arg));
    log_thread_complete(ctx->server, job.socket, "MKD");
}

void rmd_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    finish_command(*slot, remove_directory(ctx->server, *slot, job.arg));
    log_thread_complete(ctx->server, job.socket, "RMD");
}

void dele_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    finish_command(*slot, delete_file(ctx->server, *slot, job.arg));
    log_thread_complete(ctx->server, job.socket, "DELE");
}

} // namespace orv
