#include "ftpd/modern_paths.hpp"

#include "core/server.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"
#include "vfs/live_tree.hpp"

#include <fcntl.h>
#include <shared_mutex>
#include <unistd.h>

namespace orv {

namespace {

bool is_separator(char c) {
    return c == '\\' || c == '/';
}

} // namespace

NodePtr resolve_path(const Server& server, const User* user, const NodePtr& cwd,
                     std::string_view path) {
    if (!user || !server.vfs || path.empty())
        return nullptr;
    if (!cwd && !is_separator(path.front()))
        return nullptr;
    return find_node(*server.vfs, path, cwd);
}

void live_refresh(Server& server, const ConnSlot& slot, std::string_view path) {
    if (server.settings.ext.live_tree)
        refresh_along(server, slot.cwd(), path);
}

NewEntry resolve_new_entry(const Server& server, const User* user, const NodePtr& cwd,
                           std::string_view path) {
    NewEntry out;
    // A trailing separator names the same entry.
    while (path.size() > 1 && is_separator(path.back()))
        path.remove_suffix(1);
    size_t cut = path.find_last_of("\\/");
    if (cut == std::string_view::npos) {
        out.name = std::string(path);
        out.dir = user && server.vfs ? cwd : nullptr;
        return out;
    }
    out.name = std::string(path.substr(cut + 1));
    out.dir = resolve_path(server, user, cwd, cut == 0 ? path.substr(0, 1) : path.substr(0, cut));
    if (out.dir && !out.dir->is_dir())
        out.dir = nullptr;
    return out;
}

bool is_mount_root(const VfsNode& node) {
    if (!node.mount)
        return false;
    NodePtr parent = node.parent_node();
    return !parent || parent->mount != node.mount;
}

bool host_stat(const HostPath& path, struct stat& st) {
    if (path.empty())
        return false;
    int fd = open_beneath(path.base, path.relative, O_PATH);
    if (fd < 0)
        return false;
    bool ok = ::fstat(fd, &st) == 0;
    ::close(fd);
    return ok;
}

bool node_stat(const Server& server, const VfsNode& node, struct stat& st) {
    HostPath path;
    {
        std::shared_lock lock(server.tree_mutex);
        if (!server.vfs)
            return false;
        path = node_host_path(*server.vfs, node);
    }
    return host_stat(path, st);
}

std::string utc_stamp(std::time_t t) {
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    return strf("%04d%02d%02d%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec);
}

bool parse_utc_stamp(std::string_view text, std::time_t& out) {
    if (text.size() != 14)
        return false;
    for (char c : text)
        if (c < '0' || c > '9')
            return false;
    auto num = [&](size_t at, size_t n) {
        int v = 0;
        for (size_t i = at; i < at + n; ++i)
            v = v * 10 + (text[i] - '0');
        return v;
    };
    std::tm tm{};
    tm.tm_year = num(0, 4) - 1900;
    tm.tm_mon = num(4, 2) - 1;
    tm.tm_mday = num(6, 2);
    tm.tm_hour = num(8, 2);
    tm.tm_min = num(10, 2);
    tm.tm_sec = num(12, 2);
    if (tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 ||
        tm.tm_min > 59 || tm.tm_sec > 60)
        return false;
    out = ::timegm(&tm);
    return true;
}

std::string ls_date(std::time_t t, std::time_t now) {
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    constexpr std::time_t kSixMonths = 182 * 24 * 3600;
    if (t > now - kSixMonths && t < now + 3600)
        return strf("%s %2d %02d:%02d", kMonths[tm.tm_mon], tm.tm_mday, tm.tm_hour, tm.tm_min);
    return strf("%s %2d  %d", kMonths[tm.tm_mon], tm.tm_mday, tm.tm_year + 1900);
}

unsigned node_mode(const VfsNode& node) {
    unsigned mode = 0;
    for (size_t i = 0; i < node.flags.size(); ++i)
        if (node.flags[i])
            mode |= 1u << (8 - i);
    return mode;
}

} // namespace orv
