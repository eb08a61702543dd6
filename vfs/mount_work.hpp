#pragma once
// Mounting one record into the tree, shared by the start-up build and the run-time thread.
#include "vfs/node.hpp"
#include "vfs/scan.hpp"

#include <memory>

namespace orv {

class Server;

struct MountOutcome {
    bool mounted = false;
    ScanCounts counts; // the mount point and what was scanned below it
};

// Logs "  Mounting %s  - > %s", finds the mount point's parent, scans the real directory
// without the tree lock and links the result under the exclusive lock. Failures are logged
// with the start-up or the run-time wording.
MountOutcome mount_record(Server& server, const std::shared_ptr<MountRec>& mount, bool at_run_time);

// Mounts every record of the mount list, from the head (start-up).
void mount_all(Server& server);

} // namespace orv
