#pragma once
// The on-screen log list's line rules, kept apart from any widget so the desktop window and
// the tests share them: at most 513 lines in steady state, and a reset past 1000.
#include <deque>
#include <string>
#include <string_view>

namespace orv {

class LogPanelModel {
  public:
    // Adds a line; returns the index of the line to scroll to the top.
    size_t add(std::string_view text);
    const std::deque<std::string>& lines() const { return lines_; }

  private:
    std::deque<std::string> lines_;
};

} // namespace orv
