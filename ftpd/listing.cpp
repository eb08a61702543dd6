#include "ftpd/listing.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/replies.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <shared_mutex>

namespace orv {

namespace {

// Type, nine flags, the five blanks where a link count would stand, owner and group.
std::string line_head(const VfsNode& node) {
    std::string out = node.kind_text();
    static constexpr char kLetters[] = "rwxrwxrwx";
    for (size_t i = 0; i < node.flags.size(); ++i)
        out += node.flags[i] == 1 ? kLetters[i] : '-';
    out += "     ";
    out += strf("%-8.8s", node.owner ? node.owner->name.c_str() : "");
    out += ' ';
    out += node.group ? strf("%-8.8s", node.group->name.c_str()) : std::string("<none>  ");
    return out;
}

} // namespace

std::string long_line(const VfsNode& node) {
    // The size column shows the stored 32 bits as a signed number.
    return line_head(node) + strf(" %10d Jan  1  1998 ", static_cast<int32_t>(node.size)) +
           node.name + "\r\n";
}

std::string dot_line(const VfsNode& node, const char* name) {
    return line_head(node) + "          0 Jan  1  1998 " + name + "\r\n";
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
    auto entry_text = [&](const VfsNode& n) { return names_only ? n.name + "\r\n" : long_line(n); };
    if (NodePtr dir = find_child(*cwd, word)) {
        // A named entry is listed whole, after its own "." and ".." (the root is its own
        // parent, as in path resolution).
        NodePtr parent = dir->parent_node();
        const VfsNode& up = parent ? *parent : *dir;
        plan.data =
            names_only ? std::string(".\r\n..\r\n") : dot_line(*dir, ".") + dot_line(up, "..");
        for (const NodePtr& child : dir->children)
            plan.data += entry_text(*child);
        return plan;
    }
    NodePtr match = match_first(*cwd, word);
    if (!match) {
        plan.missing = strf(ftp_text::kListMissingFmt, word.c_str());
        return plan;
    }
    for (; match; match = match_next(*match, word))
        plan.data += entry_text(*match);
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
