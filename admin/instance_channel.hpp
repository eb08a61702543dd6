#pragma once
// How a second start brings the first window forward: the running desktop listens on a local
// socket named after its start directory; a second start on the same directory connects and
// asks it to show itself.
#include <QObject>
#include <QString>

class QLocalServer;

namespace orv {

// The same name for the same directory and user; different for different directories.
QString instance_channel_name(const QString& start_dir);

class InstanceChannel : public QObject {
    Q_OBJECT
  public:
    // Listens for the start directory. The caller holds the start directory's instance lock,
    // so a socket left behind by a crashed run can be taken over.
    explicit InstanceChannel(const QString& start_dir, QObject* parent = nullptr);
    bool listening() const;

  signals:
    void raise_requested();

  private:
    QLocalServer* server_ = nullptr;
};

// Asks the running desktop of `start_dir` to show its window; false when none answered.
bool ask_running_instance_to_raise(const QString& start_dir, int timeout_ms = 2000);

} // namespace orv
