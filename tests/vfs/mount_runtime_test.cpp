// Mounting and unmounting while the server runs: the posted single-mount event, the
// remove-mount thread waiting for busy files, sessions moved out of the mount.
#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "support/test_server.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <asio.hpp>
#include <gtest/gtest.h>
#include <mutex>
#include <shared_mutex>
#include <thread>

using namespace orv;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A built server with \pub mounted from a second folder and the event loop on a thread.
class RunningServer {
  public:
    RunningServer() {
        server.accounts = std::make_shared<Accounts>(&server.memory_allocated);
        server.log.set_sink([this](std::string_view line) {
            std::lock_guard lock(mutex_);
            log_.emplace_back(line);
        });
        dir.write("home/a/pub/x.txt", "x");
        disk.write("tools/bin/tool", "abcd");
        disk.write("tools/readme", "r");
        tools = (disk.path() / "tools").string();
        dir.write("mounts", tools + "|\\pub\n");
        server.settings.serverhome = (dir / "home").string();
        build_file_system(server);
        loop_ = std::thread([this] { server.io().run(); });
    }
    ~RunningServer() {
        server.stopping = true;
        server.workers.wait_idle(5s);
        work_.reset();
        server.io().stop();
        loop_.join();
    }

    // The log from the first line equal to `from` on.
    std::vector<std::string> log_from(const std::string& from) {
        std::lock_guard lock(mutex_);
        return {std::find(log_.begin(), log_.end(), from), log_.end()};
    }
    // Waits until `line` has been logged `times` times.
    bool wait_for(const std::string& line, std::chrono::milliseconds limit = 5s, long times = 1) {
        return test::wait_until(
            [&] {
                std::lock_guard lock(mutex_);
                return std::count(log_.begin(), log_.end(), line) >= times;
            },
            limit);
    }
    NodePtr find(std::string_view path) {
        std::shared_lock lock(server.tree_mutex);
        return find_node(*server.vfs, path, server.vfs->root);
    }
    std::shared_ptr<MountRec> take_mount(size_t index) {
        std::unique_lock lock(server.tree_mutex);
        auto mount = server.vfs->mounts[index];
        server.vfs->mounts.erase(server.vfs->mounts.begin() + static_cast<long>(index));
        return mount;
    }
    SlotPtr session(const std::string& home, const std::string& cwd) {
        auto slot = std::make_shared<ConnSlot>(Service::Telnet, next_socket_++);
        auto user = std::make_shared<User>();
        user->uid = 300;
        user->name = "u" + std::to_string(next_socket_);
        user->home_dir = home;
        slot->set_user(user);
        slot->logged_in = true;
        slot->set_cwd(find(cwd));
        server.conns.add(slot);
        return slot;
    }
    static std::string memory_line(long value) {
        return "  Memory usage now - " + std::to_string(value);
    }

    test::TempDir dir;
    test::TempDir disk;
    std::string tools;
    Server server{dir.path()};

  private:
    std::mutex mutex_;
    std::vector<std::string> log_;
    asio::executor_work_guard<asio::io_context::executor_type> work_ =
        asio::make_work_guard(server.io());
    std::thread loop_;
    int next_socket_ = 40;
};

constexpr long kNode = VfsTree::kNodeRecordSize;
constexpr long kMount = VfsTree::kMountRecordSize;

} // namespace

TEST(RunTimeMount, MountsRefusesAndReportsThreadFailure) {
    RunningServer s;
    long before = s.server.memory_allocated.load();
    auto music = std::make_shared<MountRec>(MountRec{s.tools, "\\a\\music"});
    {
        std::unique_lock lock(s.server.tree_mutex);
        s.server.vfs->mounts.push_front(music);
    }
    post_single_mount(s.server, music);
    ASSERT_TRUE(s.wait_for("Single mount thread complete!"));
    EXPECT_EQ(s.log_from("  Mounting " + s.tools + "  - > \\a\\music"),
              (std::vector<std::string>{
                  "  Mounting " + s.tools + "  - > \\a\\music", "Directories = 2", "Files = 2",
                  s.memory_line(before + kMount + 4 * kNode), "Single mount thread complete!"}));
    NodePtr tool = s.find("\\a\\music\\bin\\tool");
    ASSERT_TRUE(tool);
    EXPECT_EQ(tool->mount, music);

    auto again = std::make_shared<MountRec>(MountRec{s.tools, "\\a\\music"});
    post_single_mount(s.server, again);
    ASSERT_TRUE(s.wait_for("Unable to mount, \\a\\music already exists"));
    auto orphan = std::make_shared<MountRec>(MountRec{s.tools, "\\nope\\x"});
    post_single_mount(s.server, orphan);
    ASSERT_TRUE(s.wait_for("**** Error finding dest. dir (single_main_mount_routine) ****"));
    EXPECT_EQ(s.find("\\a\\music\\bin\\tool"), tool); // the tree is unchanged

    s.server.workers.set_refuse_spawns(true);
    post_single_mount(s.server, std::make_shared<MountRec>(MountRec{s.tools, "\\q"}));
    EXPECT_TRUE(s.wait_for("**** Failed to create single mount Thread ****"));
}

TEST(RunTimeMount, UnmountWaitsForBusyFileAndMovesSessions) {
    RunningServer s;
    NodePtr tool = s.find("\\pub\\bin\\tool");
    NodePtr readme = s.find("\\pub\\readme");
    ASSERT_TRUE(tool && readme);
    SlotPtr at_point = s.session("\\a", "\\pub");
    SlotPtr same_name = s.session("\\", "\\a\\pub"); // an unrelated directory named pub
    SlotPtr inside = s.session("\\a", "\\pub\\bin");
    SlotPtr elsewhere = s.session("\\", "\\a");
    long before = s.server.memory_allocated.load();

    tool->status = kStatusBusy; // a download is running
    auto mount = s.take_mount(0);
    ASSERT_TRUE(start_remove_mount(s.server, mount, nullptr));
    ASSERT_TRUE(s.wait_for("tool"));
    EXPECT_EQ(readme->status.load(), kStatusUnmounting);
    auto admin = std::make_shared<User>();
    admin->uid = 10;
    EXPECT_FALSE(can_read(admin.get(), *readme));
    EXPECT_EQ(at_point->cwd(), s.find("\\a"));
    EXPECT_EQ(same_name->cwd(), s.find("\\")); // moved by name, deliberately
    EXPECT_FALSE(s.wait_for("Unmounting Now!", 200ms));

    tool->status = kStatusNormal; // the download ends
    ASSERT_TRUE(s.wait_for("Remove mount thread Complete.", 3s));
    auto log = s.log_from("Busy files...Unmount pending");
    ASSERT_GE(log.size(), 6u);
    EXPECT_EQ(log[1], "Checking on busy files...");
    EXPECT_EQ(log[2], "tool");
    size_t tail = log.size() - 3;
    EXPECT_EQ(log[tail], "Unmounting Now!");
    EXPECT_EQ(log[tail + 1], "Remove mount thread Complete.");
    EXPECT_EQ(log[tail + 2], s.memory_line(before - 4 * kNode - kMount));
    for (size_t i = 3; i < tail; ++i) // a slow check may have seen it busy once more
        EXPECT_TRUE(log[i] == "Checking on busy files..." || log[i] == "tool") << log[i];

    EXPECT_EQ(s.find("\\pub"), nullptr);
    EXPECT_EQ(tool->status.load(), kStatusUnmounting);
    // A session left inside keeps a node of its own, cut off from the tree and the disk.
    NodePtr kept = inside->cwd();
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->name, "bin");
    EXPECT_EQ(kept->parent_node(), nullptr);
    EXPECT_TRUE(kept->children.empty());
    {
        std::shared_lock lock(s.server.tree_mutex);
        EXPECT_EQ(node_real_path(*s.server.vfs, *kept), "");
        EXPECT_EQ(find_node(*s.server.vfs, "..\\readme", kept), nullptr);
    }
    EXPECT_EQ(elsewhere->cwd(), s.find("\\a"));
}

TEST(RunTimeMount, EditingAMountKeepsOneRecordMoreThanRemoveAndAdd) {
    RunningServer s;
    long before = s.server.memory_allocated.load();
    std::atomic<bool> done{false};
    // Readers walk the tree the way listings do while the mount is swapped under them.
    std::thread reader([&] {
        while (!done) {
            std::shared_lock lock(s.server.tree_mutex);
            if (NodePtr n = find_node(*s.server.vfs, "\\pub\\bin\\tool", s.server.vfs->root))
                (void)node_real_path(*s.server.vfs, *n);
        }
    });
    auto old_mount = s.take_mount(0);
    auto replacement = std::make_shared<MountRec>(MountRec{s.tools, "\\pub"});
    {
        std::unique_lock lock(s.server.tree_mutex);
        s.server.vfs->mounts.push_front(replacement);
    }
    ASSERT_TRUE(start_remove_mount(s.server, old_mount, replacement));
    ASSERT_TRUE(s.wait_for("Single mount thread complete!"));
    done = true;
    reader.join();
    auto log = s.log_from("Busy files...Unmount pending");
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log[1], "Unmounting Now!"); // nothing busy: no wait
    EXPECT_EQ(s.server.memory_allocated.load(), before + kMount);
    NodePtr tool = s.find("\\pub\\bin\\tool");
    ASSERT_TRUE(tool);
    EXPECT_EQ(tool->mount, replacement);

    // Removing and adding instead leaves the counter where it was.
    before = s.server.memory_allocated.load();
    ASSERT_TRUE(start_remove_mount(s.server, s.take_mount(0), nullptr));
    ASSERT_TRUE(s.wait_for("Remove mount thread Complete.", 5s, 2));
    auto again = std::make_shared<MountRec>(MountRec{s.tools, "\\pub"});
    post_single_mount(s.server, again);
    ASSERT_TRUE(s.wait_for("Single mount thread complete!", 5s, 2));
    EXPECT_EQ(s.server.memory_allocated.load(), before);
}
