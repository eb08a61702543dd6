#pragma once
// Listings for the newer command set: LIST in the "ls -l" layout clients parse (with the host
// files' real times), NLST of any path, and the machine-readable MLSD and MLST.
#include "ftpd/ftp_context.hpp"
#include "vfs/tree.hpp"

#include <array>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace orv {

class Server;
struct User;

// What a listing shows of one entry, taken under the tree lock.
struct ListedEntry {
    std::string name; // as shown: the entry's name, or the path given for MLST
    char kind = '-';
    std::array<uint8_t, 9> flags{};
    std::string owner;
    std::string group;
    uint32_t size = 0; // the tree's size, used when the host file cannot be looked at
    int links = 1;
    std::string perm; // the MLSx "perm" fact for this user
};

enum class ListingKind { Long, Names, Machine };

// The entries a listing of `path` sends, or the refusal to send instead.
struct ListedDir {
    std::string refusal;
    HostPath dir; // the host directory that holds the entries
    std::vector<ListedEntry> entries;
};
ListedDir collect_listing(const Server& server, const User* user, const NodePtr& cwd,
                          const std::string& path, ListingKind kind);

// One "ls -l" line: "-rw-r--r--   1 owner    group        1234 Nov 25 00:15 name\r\n".
// A node's columns as listings show them (call with the tree lock held).
ListedEntry listed_entry(const VfsNode& node);
std::string ls_line(const ListedEntry& e, const struct stat* st, std::time_t now);
// One MLSx line without its leading blank: "type=file;size=...; name\r\n". `facts` selects
// (as OPTS MLST set them).
std::string mlsx_line(const ListedEntry& e, const struct stat* st, const std::string& facts);
// The bytes of a listing, looking at each host file outside the tree lock.
std::string render_listing(const ListedDir& dir, ListingKind kind, const std::string& facts);

// The "perm" fact for `node` and `user`. Tree lock held.
std::string perm_fact(const User* user, const VfsNode& node);

// The data-connection listings (threads).
void modern_list_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                        ListingKind kind);
// MLST, and STAT with a path: the listing over the control connection.
std::string mlst_reply(Server& server, ConnSlot& slot, const std::string& path);
std::string stat_path_reply(Server& server, ConnSlot& slot, const std::string& path);

// Options such as "-la" before a path are skipped.
std::string listing_path(std::string argument);

} // namespace orv
