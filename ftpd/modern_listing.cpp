#include "ftpd/modern_listing.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/ftps.hpp"
#include "ftpd/modern_paths.hpp"
#include "ftpd/modern_session.hpp"
#include "ftpd/replies.hpp"
#include "platform/files.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"

#include <fcntl.h>
#include <shared_mutex>
#include <unistd.h>

namespace orv {

ListedEntry listed_entry(const VfsNode& node) {
    ListedEntry e;
    e.name = node.name;
    e.kind = node.is_dir() ? 'd' : '-';
    e.flags = node.flags;
    e.owner = node.owner ? node.owner->name : "root";
    e.group = node.group ? node.group->name : "none";
    e.size = node.size;
    if (node.is_dir()) {
        e.links = 2;
        for (const NodePtr& child : node.children)
            e.links += child->is_dir() ? 1 : 0;
    }
    return e;
}

namespace {

ListedEntry entry_of(const User* user, const VfsNode& node, std::string shown, ListingKind kind) {
    ListedEntry e = listed_entry(node);
    e.name = std::move(shown);
    if (kind == ListingKind::Machine)
        e.perm = perm_fact(user, node);
    return e;
}

std::string missing(const std::string& path) {
    return strf(ftp_text::kListMissingFmt, path.c_str());
}

bool has_fact(const std::string& facts, const char* name) {
    std::string want = to_upper_ascii(name);
    std::string all = to_upper_ascii(facts);
    size_t at = 0;
    while (at < all.size()) {
        size_t end = all.find(';', at);
        if (end == std::string::npos)
            end = all.size();
        if (all.compare(at, end - at, want) == 0)
            return true;
        at = end + 1;
    }
    return false;
}

} // namespace

std::string perm_fact(const User* user, const VfsNode& node) {
    NodePtr parent = node.parent_node();
    bool removable = parent && can_write(user, *parent) && !is_mount_root(node);
    std::string p;
    if (node.is_dir()) {
        if (can_read(user, node))
            p += "el";
        if (can_write(user, node))
            p += "cmp";
    } else {
        if (can_read_path(user, node))
            p += 'r';
        if (can_write(user, node))
            p += "aw";
    }
    if (removable)
        p += "df";
    return p;
}

std::string listing_path(std::string argument) {
    std::string_view rest = trim_blanks(argument);
    // Options come first ("-la /pub"); a name starting with "-" can still be reached as "./-x".
    while (!rest.empty() && rest.front() == '-') {
        size_t blank = rest.find(' ');
        rest =
            blank == std::string_view::npos ? std::string_view() : trim_blanks(rest.substr(blank));
    }
    if (rest.size() >= 2 && rest.front() == '"' && rest.back() == '"')
        rest = rest.substr(1, rest.size() - 2);
    return std::string(rest);
}

ListedDir collect_listing(const Server& server, const User* user, const NodePtr& cwd,
                          const std::string& path, ListingKind kind) {
    ListedDir out;
    if (!user || !server.vfs || (!cwd && (path.empty() || (path[0] != '/' && path[0] != '\\')))) {
        out.refusal = ftp_text::kListDenied;
        return out;
    }
    std::string_view last = path;
    size_t cut = path.find_last_of("\\/");
    if (cut != std::string::npos)
        last = std::string_view(path).substr(cut + 1);
    NodePtr node = path.empty() ? cwd : resolve_path(server, user, cwd, path);
    if (!node && kind != ListingKind::Machine && has_wildcard(last)) {
        // A pattern in the last component lists the matching entries of its directory.
        NodePtr dir = cut == std::string::npos
                          ? cwd
                          : resolve_path(server, user, cwd,
                                         cut == 0 ? std::string_view("/")
                                                  : std::string_view(path).substr(0, cut));
        if (!dir || !dir->is_dir()) {
            out.refusal = missing(path);
            return out;
        }
        if (!can_read(user, *dir)) {
            out.refusal = ftp_text::kListDenied;
            return out;
        }
        out.dir = node_host_path(*server.vfs, *dir);
        for (const NodePtr& child : dir->children)
            if (wildcard_match(child->name, last))
                out.entries.push_back(entry_of(user, *child, child->name, kind));
        if (out.entries.empty())
            out.refusal = missing(path);
        return out;
    }
    if (!node) {
        out.refusal = missing(path);
        return out;
    }
    if (node->is_dir()) {
        if (!can_read(user, *node)) {
            out.refusal = ftp_text::kListDenied;
            return out;
        }
        out.dir = node_host_path(*server.vfs, *node);
        out.entries.reserve(node->children.size());
        for (const NodePtr& child : node->children)
            out.entries.push_back(entry_of(user, *child, child->name, kind));
        return out;
    }
    if (kind == ListingKind::Machine) {
        out.refusal = "501 Not a directory.\r\n";
        return out;
    }
    // A file is listed on its own, as its directory's reader would see it.
    NodePtr parent = node->parent_node();
    if (!parent || !can_read(user, *parent)) {
        out.refusal = ftp_text::kListDenied;
        return out;
    }
    out.dir = node_host_path(*server.vfs, *parent);
    out.entries.push_back(
        entry_of(user, *node, kind == ListingKind::Names ? path : node->name, kind));
    return out;
}

std::string ls_line(const ListedEntry& e, const struct stat* st, std::time_t now) {
    static constexpr char kLetters[] = "rwxrwxrwx";
    std::string flags;
    for (size_t i = 0; i < e.flags.size(); ++i)
        flags += e.flags[i] ? kLetters[i] : '-';
    long long size = st ? static_cast<long long>(st->st_size) : e.size;
    std::time_t when = st ? st->st_mtime : now;
    return strf("%c%s %3d %-8s %-8s %12lld %s %s\r\n", e.kind, flags.c_str(), e.links,
                e.owner.c_str(), e.group.c_str(), size, ls_date(when, now).c_str(), e.name.c_str());
}

std::string mlsx_line(const ListedEntry& e, const struct stat* st, const std::string& facts) {
    std::string out;
    if (has_fact(facts, "type"))
        out += e.kind == 'd' ? "type=dir;" : "type=file;";
    if (has_fact(facts, "size"))
        out += strf("size=%lld;", st ? static_cast<long long>(st->st_size) : e.size);
    if (st && has_fact(facts, "modify"))
        out += "modify=" + utc_stamp(st->st_mtime) + ";";
    if (has_fact(facts, "perm"))
        out += "perm=" + e.perm + ";";
    if (has_fact(facts, "UNIX.mode")) {
        unsigned mode = 0;
        for (size_t i = 0; i < e.flags.size(); ++i)
            if (e.flags[i])
                mode |= 1u << (8 - i);
        out += strf("UNIX.mode=0%o;", mode);
    }
    if (has_fact(facts, "UNIX.owner"))
        out += "UNIX.owner=" + e.owner + ";";
    if (has_fact(facts, "UNIX.group"))
        out += "UNIX.group=" + e.group + ";";
    if (st && has_fact(facts, "unique"))
        out += strf("unique=%llxg%llx;", static_cast<unsigned long long>(st->st_dev),
                    static_cast<unsigned long long>(st->st_ino));
    out += ' ';
    out += e.name;
    out += "\r\n";
    return out;
}

std::string render_listing(const ListedDir& dir, ListingKind kind, const std::string& facts) {
    std::string out;
    int dir_fd = kind == ListingKind::Names || dir.dir.empty()
                     ? -1
                     : open_beneath(dir.dir.base, dir.dir.relative, O_PATH | O_DIRECTORY);
    std::time_t now = std::time(nullptr);
    for (const ListedEntry& e : dir.entries) {
        if (kind == ListingKind::Names) {
            out += e.name;
            out += "\r\n";
            continue;
        }
        struct stat st {};
        // The name is one component of the tree: it cannot lead out of the directory.
        bool have = dir_fd >= 0 && e.name.find('/') == std::string::npos &&
                    ::fstatat(dir_fd, e.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
        out += kind == ListingKind::Long ? ls_line(e, have ? &st : nullptr, now)
                                         : mlsx_line(e, have ? &st : nullptr, facts);
    }
    if (dir_fd >= 0)
        ::close(dir_fd);
    return out;
}

void modern_list_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                        ListingKind kind) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->checked_user();
    std::string path =
        kind == ListingKind::Machine ? std::string(trim_blanks(job.arg)) : listing_path(job.arg);
    ListedDir dir;
    live_refresh(server, *slot, path);
    {
        std::shared_lock lock(server.tree_mutex);
        dir = collect_listing(server, user.get(), slot->cwd(), path, kind);
    }
    const char* name = kind == ListingKind::Long    ? "LIST"
                       : kind == ListingKind::Names ? "NLST"
                                                    : "MLSD";
    if (!dir.refusal.empty()) {
        finish_command(*slot, dir.refusal);
        log_thread_complete(server, job.socket, name);
        return;
    }
    std::string data = render_listing(dir, kind, slot->ftp_extras->mlst_facts);
    DataLink link = open_data_link(server, *slot, job, -1);
    if (link.fd >= 0) {
        link_send_all(link, data, &slot->stop);
        close_link(link);
        if (slot->ftp_extras->abort.exchange(false)) {
            slot->send_text("426 Connection closed; transfer aborted.\r\n");
            if (slot->control_open())
                slot->stop = 0;
            finish_command(*slot, "226 ABOR command successful.\r\n");
        } else {
            finish_command(*slot, ftp_text::kTransferComplete);
        }
    } else {
        finish_command(*slot, "");
    }
    log_thread_complete(server, job.socket, name);
}

std::string mlst_reply(Server& server, ConnSlot& slot, const std::string& path) {
    std::shared_ptr<User> user = slot.checked_user();
    ListedEntry entry;
    HostPath host;
    live_refresh(server, slot, path);
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr cwd = slot.cwd();
        NodePtr node =
            path.empty() ? (user ? cwd : nullptr) : resolve_path(server, user.get(), cwd, path);
        if (!node)
            return missing(path);
        // Facts about an entry are what its directory's listing shows: read on that directory.
        NodePtr parent = node->parent_node();
        if (!can_read(user.get(), parent ? *parent : *node))
            return ftp_text::kListDenied;
        entry = entry_of(user.get(), *node, path.empty() ? node_virtual_path(*node, '/') : path,
                         ListingKind::Machine);
        host = node_host_path(*server.vfs, *node);
    }
    struct stat st {};
    bool have = host_stat(host, st);
    return "250-Listing " + entry.name + "\r\n " +
           mlsx_line(entry, have ? &st : nullptr, slot.ftp_extras->mlst_facts) + "250 End\r\n";
}

std::string stat_path_reply(Server& server, ConnSlot& slot, const std::string& path) {
    std::shared_ptr<User> user = slot.checked_user();
    ListedDir dir;
    live_refresh(server, slot, listing_path(path));
    {
        std::shared_lock lock(server.tree_mutex);
        dir =
            collect_listing(server, user.get(), slot.cwd(), listing_path(path), ListingKind::Long);
    }
    if (!dir.refusal.empty())
        return dir.refusal;
    std::string body = render_listing(dir, ListingKind::Long, "");
    // A line of the listing that starts with a digit would read as the reply's end.
    std::string out = "213-Status of " + path + ":\r\n";
    size_t at = 0;
    while (at < body.size()) {
        size_t end = body.find("\r\n", at);
        out += ' ';
        out.append(body, at, end - at + 2);
        at = end + 2;
    }
    return out + "213 End of status\r\n";
}

} // namespace orv
