#include "ftpd/ftp_context.hpp"

#include "core/server.hpp"
#include "ftpd/modern_session.hpp"
#include "vfs/tree.hpp"

namespace orv {

void finish_command(ConnSlot& slot, std::string_view reply) {
    slot.state = 3;
    slot.send_text(reply);
    // Lines that came meanwhile are taken now (sessions with the newer command set).
    if (slot.ftp_extras && slot.ftp_extras->wake)
        slot.ftp_extras->wake();
}

std::string child_real_path(const VfsTree& tree, const VfsNode& dir, std::string_view name) {
    std::string path = node_real_path(tree, dir);
    if (path.empty())
        return path; // the directory has left the tree: host operations must fail
    if (path.back() != '/')
        path += '/';
    path += name;
    return path;
}

void log_thread_complete(Server& server, int socket, const char* name) {
    server.log.logf("(%i) %s thread complete", socket, name);
}

} // namespace orv
