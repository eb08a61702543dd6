#pragma once
// Carries log lines from any thread to the GUI thread: lines are queued under a lock and one
// queued call delivers everything that has gathered, so a burst of lines costs one repaint.
#include <QObject>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

class LogQueue : public QObject {
    Q_OBJECT
  public:
    using QObject::QObject;
    // Any thread.
    void push(std::string_view line);

  signals:
    // On the thread of this object, in the order the lines were pushed.
    void lines_ready(const std::vector<std::string>& lines);

  private:
    void deliver();
    std::mutex mutex_;
    std::vector<std::string> pending_;
    bool scheduled_ = false;
};

} // namespace orv
