#include "app/admin_mounts.hpp"

#include "app/start_relative.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <shared_mutex>

namespace orv {
namespace {

constexpr size_t kMaxPathText = 259; // the dialog's 260-character fields
constexpr size_t kMaxAsText = 255;

NodePtr resolve_from_root(const Server& server, std::string_view path) {
    if (!server.vfs || !server.vfs->root)
        return nullptr;
    return find_node(*server.vfs, path, server.vfs->root);
}

// Index in the mount list of the mount a list line names, or -1. Tree lock held.
long find_line_index(const Server& server, std::string_view line) {
    const auto& mounts = server.vfs->mounts;
    for (size_t i = 0; i < mounts.size(); ++i)
        if (mount_list_line(*mounts[i]) == line)
            return static_cast<long>(i);
    return -1;
}

// A real directory is kept without a trailing separator, as the mounts file is read back.
std::string normalize_real_dir(std::string dir) {
    if (dir.size() > 1 && (dir.back() == '/' || dir.back() == '\\'))
        dir.pop_back();
    return dir;
}

} // namespace

std::string normalize_mount_to(std::string_view typed) {
    // A virtual path: "/" separates as "\" does, and the mount point is kept with "\".
    std::string text(typed.substr(0, kMaxPathText));
    std::replace(text.begin(), text.end(), '/', '\\');
    if (text.empty())
        return "\\";
    if (text.front() != '\\')
        text.insert(text.begin(), '\\');
    if (text.size() > 1 && text.back() == '\\')
        text.pop_back();
    return text;
}

std::string normalize_mount_as(std::string_view typed) {
    std::string text(typed.substr(0, kMaxAsText));
    if (!text.empty() && (text.front() == '\\' || text.front() == '/'))
        text.erase(text.begin());
    return text;
}

std::string mount_target(std::string_view mount_to, std::string_view as) {
    std::string target(mount_to);
    if (target != "\\")
        target += '\\';
    target += as;
    return target;
}

void split_mount_target(std::string_view target, std::string& mount_to, std::string& as) {
    size_t cut = target.find_last_of('\\');
    if (cut == std::string_view::npos) {
        mount_to.assign(1, '\\');
        as = std::string(target);
        return;
    }
    as = std::string(target.substr(cut + 1));
    mount_to = cut == 0 ? "\\" : std::string(target.substr(0, cut));
}

MountFormResult check_mount_form(const Server& server, const MountForm& form) {
    MountFormResult r;
    r.mount = form.mount.substr(0, kMaxPathText);
    r.mount_to = normalize_mount_to(form.mount_to);
    std::error_code ec;
    if (r.mount.empty() ||
        !std::filesystem::is_directory(in_start_dir(server.start_dir, r.mount), ec)) {
        r.refusal = "The \"Mount\" path must exist.";
        return r;
    }
    std::shared_lock lock(server.tree_mutex);
    NodePtr parent = resolve_from_root(server, r.mount_to);
    // Only a directory can take the new "as" directory.
    if (!parent || !parent->is_dir()) {
        r.refusal =
            "The \"Mount To\" path must exist to\r\nbe able to create the \"as\" directory.";
        return r;
    }
    r.as = normalize_mount_as(form.as);
    r.target = mount_target(r.mount_to, r.as);
    if (r.as.empty()) {
        r.refusal = "The \"as\" directory is required";
        return r;
    }
    if (!form.edit && resolve_from_root(server, r.target)) {
        r.refusal = "The \"as\" directory must not exist because\r\nit will be created during "
                    "the mount.";
        return r;
    }
    return r;
}

std::string mount_list_line(const MountRec& mount) {
    return strf("%s - > %s", mount.real_dir.c_str(), mount.mount_point.c_str());
}

std::vector<std::string> mount_list_lines(const Server& server) {
    std::shared_lock lock(server.tree_mutex);
    std::vector<std::string> lines;
    if (server.vfs)
        for (const auto& m : server.vfs->mounts)
            lines.push_back(mount_list_line(*m));
    return lines;
}

std::optional<MountPaths> find_mount_line(const Server& server, std::string_view line) {
    std::shared_lock lock(server.tree_mutex);
    if (!server.vfs)
        return std::nullopt;
    long i = find_line_index(server, line);
    if (i < 0)
        return std::nullopt;
    const MountRec& m = *server.vfs->mounts[static_cast<size_t>(i)];
    return MountPaths{m.real_dir, m.mount_point};
}

void add_mount(Server& server, const std::string& real_dir, const std::string& mount_point) {
    auto mount = std::make_shared<MountRec>();
    mount->real_dir = normalize_real_dir(real_dir);
    mount->mount_point = normalize_mount_point(mount_point);
    {
        std::unique_lock lock(server.tree_mutex);
        if (!server.vfs)
            return;
        server.vfs->mounts.push_back(mount);
    }
    server.log_message("Single Mount thread started");
    post_single_mount(server, mount);
}

MountChange edit_mount(Server& server, std::string_view line, const std::string& real_dir,
                       const std::string& mount_point) {
    auto replacement = std::make_shared<MountRec>();
    replacement->real_dir = normalize_real_dir(real_dir);
    replacement->mount_point = normalize_mount_point(mount_point);
    std::shared_ptr<MountRec> old;
    {
        std::unique_lock lock(server.tree_mutex);
        if (!server.vfs)
            return MountChange::NoSuchMount;
        long i = find_line_index(server, line);
        if (i < 0)
            return MountChange::NoSuchMount;
        std::shared_ptr<MountRec>& slot = server.vfs->mounts[static_cast<size_t>(i)];
        old = slot;
        slot = replacement;
    }
    if (!start_remove_mount(server, old, replacement)) {
        server.log_message("**** Failed to create remove mount Thread ****");
        // The old mount is still in the tree: keep it in the list so that it is saved.
        std::unique_lock lock(server.tree_mutex);
        for (auto& m : server.vfs->mounts)
            if (m == replacement)
                m = old;
        return MountChange::ThreadFailed;
    }
    server.log_message("Remove Mount thread started");
    return MountChange::Started;
}

MountChange delete_mount(Server& server, std::string_view line) {
    std::shared_ptr<MountRec> old;
    long index = -1;
    {
        std::unique_lock lock(server.tree_mutex);
        if (!server.vfs)
            return MountChange::NoSuchMount;
        index = find_line_index(server, line);
        if (index < 0)
            return MountChange::NoSuchMount;
        auto& mounts = server.vfs->mounts;
        old = mounts[static_cast<size_t>(index)];
        mounts.erase(mounts.begin() + index);
    }
    if (!start_remove_mount(server, old, nullptr)) {
        server.log_message("**** Failed to create remove mount Thread ****");
        std::unique_lock lock(server.tree_mutex);
        auto& mounts = server.vfs->mounts;
        mounts.insert(mounts.begin() + std::min<long>(index, static_cast<long>(mounts.size())),
                      old);
        return MountChange::ThreadFailed;
    }
    server.log_message("Remove Mount thread started");
    return MountChange::Started;
}

std::vector<std::string> vfs_child_dirs(const Server& server, std::string_view virtual_path) {
    std::shared_lock lock(server.tree_mutex);
    std::vector<std::string> names;
    NodePtr dir = resolve_from_root(server, virtual_path);
    if (dir && dir->is_dir())
        for (const NodePtr& child : dir->children)
            if (child->is_dir())
                names.push_back(child->name);
    return names;
}

} // namespace orv
