#include "core/log.hpp"
#include "core/log_panel.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace orv;

TEST(Log, DebugFileAddsLineEndOnlyWhenMissing) {
    test::TempDir dir;
    Log log;
    log.set_debug_file(dir / "debug.txt");
    log.log_message("lost"); // nothing is written before a sink is set
    EXPECT_FALSE(std::filesystem::exists(dir / "debug.txt"));
    std::vector<std::string> seen;
    log.set_sink([&](std::string_view t) { seen.emplace_back(t); });
    log.log_message("Ready...");
    log.log_message("already\r\n");
    log.logf("(%i) %s", 7, "LIST");
    EXPECT_EQ(dir.read("debug.txt"), "Ready...\r\nalready\r\n(7) LIST\r\n");
    EXPECT_EQ(seen, (std::vector<std::string>{"Ready...", "already\r\n", "(7) LIST"}));
}

TEST(Log, ManyThreadsLoseNoLine) {
    test::TempDir dir;
    Log log;
    log.set_sink([](std::string_view) {});
    log.set_debug_file(dir / "debug.txt");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i)
                log.logf("t%d line %d", t, i);
        });
    for (auto& th : threads)
        th.join();
    std::string text = dir.read("debug.txt");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 200);
}

TEST(LogPanel, KeepsLast513LinesInSteadyState) {
    LogPanelModel panel;
    for (int i = 0; i < 600; ++i)
        panel.add("line " + std::to_string(i));
    ASSERT_EQ(panel.lines().size(), 513u);
    EXPECT_EQ(panel.lines().front(), "line 87");
    EXPECT_EQ(panel.lines().back(), "line 599");
}
