#pragma once
// The FTP client's local side is the user's view of the virtual file system: where a received
// file goes, which sent file may be read, and how a received file enters the tree.
#include "vfs/busy_mark.hpp"
#include "vfs/node.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace orv {

class Server;
struct User;
class ConnSlot;

namespace client {

// Splits a local name at its last backslash into a directory (resolved from `cwd`; an empty
// directory part after a leading backslash is the root) and a file name. Without a backslash
// the directory is `cwd`. `dir` stays null when the directory does not resolve to a directory;
// `dir_text` then holds what was typed for it.
struct LocalName {
    NodePtr dir;
    std::string dir_text;
    std::string name;
};
LocalName split_local_name(Server& server, const NodePtr& cwd, std::string_view local);
// A directory path ("" = `cwd`), or null when it is no directory.
NodePtr resolve_local_dir(Server& server, const NodePtr& cwd, std::string_view path);

enum class OpenResult { Ok, Denied, Failed };

// A file being received. The host file is opened at once (so that a refusal comes before any
// network work) but emptied only when data is about to arrive, so a refused RETR never destroys
// what was there; a file that this transfer created and never filled is removed again.
class ReceiveTarget {
  public:
    ~ReceiveTarget();
    // The user must be allowed to write the existing node, or the directory for a new name.
    OpenResult open(Server& server, const User* user, const NodePtr& dir, const std::string& name);
    int fd() const { return fd_; }
    // The data is about to arrive: the old contents go.
    void begin();
    // Closes the file; the transfer never started writing: a file we created goes again.
    void close();
    // The file's size when it was closed.
    uint32_t size() const { return size_; }

  private:
    int fd_ = -1;
    int dir_fd_ = -1; // the directory it is in, as opened below its base
    std::string name_;
    bool created_ = false;
    bool begun_ = false;
    uint32_t size_ = 0;
    BusyMark busy_; // an existing node marked busy while it is rewritten
};

// Adds a received file of `size` bytes to the directory, or re-initialises the node of that
// name in place (its siblings stay where they are). False when no node could be made.
bool add_received_file(Server& server, const std::shared_ptr<User>& user, const NodePtr& dir,
                       const std::string& name, uint32_t size);

// A file being sent: a plain file whose node the user may read, or a host file in the
// directory that has no node (from a directory the user may read).
class SendSource {
  public:
    ~SendSource();
    OpenResult open(Server& server, const User* user, const NodePtr& dir, const std::string& name);
    OpenResult open(Server& server, const User* user, const NodePtr& node);
    int fd() const { return fd_; }
    void close();

  private:
    int fd_ = -1;
    BusyMark busy_;
};

// The shell's `cd` rules applied to the client's local directory: the answer to send.
std::string change_local_dir(Server& server, ConnSlot& slot, std::string arg);

} // namespace client
} // namespace orv
