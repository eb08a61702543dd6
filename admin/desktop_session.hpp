#pragma once
// One run of the desktop inside an existing QApplication: the window and its log and title
// feeds, the second-start channel, and the server's event loop on a thread of its own.
#include "admin/desktop_ui.hpp"
#include "admin/instance_channel.hpp"
#include "admin/log_queue.hpp"
#include "admin/main_window.hpp"
#include "app/admin_api.hpp"

#include <thread>

namespace orv {

class ServerApp;

class DesktopSession {
  public:
    // Shows the window; nothing of the server runs yet.
    explicit DesktopSession(ServerApp& app);
    ~DesktopSession();
    DesktopSession(const DesktopSession&) = delete;
    DesktopSession& operator=(const DesktopSession&) = delete;

    // Starts the event thread: the tables load, the services start, then the tray icon comes.
    void start();
    // The orderly end: dialogs and tray go, the loop stops, the tables are written.
    void stop();

    MainWindow& window() { return window_; }
    DesktopUi& ui() { return ui_; }

  private:
    ServerApp& app_;
    AdminApi api_;
    DesktopUi ui_;
    MainWindow window_;
    LogQueue log_queue_;
    InstanceChannel channel_;
    std::thread event_thread_;
    bool stopped_ = false;
};

} // namespace orv
