#include "ftpd/listing.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/replies.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <charconv>
#include <cstring>
#include <shared_mutex>

namespace orv {

namespace {

// A name as "%-8.8s" prints it: cut to 8 characters (or at a NUL) and padded with blanks.
void append_padded8(std::string& out, const std::string& name) {
    size_t n = strnlen(name.c_str(), 8);
    out.append(name.c_str(), n);
    out.append(8 - n, ' ');
}

// Type, nine flags, the five blanks where a link count would stand, owner and group.
void append_line_head(std::string& out, const VfsNode& node) {
    out += node.kind;
    static constexpr char kLetters[] = "rwxrwxrwx";
    for (size_t i = 0; i < node.flags.size(); ++i)
        out += node.flags[i] == 1 ? kLetters[i] : '-';
    out += "     ";
    if (node.owner)
        append_padded8(out, node.owner->name);
    else
        out.append(8, ' ');
    out += ' ';
    if (node.group)
        append_padded8(out, node.group->name);
    else
        out += "<none>  ";
}

// Listings of thousands of entries are built under the tree lock, so the lines are appended
// to one buffer without printf or temporary strings.
void append_long_line(std::string& out, const VfsNode& node) {
    append_line_head(out, node);
    // The size column shows the stored 32 bits as a signed number, right-aligned in 10.
    char digits[16];
    char* end = std::to_chars(digits, digits + sizeof digits, static_cast<int32_t>(node.size)).ptr;
    size_t width = static_cast<size_t>(end - digits);
    out += ' ';
    if (width < 10)
        out.append(10 - width, ' ');
    out.append(digits, width);
    out += " Jan  1  1998 ";
    out += node.name;
    out += "\r\n";
}

void append_dot_line(std::string& out, const VfsNode& node, const char* name) {
    append_line_head(out, node);
    out += "          0 Jan  1  1998 ";
    out += name;
    out += "\r\n";
}

void append_entry(std::string& out, const VfsNode& node, bool names_only) {
    if (names_only) {
        out += node.name;
        out += "\r\n";
    } else {
        append_long_line(out, node);
    }
}

// Room for a typical long line, so that a large listing grows its buffer once.
constexpr size_t kTypicalLine = 72;

} // namespace

std::string long_line(const VfsNode& node) {
    std::string out;
    append_long_line(out, node);
    return out;
}

std::string dot_line(const VfsNode& node, const char* name) {
    std::string out;
    append_dot_line(out, node, name);
    return out;
}

std::string listing_word(std::string argument) {
    std::string word = next_word(argument);
    if (word.find('-') != std::string::npos)
        word = next_word(argument);
    if (word.empty())
        word = "*.*";
    return word;
}

ListingPlan plan_listing(const VfsNode* cwd, const User* user, const std::string& word,
                         bool names_only) {
    ListingPlan plan;
    if (!cwd || !can_read(user, *cwd)) {
        plan.refusal = ftp_text::kListDenied;
        return plan;
    }
    if (NodePtr dir = find_child(*cwd, word)) {
        // The entries of a directory are shown only to those who may read that directory.
        if (dir->is_dir() && !can_read(user, *dir)) {
            plan.refusal = ftp_text::kListDenied;
            return plan;
        }
        // A named entry is listed whole, after its own "." and ".." (the root is its own
        // parent, as in path resolution).
        NodePtr parent = dir->parent_node();
        const VfsNode& up = parent ? *parent : *dir;
        plan.data.reserve((dir->children.size() + 2) * kTypicalLine);
        if (names_only) {
            plan.data += ".\r\n..\r\n";
        } else {
            append_dot_line(plan.data, *dir, ".");
            append_dot_line(plan.data, up, "..");
        }
        for (const NodePtr& child : dir->children)
            append_entry(plan.data, *child, names_only);
        return plan;
    }
    NodePtr match = match_first(*cwd, word);
    if (!match) {
        plan.missing = strf(ftp_text::kListMissingFmt, word.c_str());
        return plan;
    }
    plan.data.reserve(cwd->children.size() * kTypicalLine);
    for (; match; match = match_next(*match, word))
        append_entry(plan.data, *match, names_only);
    return plan;
}

namespace {

void listing_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                    bool names_only) {
    Server& server = ctx->server;
    std::shared_ptr<User> user = slot->checked_user();
    std::string word = listing_word(job.arg);
    ListingPlan plan;
    {
        std::shared_lock lock(server.tree_mutex);
        NodePtr cwd = slot->cwd();
        plan = plan_listing(server.vfs ? cwd.get() : nullptr, user.get(), word, names_only);
    }
    const char* name = names_only ? "NLST" : "LIST";
    if (plan.refusal) {
        finish_command(*slot, plan.refusal);
    } else if (!plan.missing.empty()) {
        finish_command(*slot, plan.missing);
    } else {
        int data = open_data_connection(server, *slot, job.port_arg, job.type, -1);
        if (data >= 0) {
            send_all(data, plan.data.data(), plan.data.size(), &slot->stop, kDataIdleLimitMs);
            close_fd(data);
            finish_command(*slot, ftp_text::kTransferComplete);
        } else {
            slot->state = 3;
        }
    }
    log_thread_complete(server, job.socket, name);
}

} // namespace

void list_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    listing_thread(ctx, slot, job, false);
}

void nlst_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job) {
    listing_thread(ctx, slot, job, true);
}

} // namespace orv
