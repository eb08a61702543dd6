#include "app/admin_api.hpp"
#include "app/admin_call.hpp"
#include "core/server.hpp"
#include "support/test_server.hpp"

#include <asio.hpp>
#include <gtest/gtest.h>

using namespace orv;

TEST(AdminMounts, TextsAreNormalisedAsTheDialogTakesThem) {
    EXPECT_EQ(normalize_mount_to(""), "\\");
    EXPECT_EQ(normalize_mount_to("/pub/in/"), "\\pub\\in");
    EXPECT_EQ(normalize_mount_as("\\data"), "data");
    EXPECT_EQ(mount_target("\\", "data"), "\\data");
    std::string to, as;
    split_mount_target("\\data", to, as);
    EXPECT_EQ(to, "\\");
    EXPECT_EQ(as, "data");

    MountRec m{"/srv/music", "\\pub\\music"};
    EXPECT_EQ(mount_list_line(m), "/srv/music - > \\pub\\music");
}

TEST(AdminMounts, OkChecksRunInOrderWithTheirTexts) {
    test::TestServer s({}, [](test::TempDir& d) {
        std::filesystem::create_directories(d / "home/pub/data");
        std::filesystem::create_directories(d / "disk");
        d.write("home/readme.txt", "x");
    });
    AdminApi api(s.app());
    std::string disk = (s.dir() / "disk").string();
    struct Case {
        MountForm form;
        const char* text; // null: accepted
    };
    const Case cases[] = {
        {{disk + "/missing", "\\pub", "new", false}, "The \"Mount\" path must exist."},
        {{disk, "nothere", "new", false},
         "The \"Mount To\" path must exist to\r\nbe able to create the \"as\" directory."},
        {{disk, "\\readme.txt", "new", false},
         "The \"Mount To\" path must exist to\r\nbe able to create the \"as\" directory."},
        {{disk, "pub", "", false}, "The \"as\" directory is required"},
        {{disk, "pub\\", "data", false},
         "The \"as\" directory must not exist because\r\nit will be created during the mount."},
        // An edit keeps its existing target.
        {{disk, "pub\\", "data", true}, nullptr},
        {{disk, "", "new", false}, nullptr},
    };
    // A relative "Mount" path is taken below the start directory, as the mounts file is.
    ASSERT_NE(std::filesystem::current_path(), s.dir().path());
    EXPECT_FALSE(api.check_mount({"disk", "\\pub", "rel", false}).refusal);
    EXPECT_EQ(api.check_mount({"nodisk", "\\pub", "rel", false}).refusal,
              "The \"Mount\" path must exist.");
    for (const Case& c : cases) {
        MountFormResult r = api.check_mount(c.form);
        if (!c.text) {
            EXPECT_FALSE(r.refusal) << *r.refusal;
            continue;
        }
        ASSERT_TRUE(r.refusal) << c.text;
        EXPECT_EQ(*r.refusal, c.text);
    }
    MountFormResult ok = api.check_mount({disk, "pub\\", "\\music", false});
    ASSERT_FALSE(ok.refusal);
    EXPECT_EQ(ok.mount_to, "\\pub");
    EXPECT_EQ(ok.as, "music");
    EXPECT_EQ(ok.target, "\\pub\\music");
}

TEST(AdminMounts, AddEditAndDeleteRunTheMountThreads) {
    test::TestServer s({}, [](test::TempDir& d) {
        std::filesystem::create_directories(d / "home/pub");
        d.write("disk/a/song.txt", "la");
        d.write("disk2/b.txt", "b");
    });
    AdminApi api(s.app());
    std::string disk = (s.dir() / "disk").string();
    std::string disk2 = (s.dir() / "disk2").string();

    api.add_mount(disk + "/", "\\pub\\music");
    EXPECT_TRUE(s.wait_for_log("Single Mount thread started"));
    EXPECT_TRUE(s.wait_for_log("Single mount thread complete!"));
    EXPECT_EQ(api.vfs_child_dirs("\\pub"), std::vector<std::string>{"music"});
    EXPECT_EQ(api.vfs_child_dirs("\\pub\\music"), std::vector<std::string>{"a"});
    std::string line = disk + " - > \\pub\\music";
    EXPECT_EQ(api.mount_lines(), std::vector<std::string>{line});
    ASSERT_TRUE(api.find_mount(line));
    EXPECT_EQ(api.find_mount(line)->mount_point, "\\pub\\music");

    EXPECT_EQ(api.edit_mount(line, disk2, "\\tunes"), MountChange::Started);
    EXPECT_TRUE(s.wait_for_log("Remove Mount thread started"));
    EXPECT_TRUE(s.wait_for_log("Remove mount thread Complete."));
    EXPECT_TRUE(s.wait_for_log("  Mounting " + disk2 + "  - > \\tunes"));
    line = disk2 + " - > \\tunes";
    EXPECT_EQ(api.mount_lines(), std::vector<std::string>{line});

    EXPECT_EQ(api.delete_mount("nothing - > \\here"), MountChange::NoSuchMount);
    EXPECT_EQ(api.delete_mount(line), MountChange::Started);
    EXPECT_TRUE(api.mount_lines().empty());
    s.stop();
    EXPECT_EQ(s.dir().read("mounts"), "");
}

TEST(AdminCall, AStoppedLoopNeverRunsTheStep) {
    test::TempDir dir;
    Server server(dir.path());
    server.io().stop();
    bool ran = false;
    EXPECT_FALSE(run_on_event_thread(server, [&] { ran = true; }));
    // The step stays cancelled even when the loop runs its queue later.
    server.io().restart();
    server.io().poll();
    EXPECT_FALSE(ran);
}
