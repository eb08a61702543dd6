// Path resolution, permissions, wildcards and tree edits on small trees built in memory.
#include "accounts/accounts.hpp"
#include "vfs/tree.hpp"

#include <gtest/gtest.h>

using namespace orv;

namespace {

NodePtr add(const NodePtr& dir, const std::string& name, char kind = 'd') {
    auto node = std::make_shared<VfsNode>();
    node->name = name;
    node->kind = kind;
    node->parent = dir;
    dir->children.push_back(node);
    return node;
}

std::shared_ptr<User> make_user(int uid, const std::string& name) {
    auto user = std::make_shared<User>();
    user->uid = static_cast<int16_t>(uid);
    user->name = name;
    return user;
}

// \data\pub\readme.txt, \data\Pub2, \etc, \a\b\c
struct SmallTree {
    VfsTree tree;
    NodePtr data, pub, readme, etc, c;
    SmallTree() {
        tree.home = "/srv/home";
        tree.root = std::make_shared<VfsNode>();
        tree.root->kind = 'd';
        data = add(tree.root, "data");
        pub = add(data, "pub");
        readme = add(pub, "readme.txt", '-');
        add(data, "Pub2");
        etc = add(tree.root, "etc");
        c = add(add(add(tree.root, "a"), "b"), "c");
    }
    NodePtr find(std::string_view path, const NodePtr& cwd = nullptr) const {
        return find_node(tree, path, cwd ? cwd : tree.root);
    }
};

} // namespace

TEST(PathResolve, AbsoluteRelativeAndDots) {
    SmallTree t;
    EXPECT_EQ(t.find("/", t.pub), t.tree.root);
    EXPECT_EQ(t.find(".."), t.tree.root);
    EXPECT_EQ(t.find("..\\..\\etc", t.pub), t.tree.root->children[1]);
    EXPECT_EQ(t.find("../../../../etc", t.pub), t.etc);
    EXPECT_EQ(t.find("a\\b/c"), t.c);
    EXPECT_EQ(t.find(".\\pub\\.\\readme.txt", t.data), t.readme);
    EXPECT_EQ(t.find("\\data\\pub\\", t.etc), t.pub); // trailing separator is harmless
    EXPECT_EQ(t.find("."), t.tree.root);
}

TEST(PathResolve, Misses) {
    SmallTree t;
    EXPECT_EQ(t.find(""), nullptr);
    EXPECT_EQ(t.find("\\data\\Pub"), nullptr);                // case-sensitive
    EXPECT_EQ(t.find("data//pub"), nullptr);                  // empty component
    EXPECT_EQ(t.find("//data"), nullptr);                     // two leading separators
    EXPECT_EQ(t.find("\\data\\pub\\readme.txt\\x"), nullptr); // through a file
    EXPECT_EQ(find_node(t.tree, "pub", nullptr), nullptr);    // relative without a cwd
    EXPECT_EQ(find_child(*t.data, ""), nullptr);
}

TEST(PathResolve, VirtualAndRealPaths) {
    SmallTree t;
    EXPECT_EQ(node_virtual_path(*t.pub, '\\'), "\\data\\pub");
    EXPECT_EQ(node_virtual_path(*t.tree.root, '\\'), "\\");
    EXPECT_EQ(node_real_path(t.tree, *t.tree.root), "/srv/home");

    // Below a mount the mount's real directory stands for the mount point.
    auto mount = std::make_shared<MountRec>(MountRec{"/mnt/disk", "\\data\\pub"});
    t.pub->mount = mount;
    t.readme->mount = mount;
    NodePtr deep = add(add(t.pub, "x"), "y.bin", '-');
    deep->mount = mount;
    deep->parent_node()->mount = mount;
    EXPECT_EQ(node_real_path(t.tree, *t.pub), "/mnt/disk");
    EXPECT_EQ(node_real_path(t.tree, *deep), "/mnt/disk/x/y.bin");
    EXPECT_EQ(node_virtual_path(*deep, '/'), "/data/pub/x/y.bin");
    HostPath split = node_host_path(t.tree, *deep);
    EXPECT_EQ(split.base, "/mnt/disk");
    EXPECT_EQ(split.relative, "x/y.bin");
    EXPECT_EQ(node_host_path(t.tree, *t.pub).relative, "") << "the mount point is its base";

    // The 4,096-byte limit counts the separator before the new name.
    std::string name(4096 - 1 - 4, 'n'); // "\etc" + "\" + name = 4096 bytes
    EXPECT_TRUE(virtual_path_fits(*t.etc, name));
    EXPECT_FALSE(virtual_path_fits(*t.etc, name + "n"));
    EXPECT_FALSE(virtual_path_fits(*t.etc, name, 1)) << "the depth below a moved directory counts";
    EXPECT_TRUE(virtual_path_fits(*t.tree.root, std::string(4095, 'r')));

    // A node cut off the tree has no host path any more.
    unlink_node(t.etc, nullptr);
    EXPECT_EQ(node_real_path(t.tree, *t.etc), "");
    t.tree.home.clear();
    EXPECT_EQ(node_real_path(t.tree, *t.c), "");
}

TEST(NextWord, BlanksAndQuotes) {
    std::string text = "  one \"two words\" three";
    EXPECT_EQ(next_word(text), "one");
    EXPECT_EQ(next_word(text), "two words");
    EXPECT_EQ(next_word(text), "three");

    text = "\"unclosed quote here";
    EXPECT_EQ(next_word(text), "unclosed quote here");
    EXPECT_EQ(text, "");
    text = "\"\" rest ";
    EXPECT_EQ(next_word(text), "");
    EXPECT_EQ(text, "rest ");
    text = "a\"b c";
    EXPECT_EQ(next_word(text), "a\"b");
    EXPECT_EQ(text, "c");
}

TEST(Wildcard, BaseAndExtensionRules) {
    struct Case {
        std::string name, pattern;
        bool match;
    };
    const std::string long_base(40, 'q');
    const Case cases[] = {
        {"readme", "*.*", true},     // no dot, still matches
        {"a.b.txt", "a*.txt", true}, // base a, extension txt
        {"abc.txt", "b*.txt", false},
        {"readme", "*.txt", false},
        {"file.c", "fil?.?", true},
        {"fil.c", "fil?.c", false},
        {"File.c", "file.c", false},  // case-sensitive
        {"x.tar.gz", "x.gz", true},   // extension after the last dot
        {"notes.md", "notes.", true}, // empty extension pattern is "*"
        {"notes", "notes.md", false},
        {"abc", "ab", false},
        // Parts are held in 31 characters.
        {long_base + ".txt", std::string(31, 'q') + ".txt", true},
    };
    for (const Case& c : cases)
        EXPECT_EQ(wildcard_match(c.name, c.pattern), c.match) << c.name << " " << c.pattern;
    EXPECT_TRUE(has_wildcard("a*b") && has_wildcard("?") && !has_wildcard("plain.txt"));
}

TEST(Wildcard, FirstAndNextInChainOrder) {
    SmallTree t;
    add(t.pub, "b.txt", '-');
    add(t.pub, "notes", '-');
    add(t.pub, "a.txt", '-');
    EXPECT_EQ(match_first(*t.pub, "*.*"), t.readme); // the first child, whatever its name
    NodePtr m = match_first(*t.pub, "?.txt");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->name, "b.txt");
    m = match_next(*m, "?.txt");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->name, "a.txt");
    EXPECT_EQ(match_next(*m, "?.txt"), nullptr);
    EXPECT_EQ(match_first(*t.pub, "zz*"), nullptr);
}

TEST(Permissions, OwnerGroupOtherAndSuperUsers) {
    SmallTree t;
    auto anna = make_user(200, "anna");
    auto bob = make_user(201, "bob");
    auto admin = make_user(10, "admin");
    auto placeholder = make_user(65535, "root");
    Group staff;
    staff.name = "staff";
    bob->memberships.push_back(&staff);

    VfsNode& f = *t.readme;
    f.owner = anna;
    f.flags = {0, 0, 0, 0, 0, 0, 1, 0, 0}; // other r only
    EXPECT_TRUE(can_read(anna.get(), f));  // "other" applies to the owner too
    EXPECT_FALSE(can_write(anna.get(), f));

    f.flags = {1, 1, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_TRUE(can_read(anna.get(), f));
    EXPECT_TRUE(can_write(anna.get(), f));
    EXPECT_FALSE(can_read(bob.get(), f));

    f.group = std::shared_ptr<Group>(&staff, [](Group*) {});
    f.flags = {0, 0, 0, 1, 0, 0, 0, 0, 0};
    EXPECT_TRUE(can_read(bob.get(), f));
    EXPECT_FALSE(can_write(bob.get(), f));
    EXPECT_FALSE(can_read(anna.get(), f)); // owner, but not in the group

    f.flags = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_TRUE(can_read(admin.get(), f) && can_write(admin.get(), f));
    EXPECT_TRUE(can_write(placeholder.get(), f)); // ID 65535 is -1: a super user
    EXPECT_FALSE(can_read(nullptr, f));           // no completed login
    f.flags.fill(1);
    EXPECT_FALSE(can_read(nullptr, f));

    f.status = kStatusUnmounting;
    EXPECT_FALSE(can_read(admin.get(), f));
    EXPECT_FALSE(can_write(admin.get(), f));
    EXPECT_FALSE(can_read_path(admin.get(), f));
    f.status = kStatusBusy;
    EXPECT_TRUE(can_read(anna.get(), f));

    // The directories above do not matter for reading a file.
    f.status = kStatusNormal;
    f.flags = {1, 0, 0, 0, 0, 0, 0, 0, 0};
    t.pub->flags.fill(0);
    t.pub->owner = bob;
    EXPECT_TRUE(can_read_path(anna.get(), f));
    EXPECT_FALSE(can_read_path(bob.get(), f));

    EXPECT_TRUE(may_change_owner_fields(anna.get(), f));
    EXPECT_FALSE(may_change_owner_fields(bob.get(), f));
    EXPECT_TRUE(may_change_owner_fields(admin.get(), f));
    EXPECT_TRUE(may_change_owner_fields(make_user(99, "x").get(), f));
    EXPECT_FALSE(may_change_owner_fields(make_user(100, "y").get(), f));
    EXPECT_FALSE(may_change_owner_fields(nullptr, f));
}

TEST(TreeEdit, NewNames) {
    EXPECT_TRUE(valid_new_name("report.txt"));
    EXPECT_TRUE(valid_new_name(std::string(255, 'n')));
    EXPECT_FALSE(valid_new_name(std::string(256, 'n')));
    for (std::string_view bad : {"", ".", "..", "a/b", "a\\b", "c:d", "x\ny", "x\r"})
        EXPECT_FALSE(valid_new_name(bad)) << bad;
    EXPECT_FALSE(valid_new_name(std::string_view("nul\0x", 5)));
    EXPECT_TRUE(valid_new_name("..."));
}

TEST(TreeEdit, AddUnlinkRelinkAndFree) {
    SmallTree t;
    std::atomic<long> memory{0};
    Accounts accounts(&memory);
    auto anna = make_user(200, "anna");
    auto mount = std::make_shared<MountRec>(MountRec{"/mnt/x", "\\etc"});
    t.etc->mount = mount;
    t.etc->flags = {1, 1, 1, 1, 0, 1, 0, 0, 0};
    t.etc->group = std::make_shared<Group>();

    NodePtr made = add_node(t.tree, accounts, t.etc, "new.txt", '-', 42, anna, &memory);
    EXPECT_EQ(t.etc->children.back(), made);
    EXPECT_EQ(made->mount, mount);
    EXPECT_EQ(made->group, t.etc->group);
    EXPECT_EQ(made->flags, t.etc->flags);
    EXPECT_EQ(memory.load(), VfsTree::kNodeRecordSize);

    // Without a user the owner is the made-up "root".
    NodePtr dir = add_node(t.tree, accounts, t.tree.root, "incoming", 'd', 0, nullptr, &memory);
    ASSERT_TRUE(dir->owner);
    EXPECT_EQ(dir->owner->name, "root");
    EXPECT_TRUE(dir->owner->is_super());
    EXPECT_EQ(accounts.find_user("root"), dir->owner);

    // Moving a subtree gives it the destination's mount.
    EXPECT_TRUE(relink_node(t.data, t.etc));
    EXPECT_EQ(t.etc->children.back(), t.data);
    EXPECT_EQ(t.readme->mount, mount);
    EXPECT_EQ(find_node(t.tree, "\\etc\\data\\pub\\readme.txt", t.tree.root), t.readme);
    EXPECT_EQ(find_node(t.tree, "\\data", t.tree.root), nullptr);
    EXPECT_FALSE(relink_node(t.etc, t.pub)); // into its own subtree

    long before = memory.load();
    unlink_node(t.data, &memory); // data, pub, readme, Pub2
    EXPECT_EQ(memory.load(), before - 4 * VfsTree::kNodeRecordSize);
    EXPECT_EQ(t.data->parent_node(), nullptr);
    EXPECT_EQ(find_child(*t.etc, "data"), nullptr);
    EXPECT_EQ(t.pub->parent_node(), t.data); // the subtree goes along with it

    std::vector<NodePtr> graveyard;
    NodePtr a = t.c->parent_node()->parent_node();
    free_subtree(a, &memory, graveyard);
    EXPECT_EQ(graveyard.size(), 3u);
    EXPECT_TRUE(a->children.empty());
    EXPECT_EQ(t.c->parent_node(), nullptr);    // a session holding c holds it alone
    EXPECT_EQ(count_subtree(*t.tree.root), 4); // root, etc, etc\new.txt, incoming
}
