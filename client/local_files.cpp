#include "client/local_files.hpp"

#include "accounts/accounts.hpp"
#include "accounts/group.hpp"
#include "accounts/user.hpp"
#include "core/server.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"
#include "vfs/host_files.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <shared_mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace orv::client {
namespace {

// The group a received file shows: one named after the user, which has no members.
std::shared_ptr<Group> user_named_group(const User& user) {
    auto group = std::make_shared<Group>();
    group->gid = user.uid;
    group->name = user.name;
    return group;
}

} // namespace

NodePtr resolve_local_dir(Server& server, const NodePtr& cwd, std::string_view path) {
    std::shared_lock lock(server.tree_mutex);
    if (!server.vfs)
        return nullptr;
    NodePtr dir = path.empty() ? cwd : find_node(*server.vfs, path, cwd);
    return dir && dir->is_dir() ? dir : nullptr;
}

LocalName split_local_name(Server& server, const NodePtr& cwd, std::string_view local) {
    LocalName out;
    size_t cut = local.rfind('\\');
    if (cut == std::string_view::npos) {
        out.dir = cwd;
        out.name = std::string(local);
        return out;
    }
    out.dir_text = std::string(local.substr(0, cut));
    out.name = std::string(local.substr(cut + 1));
    out.dir = resolve_local_dir(server, cwd, cut == 0 ? std::string_view("\\") : out.dir_text);
    return out;
}

ReceiveTarget::~ReceiveTarget() {
    close();
}

OpenResult ReceiveTarget::open(Server& server, const User* user, const NodePtr& dir,
                               const std::string& name) {
    NodePtr existing;
    HostPath dir_path;
    {
        std::shared_lock lock(server.tree_mutex);
        if (!server.vfs || !dir || !valid_new_name(name) || !virtual_path_fits(*dir, name))
            return OpenResult::Denied;
        existing = find_child(*dir, name);
        // A new file needs the directory's write permission, as a stored file does on the
        // FTP side; an existing one its own.
        if (existing ? existing->is_dir() || !can_write(user, *existing) : !can_write(user, *dir))
            return OpenResult::Denied;
        dir_path = node_host_path(*server.vfs, *dir);
        if (dir_path.empty())
            return OpenResult::Failed;
    }
    if (existing) {
        busy_ = BusyMark(existing);
        if (!busy_)
            return OpenResult::Denied; // in use by another transfer, or being unmounted
    }
    // Inside the directory as it is now on the host: a link put in place of the directory or
    // the file leads nowhere, and only a regular file is written.
    dir_fd_ = open_host_dir(dir_path);
    if (dir_fd_ >= 0) {
        name_ = name;
        fd_ = ::openat(dir_fd_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       0644);
        if (fd_ >= 0) {
            created_ = true;
        } else if (errno == EEXIST) {
            fd_ = ::openat(dir_fd_, name.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
            if (fd_ >= 0 && (!is_regular_file(fd_) ||
                             ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK) != 0)) {
                ::close(fd_);
                fd_ = -1;
            }
        }
    }
    if (fd_ < 0) {
        close();
        return OpenResult::Failed;
    }
    return OpenResult::Ok;
}

void ReceiveTarget::begin() {
    begun_ = true;
    // A file that cannot be shortened keeps its old tail past the new end; the write errors
    // of the transfer itself are logged by the receive loop.
    if (fd_ >= 0 && ::ftruncate(fd_, 0) != 0)
        ::lseek(fd_, 0, SEEK_SET);
}

void ReceiveTarget::close() {
    if (fd_ >= 0) {
        struct stat st {};
        if (::fstat(fd_, &st) == 0)
            size_ = static_cast<uint32_t>(st.st_size);
        ::close(fd_);
        fd_ = -1;
        if (created_ && !begun_)
            ::unlinkat(dir_fd_, name_.c_str(), 0);
    }
    if (dir_fd_ >= 0) {
        ::close(dir_fd_);
        dir_fd_ = -1;
    }
    busy_.release();
}

bool add_received_file(Server& server, const std::shared_ptr<User>& user, const NodePtr& dir,
                       const std::string& name, uint32_t size) {
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs || !server.accounts || !dir)
        return false;
    NodePtr node = find_child(*dir, name);
    if (node && node->is_dir())
        return true; // a directory of that name appeared meanwhile: leave it alone
    if (!node)
        node = add_node(*server.vfs, *server.accounts, dir, name, '-', size, user,
                        &server.memory_allocated);
    if (!node)
        return false;
    // A received file starts afresh: the user owns it, rwxr-xr-x, and its group column
    // shows the user's own name (a group of that name that grants nobody anything).
    node->size = size;
    node->kind = '-';
    node->mount = dir->mount;
    node->creator = user;
    node->owner = user;
    node->group = user_named_group(*user);
    node->flags = {1, 1, 1, 1, 0, 1, 1, 0, 1};
    node->status = kStatusNormal;
    return true;
}

SendSource::~SendSource() {
    close();
}

OpenResult SendSource::open(Server& server, const User* user, const NodePtr& dir,
                            const std::string& name) {
    NodePtr node;
    HostPath path;
    {
        std::shared_lock lock(server.tree_mutex);
        if (!dir || !server.vfs)
            return OpenResult::Failed;
        node = find_child(*dir, name);
        if (!node) {
            // A host file the tree does not know (made on the host after the scan) is sent
            // too, but only from a directory the user may read, and only by a plain name.
            if (!valid_new_name(name))
                return OpenResult::Failed;
            if (!can_read(user, *dir))
                return OpenResult::Denied;
            path = child_host_path(node_host_path(*server.vfs, *dir), name);
        }
    }
    if (node)
        return open(server, user, node);
    // Read-write on purpose, as the client always opened its source.
    fd_ = open_host_file(path, true);
    return fd_ < 0 ? OpenResult::Failed : OpenResult::Ok;
}

OpenResult SendSource::open(Server& server, const User* user, const NodePtr& node) {
    HostPath path;
    {
        std::shared_lock lock(server.tree_mutex);
        if (node && !can_read_path(user, *node))
            return OpenResult::Denied;
        if (!node || node->is_dir() || !server.vfs)
            return OpenResult::Failed;
        path = node_host_path(*server.vfs, *node);
    }
    // Read-write on purpose, as the client always opened its source; below the node's base
    // and only a regular file, so a link put in its place on the host leads nowhere.
    fd_ = open_host_file(path, true);
    if (fd_ < 0)
        return OpenResult::Failed;
    busy_ = BusyMark(node); // unless somebody else has marked it
    return OpenResult::Ok;
}

void SendSource::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    busy_.release();
}

std::string change_local_dir(Server& server, ConnSlot& slot, std::string arg) {
    std::string word = next_word(arg);
    std::shared_ptr<User> owner = slot.checked_user();
    const User* user = owner.get();
    std::shared_lock lock(server.tree_mutex);
    if (!server.vfs || !server.vfs->root)
        return strf("%s: does not exist\r\n", word.c_str());
    const VfsTree& tree = *server.vfs;
    NodePtr cwd = slot.cwd();
    if (!cwd)
        cwd = tree.root;
    NodePtr target;
    if (word.empty()) {
        target = user ? find_node(tree, user->home_dir, tree.root) : nullptr;
        if (!target || !target->is_dir())
            target = cwd;
    } else if (word == ".") {
        target = cwd;
    } else if (word == "..") {
        target = cwd->parent_node();
        if (!target)
            return strf("%s: does not exist\r\n", word.c_str());
        if (!can_read(user, *target))
            return strf("%s: permission denied\r\n", word.c_str());
    } else if (word == "/" || word == "\\") {
        target = tree.root;
    } else {
        bool is_path = word.find_first_of("/\\") != std::string::npos;
        target = is_path ? find_node(tree, word, cwd) : find_child(*cwd, word);
        if (!target)
            return strf("%s: does not exist\r\n", word.c_str());
        if (!target->is_dir())
            return strf("%s: not a directory\r\n", word.c_str());
        if (!can_read(user, *target))
            return strf("%s: permission denied\r\n", word.c_str());
    }
    slot.set_cwd(target);
    return strf("Local directory now: %s\r\n", node_virtual_path(*target, '\\').c_str());
}

} // namespace orv::client
