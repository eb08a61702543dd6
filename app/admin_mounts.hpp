#pragma once
// The Mounts dialog's checks and the Server Settings dialog's mount list, without widgets.
// The functions that take a Server run on the event thread and take the tree lock themselves.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

class Server;
struct MountRec;

// ---- Texts of the Mounts dialog ----

// "Mount To" as the dialog takes it: empty becomes "\", a missing leading "\" is added, and a
// trailing "\" is removed when more than the root is left.
std::string normalize_mount_to(std::string_view mount_to);
// "As" without a leading "\".
std::string normalize_mount_as(std::string_view as);
// Mount To, "\" unless Mount To is the root, and As.
std::string mount_target(std::string_view mount_to, std::string_view as);
// The starting "Mount To" and "As" of an edit: the target cut at its last "\".
void split_mount_target(std::string_view target, std::string& mount_to, std::string& as);

struct MountForm {
    std::string mount;    // real directory
    std::string mount_to; // VFS parent directory as typed
    std::string as;       // name of the new VFS directory as typed
    bool edit = false;
};

struct MountFormResult {
    std::optional<std::string> refusal; // shown in a box titled "Error"
    std::string mount;
    std::string mount_to; // normalised
    std::string as;       // normalised
    std::string target;
};

// The OK checks in the dialog's order.
MountFormResult check_mount_form(const Server& server, const MountForm& form);

// ---- The mount list of the Server Settings dialog ----

// "%s - > %s": the real directory, then the virtual path it stands at.
std::string mount_list_line(const MountRec& mount);
std::vector<std::string> mount_list_lines(const Server& server);

struct MountPaths {
    std::string real_dir;
    std::string mount_point;
};
// The mount that a list line names, or nothing.
std::optional<MountPaths> find_mount_line(const Server& server, std::string_view line);

// Appends the mount to the mount list and starts its mount thread.
void add_mount(Server& server, const std::string& real_dir, const std::string& mount_point);

enum class MountChange { Started, NoSuchMount, ThreadFailed };
// Replaces the mount that `line` names: the remove thread unmounts it, then mounts the new one.
MountChange edit_mount(Server& server, std::string_view line, const std::string& real_dir,
                       const std::string& mount_point);
// Takes the mount that `line` names out of the list and starts its remove thread.
MountChange delete_mount(Server& server, std::string_view line);

// ---- Directory trees ----

// The directories directly under a VFS directory, in child order (the Mounts dialog's right
// tree and the home directory picker load one level at a time).
std::vector<std::string> vfs_child_dirs(const Server& server, std::string_view virtual_path);

} // namespace orv
