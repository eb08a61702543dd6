// fpl.txt: applied to a tree built from the disk (with a mount), written and applied again. The
// list we write must read back to itself, and nothing in it may reach outside the tree.
#include "fuzz/fuzz_world.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

using namespace orv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string mounts = (fuzz::disk().dir / "real1").string() + "|\\pub\\m1\n";
    std::unique_ptr<Server> server = fuzz::build_from_disk(mounts, text);
    fuzz::check_contained(*server);
    std::string once = fpl_text(*server->vfs);
    std::unique_ptr<Server> again = fuzz::build_from_disk(mounts, once);
    std::string twice = fpl_text(*again->vfs);
    fuzz::check(once == twice, "fpl.txt does not read back to what was written");
    return 0;
}
