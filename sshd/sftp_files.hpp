#pragma once
// The file operations of one SFTP session over the virtual file system, with the same
// permission rules as the FTP and shell commands: every path resolves through the tree, host
// files are reached only below their base directory, uploads are staged and put in place when
// the handle closes, and files in use carry the transfers' busy mark. No SSH in here.
#include "core/conn_slot.hpp"
#include "sshd/sftp_codec.hpp"
#include "vfs/tree.hpp"

#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace orv {

class Server;
class StagedFile;
struct FtpContext;

namespace sftp {

// The most handles a session may hold open at once.
constexpr size_t kMaxHandles = 256;
// Names handed out per directory read.
constexpr size_t kNamesPerRead = 128;

class Files {
  public:
    // `marks` carries the busy marks shared by the sessions of one server.
    Files(Server& server, SlotPtr slot, std::shared_ptr<FtpContext> marks);
    ~Files(); // closes every handle (uploads not closed are thrown away)
    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;

    Status open(std::string_view path, uint32_t flags, std::string& handle);
    // Reads up to `len` bytes at `offset` into `out` (resized to what was read).
    Status read(std::string_view handle, uint64_t offset, uint32_t len, char* out, size_t& got);
    Status write(std::string_view handle, uint64_t offset, std::string_view data);
    Status close(std::string_view handle);

    Status opendir(std::string_view path, std::string& handle);
    Status readdir(std::string_view handle, std::vector<NameEntry>& out);

    Status stat(std::string_view path, Attrs& out);
    Status fstat(std::string_view handle, Attrs& out);
    Status setstat(std::string_view path, const Attrs& attrs);
    Status fsetstat(std::string_view handle, const Attrs& attrs);

    Status mkdir(std::string_view path);
    Status rmdir(std::string_view path);
    Status remove(std::string_view path);
    Status rename(std::string_view from, std::string_view to);
    // The absolute virtual path ("/" separated), "." and ".." taken out.
    Status realpath(std::string_view path, std::string& out);

    size_t open_handles() const { return handles_.size(); }

  private:
    struct Handle;
    Handle* find(std::string_view handle);
    std::string add(std::unique_ptr<Handle> h);
    void refresh(std::string_view path);
    NodePtr resolve(std::string_view path);
    Status change_attrs(const NodePtr& node, const Attrs& attrs, Handle* open);
    Status finish_upload(Handle& h);
    void end(Handle& h);

    Server& server_;
    SlotPtr slot_;
    std::shared_ptr<FtpContext> marks_;
    std::map<std::string, std::unique_ptr<Handle>, std::less<>> handles_;
    uint64_t next_handle_ = 0;
};

// The attributes a client sees for a node: type and the node's nine flags as permissions, the
// owner's and group's IDs, and the tree's size. Tree lock held.
Attrs node_attrs(const VfsNode& node);
// Size and times taken from the host file's status.
void add_host_facts(Attrs& attrs, const struct stat& st);
// A directory entry in the `ls -l` layout of the listings, without a line end. Tree lock held.
std::string long_name(const VfsNode& node, const struct stat* st, std::time_t now);
// "." and ".." taken out of a "/" or "\" separated path, relative ones joined to `base` (an
// absolute path); ".." stops at the root.
std::string normal_path(std::string_view base, std::string_view path);

} // namespace sftp
} // namespace orv
