// The busy mark: taken only from a normal node, given back once, and never over an unmount's
// own mark.
#include "vfs/busy_mark.hpp"

#include <gtest/gtest.h>

using namespace orv;

TEST(BusyMark, TakenOnceGivenBackOnceAndNeverOverAnUnmount) {
    auto node = std::make_shared<VfsNode>();
    {
        BusyMark first(node);
        EXPECT_TRUE(first);
        EXPECT_EQ(node->status, kStatusBusy);
        BusyMark second(node); // somebody else's command finds it busy
        EXPECT_FALSE(second);
        BusyMark moved = std::move(first);
        EXPECT_TRUE(moved);
        EXPECT_FALSE(first); // NOLINT: the moved-from mark is empty and gives nothing back
    }
    EXPECT_EQ(node->status, kStatusNormal);

    // An unmount claims the node while the mark is held: the mark's end leaves that claim.
    {
        BusyMark held(node);
        node->status = kStatusUnmounting;
    }
    EXPECT_EQ(node->status, kStatusUnmounting);
    EXPECT_FALSE(BusyMark(node));
    EXPECT_FALSE(BusyMark(nullptr));
}
