#include "sshd/sftp_files.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/ftp_context.hpp"
#include "ftpd/modern_listing.hpp"
#include "ftpd/modern_paths.hpp"
#include "ftpd/transfers.hpp"
#include "platform/files.hpp"
#include "platform/staged_file.hpp"
#include "vfs/busy_mark.hpp"
#include "vfs/entry_rules.hpp"
#include "vfs/host_files.hpp"
#include "vfs/live_tree.hpp"

#include <cerrno>
#include <fcntl.h>
#include <shared_mutex>
#include <string>
#include <unistd.h>

namespace orv::sftp {

struct Files::Handle {
    enum class Kind { reading, writing, directory } kind = Kind::reading;
    NodePtr node; // the file read, or the file an upload replaces; both carry a busy mark
    int fd = -1;  // the file read; for an upload opened to read as well, the staged file
    // Uploads: the directory and name the staged file goes to when the handle closes.
    NodePtr dir;
    std::string name;
    std::unique_ptr<StagedFile> staged;
    bool append = false;
    bool failed = false;
    bool set_mode = false; // permissions given for the new file, applied once it exists
    uint32_t mode = 0;
    long long bytes = 0;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    // Directories: the entries taken when it was opened, handed out in order.
    std::vector<NameEntry> names;
    size_t next = 0;
};

namespace {

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

uint32_t wire_id(int16_t id) {
    return static_cast<uint16_t>(id);
}

std::string without_line_end(std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    return line;
}

void apply_mode(VfsNode& node, uint32_t mode) {
    for (size_t i = 0; i < node.flags.size(); ++i)
        node.flags[i] = (mode >> (8 - i)) & 1u;
}

bool is_below(const NodePtr& node, const NodePtr& ancestor) {
    for (NodePtr n = node; n; n = n->parent_node())
        if (n == ancestor)
            return true;
    return false;
}

// Copies a file's bytes into the staged copy, so that an upload that does not truncate edits
// the old contents without ever showing a half-written file.
bool copy_contents(int from, int to) {
    for (;;) {
        ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
        if (n == 0)
            return true;
        if (n > 0)
            continue;
        if (errno == EINTR)
            continue;
        break;
    }
    // Some file systems cannot copy in the kernel: move the bytes by hand.
    std::vector<char> buf(1 << 16);
    for (;;) {
        ssize_t n = ::read(from, buf.data(), buf.size());
        if (n == 0)
            return true;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        for (ssize_t done = 0; done < n;) {
            ssize_t w = ::write(to, buf.data() + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                return false;
            done += w;
        }
    }
}

bool set_host_times(const HostPath& host, uint32_t atime, uint32_t mtime) {
    HostPath dir;
    std::string name;
    if (host.empty() || !split_host_path(host, dir, name))
        return false;
    int fd = open_host_dir(dir);
    if (fd < 0)
        return false;
    timespec times[2] = {{static_cast<time_t>(atime), 0}, {static_cast<time_t>(mtime), 0}};
    bool ok = ::utimensat(fd, name.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
    ::close(fd);
    return ok;
}

} // namespace

Attrs node_attrs(const VfsNode& node) {
    Attrs a;
    a.flags = kAttrSize | kAttrUidGid | kAttrPermissions;
    a.size = node.size;
    a.uid = node.owner ? wire_id(node.owner->uid) : 0;
    a.gid = node.group ? wire_id(node.group->gid) : 0;
    a.permissions = (node.is_dir() ? S_IFDIR : S_IFREG) | node_mode(node);
    return a;
}

void add_host_facts(Attrs& attrs, const struct stat& st) {
    if (S_ISREG(st.st_mode))
        attrs.size = static_cast<uint64_t>(st.st_size);
    attrs.flags |= kAttrTimes;
    attrs.atime = static_cast<uint32_t>(st.st_atime);
    attrs.mtime = static_cast<uint32_t>(st.st_mtime);
}

std::string long_name(const VfsNode& node, const struct stat* st, std::time_t now) {
    return without_line_end(ls_line(listed_entry(node), st, now));
}

std::string normal_path(std::string_view base, std::string_view path) {
    std::vector<std::string_view> parts;
    auto add = [&](std::string_view text) {
        size_t at = 0;
        while (at <= text.size()) {
            size_t end = at;
            while (end < text.size() && !is_separator(text[end]))
                ++end;
            std::string_view part = text.substr(at, end - at);
            if (part == "..") {
                if (!parts.empty())
                    parts.pop_back();
            } else if (!part.empty() && part != ".") {
                parts.push_back(part);
            }
            at = end + 1;
        }
    };
    if (path.empty() || !is_separator(path.front()))
        add(base);
    add(path);
    std::string out;
    for (std::string_view p : parts) {
        out += '/';
        out += p;
    }
    return out.empty() ? "/" : out;
}

Files::Files(Server& server, SlotPtr slot, std::shared_ptr<FtpContext> marks)
    : server_(server), slot_(std::move(slot)), marks_(std::move(marks)) {}

Files::~Files() {
    for (auto& [id, h] : handles_)
        end(*h);
}

Files::Handle* Files::find(std::string_view handle) {
    auto it = handles_.find(handle);
    return it == handles_.end() ? nullptr : it->second.get();
}

std::string Files::add(std::unique_ptr<Handle> h) {
    std::string id = std::to_string(next_handle_++);
    handles_.emplace(id, std::move(h));
    return id;
}

void Files::refresh(std::string_view path) {
    if (server_.settings.ext.live_tree)
        refresh_along(server_, slot_->cwd(), path);
}

// Tree lock held. Nothing resolves before a completed login.
NodePtr Files::resolve(std::string_view path) {
    std::shared_ptr<User> user = slot_->checked_user();
    if (!user || !server_.vfs)
        return nullptr;
    NodePtr cwd = slot_->cwd();
    std::string base = cwd ? node_virtual_path(*cwd, '/') : "/";
    return find_node(*server_.vfs, normal_path(base, path), server_.vfs->root);
}

Status Files::open(std::string_view path, uint32_t flags, std::string& handle) {
    if (handles_.size() >= kMaxHandles)
        return kFailure;
    refresh(path);
    std::shared_ptr<User> user = slot_->checked_user();
    auto h = std::make_unique<Handle>();
    if (!(flags & (kOpenWrite | kOpenAppend))) {
        HostPath host;
        {
            std::shared_lock lock(server_.tree_mutex);
            NodePtr node = resolve(path);
            if (!node)
                return kNoSuchFile;
            if (node->is_dir())
                return kFailure;
            if (!can_read_path(user.get(), *node))
                return kPermissionDenied;
            host = node_host_path(*server_.vfs, *node);
            marks_->busy.acquire(node);
            h->node = node;
        }
        h->fd = open_for_sending(host);
        if (h->fd < 0) {
            marks_->busy.release(h->node);
            return kFailure;
        }
        handle = add(std::move(h));
        return kOk;
    }

    HostPath dir;
    {
        std::shared_lock lock(server_.tree_mutex);
        NewEntry target;
        if (user && server_.vfs) {
            NodePtr cwd = slot_->cwd();
            std::string base = cwd ? node_virtual_path(*cwd, '/') : "/";
            target =
                resolve_new_entry(server_, user.get(), server_.vfs->root, normal_path(base, path));
        }
        if (!target.dir)
            return kNoSuchFile;
        NodePtr existing = find_child(*target.dir, target.name);
        if (existing) {
            if (existing->is_dir() || ((flags & kOpenCreate) && (flags & kOpenExclusive)))
                return kFailure;
            if (existing->status.load() != kStatusNormal)
                return kFailure; // in use by a transfer or a copy
            if ((flags & kOpenRead) && !can_read_path(user.get(), *existing))
                return kPermissionDenied;
        } else if (!(flags & kOpenCreate)) {
            return kNoSuchFile;
        }
        if (claim_upload_target(*marks_, user.get(), target.dir, target.name, existing, dir))
            return kPermissionDenied;
        h->node = existing;
        h->dir = target.dir;
        h->name = target.name;
    }
    h->kind = Handle::Kind::writing;
    h->append = (flags & kOpenAppend) != 0;
    h->staged = std::make_unique<StagedFile>();
    bool ok = !dir.empty() && h->staged->open(dir.base, dir.relative, h->name);
    if (ok && h->node && !(flags & kOpenTruncate)) {
        int old = open_host_file(child_host_path(dir, h->name));
        ok = old >= 0 && copy_contents(old, h->staged->fd());
        if (old >= 0)
            ::close(old);
    }
    if (ok && (flags & kOpenRead)) {
        // The staged file is open for writing only; reads go through a second descriptor.
        std::string self = "/proc/self/fd/" + std::to_string(h->staged->fd());
        h->fd = ::open(self.c_str(), O_RDONLY | O_CLOEXEC);
        ok = h->fd >= 0;
    }
    if (!ok) {
        end(*h);
        return kFailure;
    }
    handle = add(std::move(h));
    return kOk;
}

Status Files::read(std::string_view handle, uint64_t offset, uint32_t len, char* out, size_t& got) {
    got = 0;
    Handle* h = find(handle);
    if (!h || h->fd < 0)
        return kFailure;
    if (offset > static_cast<uint64_t>(INT64_MAX))
        return kEof;
    len = std::min(len, kMaxReadChunk);
    while (got < len) {
        ssize_t n = ::pread(h->fd, out + got, len - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return got > 0 ? kOk : kFailure;
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    if (got == 0 && len > 0)
        return kEof;
    if (h->kind == Handle::Kind::reading)
        h->bytes += static_cast<long long>(got);
    return kOk;
}

Status Files::write(std::string_view handle, uint64_t offset, std::string_view data) {
    Handle* h = find(handle);
    if (!h || h->kind != Handle::Kind::writing)
        return kFailure;
    if (h->failed)
        return kFailure;
    int fd = h->staged->fd();
    if (h->append) {
        struct stat st {};
        if (::fstat(fd, &st) != 0)
            return kFailure;
        offset = static_cast<uint64_t>(st.st_size);
    }
    if (offset > static_cast<uint64_t>(INT64_MAX) - data.size())
        return kFailure;
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n =
            ::pwrite(fd, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            // A full disk: the upload can no longer be stored whole.
            h->failed = true;
            return kFailure;
        }
        done += static_cast<size_t>(n);
    }
    h->bytes += static_cast<long long>(done);
    return kOk;
}

// Puts a complete upload in place and into the tree, under the exclusive tree lock so that
// the two agree. Nothing is stored when the directory has left the tree meanwhile or the name
// has become a directory.
Status Files::finish_upload(Handle& h) {
    if (h.failed)
        return kFailure;
    struct stat st {};
    if (::fstat(h.staged->fd(), &st) != 0)
        return kFailure;
    std::shared_ptr<User> user = slot_->checked_user();
    std::unique_lock lock(server_.tree_mutex);
    if (!server_.vfs || node_host_path(*server_.vfs, *h.dir).empty())
        return kFailure;
    NodePtr now = find_child(*h.dir, h.name);
    if ((now && now->is_dir()) || !h.staged->commit())
        return kFailure;
    uint32_t size = static_cast<uint32_t>(st.st_size);
    if (now) {
        now->size = size; // overwritten, or stored by another session meanwhile
    } else {
        now = add_node(*server_.vfs, *server_.accounts, h.dir, h.name, '-', size, user,
                       &server_.memory_allocated);
        if (!now)
            return kFailure;
    }
    if (h.set_mode && may_change_owner_fields(user.get(), *now))
        apply_mode(*now, h.mode);
    return kOk;
}

// Lets go of everything a handle holds; an upload not yet put in place is thrown away.
void Files::end(Handle& h) {
    if (h.fd >= 0)
        ::close(h.fd);
    h.fd = -1;
    if (h.staged)
        h.staged->discard();
    if (h.node && h.kind != Handle::Kind::directory)
        marks_->busy.release(h.node);
    h.node.reset();
    if (h.kind != Handle::Kind::directory && h.bytes > 0)
        server_.log_message(rate_line(slot_->socket.load(), h.bytes,
                                      transfer_seconds(std::chrono::steady_clock::now() - h.start),
                                      h.kind == Handle::Kind::writing ? "received" : "sent"));
    h.bytes = 0;
}

Status Files::close(std::string_view handle) {
    auto it = handles_.find(handle);
    if (it == handles_.end())
        return kFailure;
    std::unique_ptr<Handle> h = std::move(it->second);
    handles_.erase(it);
    Status status = kOk;
    if (h->kind == Handle::Kind::writing) {
        if (h->fd >= 0) {
            ::close(h->fd);
            h->fd = -1;
        }
        status = finish_upload(*h);
    }
    end(*h);
    return status;
}

Status Files::opendir(std::string_view path, std::string& handle) {
    if (handles_.size() >= kMaxHandles)
        return kFailure;
    refresh(path);
    std::shared_ptr<User> user = slot_->checked_user();
    auto h = std::make_unique<Handle>();
    h->kind = Handle::Kind::directory;
    std::vector<HostPath> hosts;
    std::vector<ListedEntry> listed;
    {
        std::shared_lock lock(server_.tree_mutex);
        NodePtr node = resolve(path);
        if (!node)
            return kNoSuchFile;
        if (!node->is_dir())
            return kFailure;
        // Listing a directory needs read permission on it, whatever path names it.
        if (!can_read(user.get(), *node))
            return kPermissionDenied;
        for (const NodePtr& child : node->children) {
            h->names.push_back({child->name, {}, node_attrs(*child)});
            listed.push_back(listed_entry(*child));
            hosts.push_back(node_host_path(*server_.vfs, *child));
        }
    }
    // The host is asked about each entry with the tree lock released.
    std::time_t now = std::time(nullptr);
    for (size_t i = 0; i < h->names.size(); ++i) {
        struct stat st {};
        bool known = host_stat(hosts[i], st);
        if (known)
            add_host_facts(h->names[i].attrs, st);
        h->names[i].long_name = without_line_end(ls_line(listed[i], known ? &st : nullptr, now));
    }
    handle = add(std::move(h));
    return kOk;
}

Status Files::readdir(std::string_view handle, std::vector<NameEntry>& out) {
    out.clear();
    Handle* h = find(handle);
    if (!h || h->kind != Handle::Kind::directory)
        return kFailure;
    if (h->next >= h->names.size())
        return kEof;
    size_t end = std::min(h->names.size(), h->next + kNamesPerRead);
    for (; h->next < end; ++h->next)
        out.push_back(std::move(h->names[h->next]));
    return kOk;
}

Status Files::stat(std::string_view path, Attrs& out) {
    refresh(path);
    std::shared_ptr<User> user = slot_->checked_user();
    HostPath host;
    {
        std::shared_lock lock(server_.tree_mutex);
        NodePtr node = resolve(path);
        if (!node)
            return kNoSuchFile;
        // As for a file's time over FTP: its directory or the node itself must be readable.
        NodePtr parent = node->parent_node();
        if (!can_read(user.get(), parent ? *parent : *node) && !can_read_path(user.get(), *node))
            return kPermissionDenied;
        out = node_attrs(*node);
        host = node_host_path(*server_.vfs, *node);
    }
    struct stat st {};
    if (host_stat(host, st))
        add_host_facts(out, st);
    return kOk;
}

Status Files::fstat(std::string_view handle, Attrs& out) {
    Handle* h = find(handle);
    if (!h || h->kind == Handle::Kind::directory)
        return kFailure;
    {
        std::shared_lock lock(server_.tree_mutex);
        if (h->node)
            out = node_attrs(*h->node);
        else
            out.flags = kAttrSize | kAttrPermissions;
    }
    int fd = h->kind == Handle::Kind::writing ? h->staged->fd() : h->fd;
    struct stat st {};
    if (::fstat(fd, &st) == 0) {
        add_host_facts(out, st);
        if (!h->node)
            out.permissions = S_IFREG | (h->set_mode ? h->mode & 0777u : st.st_mode & 0777u);
    }
    return kOk;
}

// The permissions become the node's nine flags (for its owner or a super user, as chmod); the
// times become the host file's (for a user who may write it). A size is only changed on an
// upload's own handle, where the staged copy takes it. Owners are changed by the shell's chown.
Status Files::change_attrs(const NodePtr& node, const Attrs& attrs, Handle* open) {
    std::shared_ptr<User> user = slot_->checked_user();
    HostPath host;
    {
        std::unique_lock lock(server_.tree_mutex);
        if (attrs.flags & kAttrUidGid) {
            Attrs now = node ? node_attrs(*node) : Attrs{};
            if (!node || now.uid != attrs.uid || now.gid != attrs.gid)
                return kOpUnsupported;
        }
        if ((attrs.flags & kAttrSize) && !open)
            return kOpUnsupported;
        if (node && (attrs.flags & kAttrPermissions) && !may_change_owner_fields(user.get(), *node))
            return kPermissionDenied;
        if (node && (attrs.flags & kAttrTimes) && !open && !can_write(user.get(), *node))
            return kPermissionDenied;
        if (node && (attrs.flags & kAttrPermissions))
            apply_mode(*node, attrs.permissions);
        if (node && server_.vfs)
            host = node_host_path(*server_.vfs, *node);
    }
    if (open) {
        int fd = open->staged->fd();
        if ((attrs.flags & kAttrSize) &&
            ::ftruncate(fd, static_cast<off_t>(std::min<uint64_t>(attrs.size, INT64_MAX))) != 0)
            return kFailure;
        if (attrs.flags & kAttrPermissions) {
            open->set_mode = true;
            open->mode = attrs.permissions & 0777u;
        }
        if (attrs.flags & kAttrTimes) {
            // The staged copy takes the times and keeps them when it is put in place.
            timespec times[2] = {{static_cast<time_t>(attrs.atime), 0},
                                 {static_cast<time_t>(attrs.mtime), 0}};
            if (::futimens(fd, times) != 0)
                return kFailure;
        }
        return kOk;
    }
    if ((attrs.flags & kAttrTimes) && !set_host_times(host, attrs.atime, attrs.mtime))
        return kFailure;
    return kOk;
}

Status Files::setstat(std::string_view path, const Attrs& attrs) {
    refresh(path);
    NodePtr node;
    {
        std::shared_lock lock(server_.tree_mutex);
        node = resolve(path);
    }
    if (!node)
        return kNoSuchFile;
    return change_attrs(node, attrs, nullptr);
}

Status Files::fsetstat(std::string_view handle, const Attrs& attrs) {
    Handle* h = find(handle);
    if (!h || h->kind == Handle::Kind::directory)
        return kFailure;
    if (h->kind == Handle::Kind::reading)
        return h->node ? change_attrs(h->node, attrs, nullptr) : kFailure;
    return change_attrs(h->node, attrs, h);
}

Status Files::mkdir(std::string_view path) {
    refresh(path);
    std::shared_ptr<User> user = slot_->checked_user();
    NewEntry target;
    HostPath host;
    {
        std::shared_lock lock(server_.tree_mutex);
        if (user && server_.vfs) {
            NodePtr cwd = slot_->cwd();
            std::string base = cwd ? node_virtual_path(*cwd, '/') : "/";
            target =
                resolve_new_entry(server_, user.get(), server_.vfs->root, normal_path(base, path));
        }
        if (!target.dir)
            return kNoSuchFile;
        if (find_child(*target.dir, target.name))
            return kFailure;
        if (!valid_new_name(target.name) || !virtual_path_fits(*target.dir, target.name) ||
            !can_write(user.get(), *target.dir))
            return kPermissionDenied;
        host = child_host_path(node_host_path(*server_.vfs, *target.dir), target.name);
    }
    if (!make_host_dir(host))
        return kFailure;
    std::unique_lock lock(server_.tree_mutex);
    if (server_.vfs && !find_child(*target.dir, target.name))
        add_node(*server_.vfs, *server_.accounts, target.dir, target.name, 'd', 0, user,
                 &server_.memory_allocated);
    return kOk;
}

Status Files::rmdir(std::string_view path) {
    refresh(path);
    std::shared_ptr<User> user = slot_->checked_user();
    NodePtr node;
    HostPath host;
    {
        // Exclusive: the checks and the busy mark must not interleave with another command's.
        std::unique_lock lock(server_.tree_mutex);
        node = resolve(path);
        if (!node)
            return kNoSuchFile;
        if (!node->is_dir())
            return kFailure;
        // A mount point is never removed: that would remove the mounted host directory.
        NodePtr parent = node->parent_node();
        if (!parent || is_mount_point(*node) || !can_read(user.get(), *node) ||
            !can_write(user.get(), *node) || !may_take_out(user.get(), *node))
            return kPermissionDenied;
        if (!node->children.empty())
            return kFailure;
        if (!try_mark_busy(*node))
            return kFailure;
        host = node_host_path(*server_.vfs, *node);
    }
    if (!remove_host_dir(host)) {
        clear_busy(*node);
        return kFailure;
    }
    std::unique_lock lock(server_.tree_mutex);
    unlink_node(node, &server_.memory_allocated);
    return kOk;
}

Status Files::remove(std::string_view path) {
    refresh(path);
    std::shared_ptr<User> user = slot_->checked_user();
    NodePtr node;
    HostPath host;
    {
        std::unique_lock lock(server_.tree_mutex);
        node = resolve(path);
        if (!node)
            return kNoSuchFile;
        if (node->is_dir())
            return kFailure;
        // Taking a file out of its directory needs write permission on both, as DELE does.
        if (!may_take_out(user.get(), *node) || !can_write(user.get(), *node))
            return kPermissionDenied;
        // A file in use by a transfer or a copy stays.
        if (!try_mark_busy(*node))
            return kFailure;
        host = node_host_path(*server_.vfs, *node);
    }
    if (!remove_host_file(host)) {
        clear_busy(*node);
        return kFailure;
    }
    std::unique_lock lock(server_.tree_mutex);
    unlink_node(node, &server_.memory_allocated);
    return kOk;
}

Status Files::rename(std::string_view from, std::string_view to) {
    refresh(from);
    refresh(to);
    std::shared_ptr<User> user = slot_->checked_user();
    // Exclusive: the checks, the host rename and the tree's change go together (a rename is a
    // quick change of the host's directory entries).
    std::unique_lock lock(server_.tree_mutex);
    NodePtr src = resolve(from);
    if (!src)
        return kNoSuchFile;
    NodePtr from_dir = src->parent_node();
    if (!from_dir || is_mount_point(*src) || holds_mount_point(*src) ||
        !may_take_out(user.get(), *src))
        return kPermissionDenied;
    NodePtr cwd = slot_->cwd();
    std::string base = cwd ? node_virtual_path(*cwd, '/') : "/";
    NewEntry target =
        resolve_new_entry(server_, user.get(), server_.vfs->root, normal_path(base, to));
    if (!target.dir)
        return kNoSuchFile;
    if (!valid_new_name(target.name) || !can_write(user.get(), *target.dir))
        return kPermissionDenied;
    NodePtr there = find_child(*target.dir, target.name);
    if (there == src)
        return kOk;
    if (there || (src->is_dir() && is_below(target.dir, src)))
        return kFailure;
    if (src->status.load() != kStatusNormal)
        return kFailure;
    size_t below = src->is_dir() ? depth_below(*src) : 0;
    if (!virtual_path_fits(*target.dir, target.name, below))
        return kFailure;
    HostPath a = node_host_path(*server_.vfs, *src);
    HostPath b = child_host_path(node_host_path(*server_.vfs, *target.dir), target.name);
    if (a.empty() || b.empty() || !rename_host(a, b))
        return kFailure;
    if (target.dir != from_dir)
        relink_node(src, target.dir);
    src->name = target.name;
    return kOk;
}

Status Files::realpath(std::string_view path, std::string& out) {
    std::shared_lock lock(server_.tree_mutex);
    NodePtr cwd = slot_->cwd();
    std::string base = cwd ? node_virtual_path(*cwd, '/') : "/";
    out = normal_path(base, path);
    return kOk;
}

} // namespace orv::sftp
