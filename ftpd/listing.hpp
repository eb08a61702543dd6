#pragma once
// LIST and NLST: the long and the bare listing of a directory of the tree, sent over the
// data connection. The long line has no time stamps (the tree keeps none), so every entry
// shows the same date.
#include "ftpd/ftp_context.hpp"

#include <string>

namespace orv {

struct VfsNode;

// One entry's long line, ending in "\r\n". Call with the tree lock held.
std::string long_line(const VfsNode& node);
// The "." or ".." line: `node`'s type, flags, owner and group, a size of 0, and `name`.
std::string dot_line(const VfsNode& node, const char* name);

// The word a listing looks for: the first word of the argument, or the one after it when the
// first is an option such as -l; "*.*" when there is none.
std::string listing_word(std::string argument);

// What one listing sends, built under the tree lock (the data connection opens afterwards).
struct ListingPlan {
    const char* refusal = nullptr; // set when the reply is a fixed refusal
    std::string missing;           // otherwise, when set: the 550 text for a missing word
    std::string data;              // the listing's bytes
};
// `names_only` for NLST. Call with the tree lock held.
ListingPlan plan_listing(const VfsNode* cwd, const User* user, const std::string& word,
                         bool names_only);

void list_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);
void nlst_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job);

} // namespace orv
