#include "fuzz/fuzz_world.hpp"

#include "accounts/accounts.hpp"
#include "accounts/password.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <asio.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace orv::fuzz {

namespace {

std::filesystem::path make_scratch() {
    std::string base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string templ = base + "/orvane-fuzz-XXXXXX";
    if (!::mkdtemp(templ.data()))
        fail("cannot make a scratch folder");
    return templ;
}

void remove_scratch() {
    std::error_code ec;
    std::filesystem::remove_all(scratch_dir(), ec);
}

std::shared_ptr<User> make_user(Accounts& accounts, const char* name, int16_t uid,
                                const char* password, uint16_t rights, const char* home) {
    auto user = std::make_shared<User>();
    user->uid = uid;
    user->name = name;
    user->password = encode_password(name, password).value_or("");
    user->max_logins = 2;
    user->conn_flags = rights;
    user->home_dir = home;
    accounts.push_user(user);
    return user;
}

void set_flags(const NodePtr& node, const char* rwx) {
    for (size_t i = 0; i < node->flags.size(); ++i)
        node->flags[i] = rwx[i] == '-' ? 0 : 1;
}

} // namespace

void fail(const char* what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

const std::filesystem::path& scratch_dir() {
    static const std::filesystem::path dir = [] {
        std::filesystem::path made = make_scratch();
        return made;
    }();
    static const bool cleanup = [] { return std::atexit(remove_scratch) == 0; }();
    (void)cleanup;
    return dir;
}

std::filesystem::path write_scratch(const char* name, std::string_view bytes) {
    std::filesystem::path path = scratch_dir() / name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        fail("cannot write a scratch file");
    return path;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

bool plain_file(std::string_view text) {
    if (text.find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos)
        return false;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        size_t len = (end == std::string_view::npos ? text.size() : end) - start;
        if (len >= 1022)
            return false;
        if (end == std::string_view::npos)
            break;
        start = end + 1;
    }
    return true;
}

World::World() : server_(std::make_unique<Server>(scratch_dir())) {
    Server& s = *server_;
    s.settings.maxusers = 8;
    s.accounts = std::make_shared<Accounts>(&s.memory_allocated);
    Accounts& accounts = *s.accounts;
    auto fuzz =
        make_user(accounts, "fuzz", 101, "fuzz-pass", kRightFtpIn | kRightTelnetIn, "\\pub");
    auto admin = make_user(accounts, "admin", 10, "admin-pass", kRightFtpIn | kRightTelnetIn, "\\");
    make_user(accounts, "mallory", 102, "mallory-pass", 0, "\\");
    auto staff = std::make_shared<Group>();
    staff->gid = 101;
    staff->name = "staff";
    accounts.push_group(staff);
    accounts.add_member(*staff, *fuzz);

    s.vfs = std::make_shared<VfsTree>();
    VfsTree& tree = *s.vfs;
    tree.root = std::make_shared<VfsNode>();
    tree.root->kind = 'd';
    tree.root->owner = tree.root->creator = accounts.root_user();
    set_flags(tree.root, "rwxr-xr-x");
    auto add = [&](const NodePtr& dir, const char* name, char kind, uint32_t size,
                   const std::shared_ptr<User>& owner) {
        return add_node(tree, accounts, dir, name, kind, size, owner, &s.memory_allocated);
    };
    NodePtr pub = add(tree.root, "pub", 'd', 0, fuzz);
    set_flags(pub, "rwxrwxrwx");
    pub->group = staff;
    add(pub, "readme.txt", '-', 1234, fuzz);
    add(pub, "a.b.txt", '-', 7, admin);
    NodePtr sub = add(pub, "sub", 'd', 0, fuzz);
    add(sub, "deep.txt", '-', 3, fuzz);
    NodePtr priv = add(tree.root, "private", 'd', 0, admin);
    set_flags(priv, "rwx------");
    add(priv, "secret.txt", '-', 42, admin);
    add(tree.root, "top.txt", '-', 5, admin);

    auto mount = std::make_shared<MountRec>();
    mount->mount_point = "\\mnt";
    tree.mounts.push_front(mount);
    NodePtr mnt = add(tree.root, "mnt", 'd', 0, admin);
    mnt->mount = mount;
    set_flags(mnt, "rwxrwxrwx");
    add(mnt, "m.txt", '-', 9, fuzz);
}

World::~World() {
    settle();
}

NodePtr World::node(std::string_view path) const {
    return find_node(*server_->vfs, path, server_->vfs->root);
}

void World::settle() {
    Server& s = *server_;
    for (;;) {
        if (!s.workers.wait_idle(std::chrono::seconds(60)))
            fail("a command thread did not end");
        s.io().restart();
        size_t handled = s.io().poll();
        if (handled == 0 && s.workers.running() == 0)
            return;
    }
}

bool World::logins_balanced() const {
    for (const auto& user : server_->accounts->users())
        if (user->active_logins.load() != 0)
            return false;
    return true;
}

const Disk& disk() {
    static const Disk made = [] {
        namespace fs = std::filesystem;
        Disk d;
        d.dir = scratch_dir() / "disk";
        d.home = d.dir / "home";
        fs::create_directories(d.home / "pub" / "sub");
        fs::create_directories(d.dir / "real1" / "inner");
        fs::create_directories(d.dir / "real2");
        fs::create_directories(d.dir / "outside");
        auto touch = [](const fs::path& p, const char* text) {
            std::ofstream(p, std::ios::binary) << text;
        };
        touch(d.home / "pub" / "a.txt", "a");
        touch(d.home / "pub" / "sub" / "b.txt", "bb");
        touch(d.home / "c.txt", "ccc");
        touch(d.dir / "real1" / "r.txt", "r");
        touch(d.dir / "real1" / "inner" / "i.txt", "i");
        touch(d.dir / "outside" / "secret.txt", "secret");
        std::error_code ec;
        fs::create_directory_symlink(d.home / "pub", d.home / "link_in", ec);
        fs::create_directory_symlink(d.dir / "outside", d.home / "link_out", ec);
        fs::create_directory_symlink(d.home / "pub", d.home / "pub" / "sub" / "loop", ec);
        fs::create_directory_symlink(d.dir / "outside", d.dir / "real1" / "escape", ec);
        return d;
    }();
    return made;
}

std::unique_ptr<Server> build_from_disk(std::string_view mounts, std::string_view fpl) {
    const Disk& d = disk();
    auto write = [&](const char* name, std::string_view text) {
        std::ofstream out(d.dir / name, std::ios::binary | std::ios::trunc);
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
    };
    write("mounts", mounts);
    write("fpl.txt", fpl);
    auto server = std::make_unique<Server>(d.dir);
    server->settings.serverhome = d.home.string();
    build_file_system(*server);
    return server;
}

namespace {

bool starts_with_dir(const std::string& path, std::string base) {
    // A mount's directory may keep a separator at its end ("dir/" when "dir//" was given).
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    if (path.compare(0, base.size(), base) != 0)
        return false;
    return path.size() == base.size() || path[base.size()] == '/';
}

} // namespace

void check_contained(const Server& server) {
    namespace fs = std::filesystem;
    const VfsTree& tree = *server.vfs;
    std::vector<NodePtr> todo{tree.root};
    while (!todo.empty()) {
        NodePtr node = todo.back();
        todo.pop_back();
        for (const NodePtr& child : node->children) {
            check(child->parent_node() == node, "a child does not point back to its parent");
            todo.push_back(child);
        }
        std::string real = node_real_path(tree, *node);
        const std::string& base = node->mount ? node->mount->real_dir : tree.home;
        if (!starts_with_dir(real, base))
            std::fprintf(stderr, "node %s: host path \"%s\", base \"%s\"\n",
                         node_virtual_path(*node, '\\').c_str(), real.c_str(), base.c_str());
        check(starts_with_dir(real, base), "a host path leaves its base");
        std::string below = real.substr(std::min(real.size(), base.size()));
        if (!below.empty() && below.front() != '/')
            below.insert(below.begin(), '/'); // the base kept its trailing separator
        for (size_t at = 0; at < below.size();) {
            size_t next = below.find('/', at + 1);
            std::string part =
                below.substr(at + 1, next == std::string::npos ? next : next - at - 1);
            check(!part.empty() && part != "." && part != "..", "a host path walks up");
            at = next == std::string::npos ? below.size() : next;
        }
        std::error_code ec;
        fs::path resolved = fs::weakly_canonical(real, ec);
        fs::path resolved_base = fs::weakly_canonical(base, ec);
        check(starts_with_dir(resolved.string(), resolved_base.string()),
              "a host path leads out of its base through a link");
    }
}

} // namespace orv::fuzz
