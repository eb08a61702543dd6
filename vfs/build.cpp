#include "vfs/build.hpp"
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "vfs/mount_work.hpp"
#include "vfs/scan.hpp"
#include "vfs/tree.hpp"

#include <mutex>

namespace orv {

namespace {

constexpr std::array<uint8_t, 9> kRootFlags{1, 1, 1, 1, 0, 1, 1, 0, 1}; // rwxr-xr-x

} // namespace

void build_file_system(Server& server) {
    server.log_message("Initializing File System...");
    server.log.logf("File System root starts in - %s", server.settings.serverhome.c_str());
    const std::string home = resolve_configured_path(server.start_dir, server.settings.serverhome);
    if (!server.accounts)
        server.accounts = std::make_shared<Accounts>(&server.memory_allocated);
    if (!server.vfs)
        server.vfs = std::make_shared<VfsTree>();
    VfsTree& tree = *server.vfs;

    auto root = std::make_shared<VfsNode>();
    root->kind = 'd';
    root->flags = kRootFlags;
    {
        std::unique_lock lock(server.tree_mutex);
        root->owner = server.accounts->root_user();
        root->creator = root->owner;
    }
    // An empty home would be the host's own root: serve nothing rather than the whole disk.
    ScanCounts counts;
    if (!home.empty())
        counts = scan_into(server.log, home, root);
    {
        std::unique_lock lock(server.tree_mutex);
        tree.home = home;
        tree.start_dir = server.start_dir.string();
        tree.root = root;
        tree.mounts.clear();
        tree.directories = counts.directories;
        tree.files = counts.files;
        server.memory_allocated += (1 + counts.nodes()) * VfsTree::kNodeRecordSize;
    }

    read_mounts(server);
    mount_all(server);

    long directories, files;
    {
        std::shared_lock lock(server.tree_mutex);
        directories = tree.directories;
        files = tree.files;
    }
    server.log.logf("Directories = %li", directories);
    server.log.logf("Files = %li", files);
    verify_files(server);
    server.log_message("File System complete.");
}

} // namespace orv
