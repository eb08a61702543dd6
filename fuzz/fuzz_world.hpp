#pragma once
// What the fuzz targets share: a scratch folder for the table readers, and a small server with
// accounts and an in-memory tree for the session targets. The tree has no host side (an empty
// server home and an empty mount directory), so commands that would touch the disk fail the way
// a vanished directory does and a run never changes anything outside the process.
#include "core/server.hpp"
#include "vfs/node.hpp"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orv::fuzz {

// A private folder for this fuzzing process (in /dev/shm when there is one), removed at exit.
const std::filesystem::path& scratch_dir();
// Writes `bytes` to `name` in the scratch folder and returns its path.
std::filesystem::path write_scratch(const char* name, std::string_view bytes);

// The lines of a table file's text, without their line ends.
std::vector<std::string> lines_of(const std::string& text);
// A table file whose lines a fgets loop with a 1024-byte buffer takes whole, without NULs or
// carriage returns (both are cut by the readers, so such a file only settles after more
// read-and-write cycles).
bool plain_file(std::string_view text);

// Aborts with a message: libFuzzer reports it as a crash with the input that caused it.
[[noreturn]] void fail(const char* what);
inline void check(bool ok, const char* what) {
    if (!ok)
        fail(what);
}

// Accounts: "fuzz" (ID 101, password "fuzz-pass", home \pub, two logins), "admin" (ID 10,
// "admin-pass"), "mallory" (ID 102, "mallory-pass", no rights at all); group "staff" holds fuzz.
// Tree: \pub (open to all, owned by fuzz) with readme.txt, a.b.txt and sub\deep.txt; \private
// (admin only) with secret.txt; top.txt; \mnt, a mount with m.txt.
class World {
  public:
    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    Server& server() { return *server_; }
    NodePtr node(std::string_view path) const;

    // Waits for every command thread and runs the posted events until nothing is left to do.
    // Aborts when a command has not ended after a generous time (a hang).
    void settle();
    // Every account's active-login count is zero (checked after the sessions have ended).
    bool logins_balanced() const;

  private:
    std::unique_ptr<Server> server_;
};

// A small server home on the disk for the table targets: home/ with pub/a.txt, pub/sub/b.txt
// and c.txt, a link to pub (inside the home), a link to a folder outside it and a link that
// loops; real1/ and real2/ to mount; outside/ that nothing may reach through the home.
struct Disk {
    std::filesystem::path dir; // the start directory (mounts and fpl.txt are written here)
    std::filesystem::path home;
};
const Disk& disk();
// A server whose tree was built from `disk()` with the given mounts and fpl.txt contents.
std::unique_ptr<Server> build_from_disk(std::string_view mounts, std::string_view fpl);
// Every node's host path lies under its own base (the home, or its mount's directory) and,
// once links are resolved on the host, still does.
void check_contained(const Server& server);

} // namespace orv::fuzz
