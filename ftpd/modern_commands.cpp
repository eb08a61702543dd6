#include "ftpd/modern_commands.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/control_connection.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/dispatcher.hpp"
#include "ftpd/fs_commands.hpp"
#include "ftpd/ftps.hpp"
#include "ftpd/login.hpp"
#include "ftpd/modern_listing.hpp"
#include "ftpd/modern_paths.hpp"
#include "ftpd/modern_session.hpp"
#include "ftpd/modern_transfers.hpp"
#include "ftpd/passive.hpp"
#include "ftpd/replies.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"
#include "vfs/busy_mark.hpp"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <shared_mutex>
#include <unistd.h>

namespace orv {

namespace {

constexpr const char* kBadSequence = "503 Bad sequence of commands.\r\n";
constexpr const char* kDenied = "550 Permission denied.\r\n";
constexpr const char* kNameRefused = "553 Requested action not taken. File name not allowed.\r\n";
constexpr size_t kWaitingLimit = 64 * 1024; // lines queued behind a running command

std::string no_such(const std::string& path) {
    return strf("550 %s: No such file or directory.\r\n", log_safe(path).c_str());
}

// The next line: up to a line feed, without the carriage return before it. Telnet's interrupt
// and synch bytes, which some clients put before ABOR, are dropped.
bool take_line(std::string& buffer, std::string& line) {
    size_t lf = buffer.find('\n');
    if (lf == std::string::npos)
        return false;
    line.assign(buffer, 0, lf);
    buffer.erase(0, lf + 1);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    size_t start = 0;
    while (start < line.size() && (static_cast<unsigned char>(line[start]) == 0xff ||
                                   static_cast<unsigned char>(line[start]) == 0xf4 ||
                                   static_cast<unsigned char>(line[start]) == 0xf2))
        ++start;
    line.erase(0, start);
    return true;
}

std::string verb_of(std::string_view line) {
    return to_upper_ascii(line.substr(0, line.find(' ')));
}

// ABOR while a command runs: the transfer sees the stop flag and ends with 426 and 226.
void abort_if_asked(Server& server, ConnSlot& slot) {
    std::string& buffer = slot.line_buf;
    if (!slot.ftp_extras->in_transfer)
        return; // other commands end soon: the ABOR waits its turn
    size_t lf = buffer.find('\n');
    if (lf == std::string::npos)
        return;
    std::string copy = buffer.substr(0, lf + 1);
    std::string line;
    take_line(copy, line);
    if (verb_of(trim_blanks(line)) != "ABOR")
        return;
    buffer.erase(0, lf + 1);
    log_command_line(server, slot, line);
    slot.ftp_extras->abort = true;
    slot.stop = 1;
}

using Body = std::function<void()>;

// A command on a thread of its own; the lines that wait behind it are looked at when it ends.
void spawn(const FtpContextPtr& ctx, const SlotPtr& slot, const char* failure, Body body) {
    bool started = ctx->server.workers.spawn([ctx, slot, body = std::move(body)] {
        body();
        slot->ftp_extras->in_transfer = false;
        // An ABOR that came while a command without data ran is answered here.
        if (slot->ftp_extras->abort.exchange(false)) {
            if (slot->control_open())
                slot->stop = 0;
            slot->send_text("226 ABOR command successful.\r\n");
        }
        if (slot->ftp_extras->wake)
            slot->ftp_extras->wake();
    });
    if (!started)
        ctx->server.log_message(failure);
}

FtpJob job_for(const ConnSlot& slot, std::string arg) {
    return FtpJob{std::move(arg), slot.port_arg, slot.transfer_type.load(), slot.socket.load()};
}

std::string fail_text(const char* verb) {
    return strf("**** Failed to create ftp in %s Thread ****", verb);
}

// The classic bodies of the file-system commands, which already resolve whole paths.
using ClassicBody = void (*)(const FtpContextPtr&, const SlotPtr&, const FtpJob&);
struct ClassicThread {
    const char* verb;
    ClassicBody body;
    const char* name; // in the failure line
};
constexpr ClassicThread kClassicThreads[] = {
    {"CWD", cwd_thread, "CWD"},    {"XCWD", cwd_thread, "CWD"}, {"CDUP", cdup_thread, "CWUP"},
    {"XCUP", cdup_thread, "CWUP"}, {"MKD", mkd_thread, "MKD"},  {"XMKD", mkd_thread, "MKD"},
    {"RMD", rmd_thread, "RMD"},    {"XRMD", rmd_thread, "RMD"},
};

bool parse_offset(std::string_view text, long long& out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size() && out >= 0;
}

long max_depth_below(const VfsNode& node) {
    long deepest = 0;
    for (const NodePtr& child : node.children)
        deepest = std::max<long>(deepest, static_cast<long>(child->name.size()) + 1 +
                                              max_depth_below(*child));
    return deepest;
}

bool is_below(const NodePtr& node, const NodePtr& ancestor) {
    for (NodePtr n = node; n; n = n->parent_node())
        if (n == ancestor)
            return true;
    return false;
}

} // namespace

void start_modern_session(const FtpContextPtr& ctx, const SlotPtr& slot, int socket_number) {
    auto ex = std::make_shared<FtpSessionExtras>();
    ex->peer.size = sizeof ex->peer.storage;
    ::getpeername(socket_number, reinterpret_cast<sockaddr*>(&ex->peer.storage), &ex->peer.size);
    ex->local.size = sizeof ex->local.storage;
    ::getsockname(socket_number, reinterpret_cast<sockaddr*>(&ex->local.storage), &ex->local.size);
    std::weak_ptr<FtpContext> weak_ctx = ctx;
    std::weak_ptr<ConnSlot> weak_slot = slot;
    ex->wake = [weak_ctx, weak_slot] {
        FtpContextPtr c = weak_ctx.lock();
        if (!c)
            return;
        c->server.post([weak_ctx, weak_slot] {
            FtpContextPtr c2 = weak_ctx.lock();
            SlotPtr s = weak_slot.lock();
            if (c2 && s)
                take_waiting_lines(c2, s);
        });
    };
    if (ctx->tls) {
        ex->ftps = std::make_shared<FtpsSession>();
        ex->ftps->require_reuse = ctx->server.settings.ext.tls_session_reuse;
    }
    slot->peer_text = address_text(ex->peer);
    slot->ftp_extras = std::move(ex);
}

void modern_control_read(const FtpContextPtr& ctx, const SlotPtr& slot, const char* data,
                         size_t size) {
    std::string& buffer = slot->line_buf;
    if (buffer.size() + size > kWaitingLimit) {
        slot->send_text(ftp_text::kOverflow);
        close_after(*ctx, slot);
        return;
    }
    buffer.append(data, strnlen(data, size));
    take_waiting_lines(ctx, slot);
}

void take_waiting_lines(const FtpContextPtr& ctx, const SlotPtr& slot) {
    Server& server = ctx->server;
    std::string& buffer = slot->line_buf;
    std::string line;
    while (slot->control_open()) {
        if (slot->state == 10) {
            abort_if_asked(server, *slot);
            break;
        }
        if (!take_line(buffer, line))
            break;
        if (line.empty()) {
            if (slot->state == 3)
                continue;
            server.log.logf("(%i) <nothing>", slot->socket.load());
        } else {
            log_command_line(server, *slot, line);
        }
        ftp_dispatch(ctx, slot, line);
    }
    // One line longer than any command could be: the client is not speaking FTP.
    if (slot->control_open() && buffer.find('\n') == std::string::npos &&
        buffer.size() >= kModernLineLimit) {
        slot->send_text(ftp_text::kOverflow);
        close_after(*ctx, slot);
    }
}

std::string feat_reply(bool tls) {
    return std::string("211-Features:\r\n") + (tls ? " AUTH TLS\r\n" : "") +
           " EPRT\r\n"
           " EPSV\r\n"
           " MDTM\r\n"
           " MFMT\r\n"
           " MLST type*;size*;modify*;perm*;UNIX.mode*;UNIX.owner*;UNIX.group*;unique*;\r\n"
           " PASV\r\n" +
           (tls ? " PBSZ\r\n PROT\r\n" : "") +
           " REST STREAM\r\n"
           " SIZE\r\n"
           " TVFS\r\n"
           " UTF8\r\n"
           "211 End\r\n";
}

std::string help_reply() {
    return "214-The following commands are recognized:\r\n"
           " ABOR APPE CDUP CWD  DELE EPRT EPSV FEAT HELP LIST MDTM MFMT MKD  MLSD MLST MODE\r\n"
           " NLST NOOP OPTS PASS PASV PORT PWD  QUIT REST RETR RMD  RNFR RNTO SIZE STAT STOR\r\n"
           " STRU SYST TYPE USER XCUP XCWD XMKD XPWD XRMD\r\n"
           "214 Help OK.\r\n";
}

std::string opts_reply(ConnSlot& slot, const std::string& arg) {
    std::string upper = to_upper_ascii(arg);
    if (upper == "UTF8 ON" || upper == "UTF-8 ON" || upper == "UTF8")
        return "200 Always in UTF8 mode.\r\n";
    if (upper.rfind("MLST", 0) == 0) {
        std::string facts(trim_blanks(std::string_view(arg).substr(4)));
        slot.ftp_extras->mlst_facts = facts;
        return "200 MLST OPTS " + facts + "\r\n";
    }
    return "501 Option not understood.\r\n";
}

std::string modern_type_reply(const std::string& arg, char& type) {
    std::string upper = to_upper_ascii(arg);
    if (upper == "I" || upper == "L 8" || upper == "L8") {
        type = 'I';
        return "200 TYPE set to I\r\n";
    }
    if (upper == "A" || upper == "A N") {
        type = 'A';
        return "200 TYPE set to A\r\n";
    }
    return strf(ftp_text::kTypeBadFmt, log_safe(arg).c_str());
}

std::string rest_reply(const std::string& arg, long long& rest) {
    long long offset = 0;
    if (!parse_offset(arg, offset))
        return "501 REST needs a byte offset.\r\n";
    rest = offset;
    return strf("350 Restarting at %lld. Send STORE or RETRIEVE to initiate transfer.\r\n", offset);
}

std::string size_reply(Server& server, ConnSlot& slot, const std::string& path) {
    live_refresh(server, slot, path);
    std::shared_ptr<User> user = slot.checked_user();
    HostPath host;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr node = resolve_path(server, user.get(), slot.cwd(), path);
        if (!node || node->is_dir())
            return no_such(path);
        NodePtr parent = node->parent_node();
        if (!can_read_path(user.get(), *node) && !(parent && can_read(user.get(), *parent)))
            return kDenied;
        host = node_host_path(*server.vfs, *node);
    }
    struct stat st {};
    if (!host_stat(host, st))
        return no_such(path);
    return strf("213 %lld\r\n", static_cast<long long>(st.st_size));
}

std::string mdtm_reply(Server& server, ConnSlot& slot, const std::string& path) {
    live_refresh(server, slot, path);
    std::shared_ptr<User> user = slot.checked_user();
    HostPath host;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr node = resolve_path(server, user.get(), slot.cwd(), path);
        if (!node)
            return no_such(path);
        NodePtr parent = node->parent_node();
        if (!can_read(user.get(), parent ? *parent : *node) && !can_read_path(user.get(), *node))
            return kDenied;
        host = node_host_path(*server.vfs, *node);
    }
    struct stat st {};
    if (!host_stat(host, st))
        return no_such(path);
    return "213 " + utc_stamp(st.st_mtime) + "\r\n";
}

std::string mfmt_reply(Server& server, ConnSlot& slot, const std::string& arg) {
    size_t blank = arg.find(' ');
    std::time_t when = 0;
    if (blank == std::string::npos || !parse_utc_stamp(arg.substr(0, blank), when))
        return "501 Syntax: MFMT YYYYMMDDHHMMSS path\r\n";
    std::string path(trim_blanks(std::string_view(arg).substr(blank + 1)));
    live_refresh(server, slot, path);
    std::shared_ptr<User> user = slot.checked_user();
    HostPath dir;
    std::string name;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr node = resolve_path(server, user.get(), slot.cwd(), path);
        NodePtr parent = node ? node->parent_node() : nullptr;
        if (!node || !parent)
            return no_such(path);
        if (!can_write(user.get(), *node))
            return kDenied;
        dir = node_host_path(*server.vfs, *parent);
        name = node->name;
    }
    int fd = dir.empty() ? -1 : open_beneath(dir.base, dir.relative, O_PATH | O_DIRECTORY);
    timespec times[2] = {{0, UTIME_OMIT}, {when, 0}};
    bool ok = fd >= 0 && ::utimensat(fd, name.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
    if (fd >= 0)
        ::close(fd);
    if (!ok)
        return "550 Could not set the modification time.\r\n";
    return "213 Modify=" + utc_stamp(when) + "; " + path + "\r\n";
}

std::string rnfr_reply(Server& server, ConnSlot& slot, const std::string& path) {
    live_refresh(server, slot, path);
    std::shared_ptr<User> user = slot.checked_user();
    std::shared_lock lock(server.tree_mutex);
    slot.ftp_extras->rename_from.reset();
    NodePtr node = resolve_path(server, user.get(), slot.cwd(), path);
    if (!node)
        return no_such(path);
    // Taking an entry out of a directory needs write on it; a mount point stays where it is.
    NodePtr parent = node->parent_node();
    if (!parent || is_mount_root(*node) || !can_write(user.get(), *parent))
        return kDenied;
    slot.ftp_extras->rename_from = node;
    return "350 Ready for destination name.\r\n";
}

std::string rnto_reply(Server& server, ConnSlot& slot, const std::string& path) {
    live_refresh(server, slot, path);
    NodePtr src = slot.ftp_extras->rename_from.lock();
    slot.ftp_extras->rename_from.reset();
    if (!src)
        return kBadSequence;
    std::shared_ptr<User> user = slot.checked_user();
    // Exclusive: the checks, the host rename and the tree's change go together.
    std::unique_lock lock(server.tree_mutex);
    NodePtr from_dir = src->parent_node();
    if (!from_dir || is_mount_root(*src) || !can_write(user.get(), *from_dir))
        return kDenied;
    NewEntry target = resolve_new_entry(server, user.get(), slot.cwd(), path);
    if (!target.dir)
        return no_such(path);
    if (!valid_new_name(target.name))
        return kNameRefused;
    if (!can_write(user.get(), *target.dir))
        return kDenied;
    NodePtr there = find_child(*target.dir, target.name);
    if (there == src)
        return "250 Rename successful.\r\n";
    if (there)
        return "553 Rename failed: the name exists.\r\n";
    if (src->is_dir() && is_below(target.dir, src))
        return "553 Rename failed: a directory cannot go inside itself.\r\n";
    if (src->status.load() != kStatusNormal)
        return "550 File Busy\r\n";
    long below = src->is_dir() ? max_depth_below(*src) : 0;
    if (!virtual_path_fits(*target.dir, target.name, static_cast<size_t>(below)))
        return kNameRefused;
    HostPath a = node_host_path(*server.vfs, *from_dir);
    HostPath b = node_host_path(*server.vfs, *target.dir);
    int fa = a.empty() ? -1 : open_beneath(a.base, a.relative, O_PATH | O_DIRECTORY);
    int fb = b.empty() ? -1 : open_beneath(b.base, b.relative, O_PATH | O_DIRECTORY);
    int rc = fa >= 0 && fb >= 0
                 ? ::renameat2(fa, src->name.c_str(), fb, target.name.c_str(), RENAME_NOREPLACE)
                 : -1;
    int err = errno;
    if (fa >= 0)
        ::close(fa);
    if (fb >= 0)
        ::close(fb);
    if (rc != 0)
        return err == EXDEV ? "550 Rename failed: source and target are on different disks.\r\n"
                            : "550 Rename failed.\r\n";
    if (target.dir != from_dir)
        relink_node(src, target.dir);
    src->name = target.name;
    return "250 Rename successful.\r\n";
}

std::string modern_delete(Server& server, ConnSlot& slot, const std::string& path) {
    live_refresh(server, slot, path);
    std::shared_ptr<User> user = slot.checked_user();
    NodePtr node;
    HostPath dir;
    {
        std::unique_lock lock(server.tree_mutex);
        node = resolve_path(server, user.get(), slot.cwd(), path);
        NodePtr parent = node ? node->parent_node() : nullptr;
        // A missing file gets the same answer as a forbidden one.
        if (!node || !parent || node->is_dir() || !can_write(user.get(), *parent) ||
            !can_write(user.get(), *node))
            return ftp_text::kPermissionsDenied;
        if (!try_mark_busy(*node))
            return ftp_text::kDeleFailed;
        dir = node_host_path(*server.vfs, *parent);
    }
    int fd = dir.empty() ? -1 : open_beneath(dir.base, dir.relative, O_PATH | O_DIRECTORY);
    bool ok = fd >= 0 && ::unlinkat(fd, node->name.c_str(), 0) == 0;
    if (fd >= 0)
        ::close(fd);
    if (!ok) {
        clear_busy(*node);
        return ftp_text::kDeleFailed;
    }
    std::unique_lock lock(server.tree_mutex);
    unlink_node(node, &server.memory_allocated);
    return ftp_text::kDeleOk;
}

std::string status_reply(Server& server, const ConnSlot& slot) {
    std::string name;
    if (std::shared_ptr<User> user = slot.checked_user()) {
        std::shared_lock lock(server.tree_mutex);
        name = user->name;
    }
    std::string out = "211-Orvane Server status:\r\n";
    out += " Connected from " + slot.peer_text + "\r\n";
    out += name.empty() ? std::string(" Not logged in\r\n") : " Logged in as " + name + "\r\n";
    out += slot.transfer_type == 'A' ? " TYPE: ASCII\r\n" : " TYPE: BINARY\r\n";
    out += strf(" %d users connected\r\n", static_cast<int>(server.conns.user_count()));
    return out + "211 End of status\r\n";
}

bool modern_dispatch(const FtpContextPtr& ctx, const SlotPtr& slot, const std::string& line) {
    Server& server = ctx->server;
    FtpSessionExtras& ex = *slot->ftp_extras;
    std::string verb = verb_of(line);
    size_t blank = line.find(' ');
    std::string arg = blank == std::string::npos ? std::string()
                                                 : std::string(trim_blanks(line.substr(blank + 1)));
    ConnSlot& s = *slot;
    auto reply = [&](const std::string& text) {
        finish_command(s, text);
        return true;
    };
    if (ex.ftps && ftps_dispatch(ctx, slot, verb, arg))
        return true;
    // Commands on the event thread.
    if (verb == "FEAT")
        return reply(feat_reply(ex.ftps != nullptr));
    if (verb == "SYST")
        return reply("215 UNIX Type: L8\r\n");
    if (verb == "NOOP")
        return reply("200 NOOP command successful.\r\n");
    if (verb == "HELP")
        return reply(help_reply());
    if (verb == "OPTS")
        return reply(opts_reply(s, arg));
    if (verb == "ALLO")
        return reply("202 ALLO command ignored.\r\n");
    if (verb == "MODE")
        return reply(to_upper_ascii(arg) == "S" ? "200 MODE S ok.\r\n"
                                                : "504 Only stream mode is offered.\r\n");
    if (verb == "STRU")
        return reply(to_upper_ascii(arg) == "F" ? "200 STRU F ok.\r\n"
                                                : "504 Only file structure is offered.\r\n");
    if (verb == "TYPE") {
        char type = s.transfer_type;
        std::string text = modern_type_reply(arg, type);
        s.transfer_type = type;
        return reply(text);
    }
    if (verb == "PASV" || verb == "EPSV")
        return reply(passive_command(ctx, slot, verb == "EPSV", arg));
    if (verb == "EPRT")
        return reply(eprt_command(slot, arg));
    if (verb == "PORT")
        return reply(modern_port_command(slot, arg));
    if (verb == "REST")
        return reply(rest_reply(arg, ex.rest));
    if (verb == "SIZE")
        return reply(size_reply(server, s, arg));
    if (verb == "MDTM")
        return reply(mdtm_reply(server, s, arg));
    if (verb == "MFMT")
        return reply(mfmt_reply(server, s, arg));
    if (verb == "RNFR")
        return reply(rnfr_reply(server, s, arg));
    if (verb == "RNTO")
        return reply(rnto_reply(server, s, arg));
    if (verb == "ABOR") {
        std::lock_guard lock(ex.mutex);
        ex.passive.reset();
        return reply("225 No transfer to abort.\r\n");
    }
    if (verb == "STAT")
        return reply(arg.empty() ? status_reply(server, s) : stat_path_reply(server, s, arg));
    if (verb == "MLST")
        return reply(mlst_reply(server, s, arg));

    // Commands on a thread of their own.
    long long rest = std::exchange(ex.rest, 0);
    if (verb == "RETR") {
        spawn(
            ctx, slot, "**** Failed to create ftp in RETR Thread ****",
            [ctx, slot, job = job_for(s, arg), rest] { modern_retr_thread(ctx, slot, job, rest); });
        return true;
    }
    if (verb == "STOR" || verb == "APPE") {
        UploadMode mode = verb == "APPE" ? UploadMode::Append : UploadMode::Replace;
        spawn(ctx, slot, fail_text(verb.c_str()).c_str(),
              [ctx, slot, job = job_for(s, arg), rest, mode] {
                  modern_stor_thread(ctx, slot, job, rest, mode);
              });
        return true;
    }
    if (verb == "LIST" || verb == "NLST" || verb == "MLSD") {
        ListingKind kind = verb == "LIST"   ? ListingKind::Long
                           : verb == "NLST" ? ListingKind::Names
                                            : ListingKind::Machine;
        spawn(ctx, slot, fail_text(verb.c_str()).c_str(), [ctx, slot, job = job_for(s, arg), kind] {
            modern_list_thread(ctx, slot, job, kind);
        });
        return true;
    }
    if (verb == "DELE") {
        spawn(ctx, slot, "**** Failed to create ftp in DELE Thread ****",
              [ctx, slot, socket = s.socket.load(), arg] {
                  finish_command(*slot, modern_delete(ctx->server, *slot, arg));
                  log_thread_complete(ctx->server, socket, "DELE");
              });
        return true;
    }
    for (const ClassicThread& c : kClassicThreads) {
        if (verb == c.verb) {
            ClassicBody body = c.body;
            spawn(ctx, slot, fail_text(c.name).c_str(), [ctx, slot, job = job_for(s, arg), body] {
                live_refresh(ctx->server, *slot, job.arg);
                body(ctx, slot, job);
            });
            return true;
        }
    }
    return false; // USER, PASS, QUIT, PWD and the verbs nobody serves: the classic table
}

} // namespace orv
