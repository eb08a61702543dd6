#pragma once
// The log panel: the list of logged lines under the window's rules (LogPanelModel), scrolled
// to the newest line. Lines arrive on the GUI thread in batches.
#include "core/log_panel.hpp"

#include <QListWidget>
#include <string>
#include <vector>

namespace orv {

class LogView : public QListWidget {
    Q_OBJECT
  public:
    explicit LogView(QWidget* parent = nullptr);
    void add_lines(const std::vector<std::string>& lines);
    const LogPanelModel& model_lines() const { return model_; }

  private:
    LogPanelModel model_;
};

} // namespace orv
