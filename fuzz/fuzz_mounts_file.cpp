// The mounts file: each line checked as a mount record, and whole files read and mounted into a
// small tree built from the disk. Every node of the result must map to a host path inside the
// home or inside its own mount's directory, and the file we write back reads the same again.
#include "fuzz/fuzz_world.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <sstream>

using namespace orv;

namespace {

// Mounts may only name folders of the scratch disk (a mount of "/" would scan the machine):
// every real directory is taken relative to it, and a line that walks up is dropped.
std::string confine(std::string_view text) {
    std::string out;
    std::istringstream in{std::string(text)};
    for (std::string line; std::getline(in, line);) {
        size_t bar = line.find('|');
        std::string real = line.substr(0, bar);
        if (real.find("..") != std::string::npos)
            continue;
        while (!real.empty() && real.front() == '/')
            real.erase(0, 1);
        out += (fuzz::disk().dir / real).string();
        if (bar != std::string::npos)
            out += line.substr(bar);
        out += '\n';
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string home = fuzz::disk().home.string();
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        if (auto mount = parse_mount_line(line, home)) {
            fuzz::check(!mount->mount_point.empty() && mount->mount_point.front() == '\\',
                        "mount point without its leading backslash");
            fuzz::check(mount->real_dir.size() <= 259 && mount->mount_point.size() <= 259,
                        "mount record over its limit");
        }
    }

    std::string confined = confine(text);
    std::unique_ptr<Server> server = fuzz::build_from_disk(confined, "");
    fuzz::check_contained(*server);
    std::string saved = mounts_text(*server->vfs);
    std::unique_ptr<Server> again = fuzz::build_from_disk(saved, "");
    fuzz::check_contained(*again);
    fuzz::check(again->vfs->mounts.size() == server->vfs->mounts.size(),
                "the mounts file we wrote does not read back");
    return 0;
}
