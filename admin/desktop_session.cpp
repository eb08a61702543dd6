#include "admin/desktop_session.hpp"

#include "app/server_app.hpp"

#include <QSystemTrayIcon>

namespace orv {

DesktopSession::DesktopSession(ServerApp& app)
    : app_(app), api_(app), ui_(api_), window_(ui_),
      channel_(QString::fromStdString(app.server().start_dir.string())) {
    Server& server = app_.server();
    QObject::connect(&log_queue_, &LogQueue::lines_ready, &window_, &MainWindow::add_log_lines);
    // Both feeds are called on the event thread (and by any worker, for the log): they only
    // queue calls to the GUI thread.
    server.log.set_sink([this](std::string_view line) { log_queue_.push(line); });
    server.set_title_sink([this](const std::string& title) {
        QMetaObject::invokeMethod(
            &window_,
            [this, text = QString::fromStdString(title)] { window_.setWindowTitle(text); },
            Qt::QueuedConnection);
    });
    QObject::connect(&channel_, &InstanceChannel::raise_requested, &window_,
                     &MainWindow::bring_forward);
    window_.place_on_screen();
    window_.show();
}

DesktopSession::~DesktopSession() {
    stop();
}

void DesktopSession::start() {
    event_thread_ = std::thread([this] {
        app_.start();
        QMetaObject::invokeMethod(&window_, &MainWindow::add_tray_icon, Qt::QueuedConnection);
        app_.run();
    });
}

void DesktopSession::stop() {
    if (stopped_)
        return;
    stopped_ = true;
    window_.close_dialogs();
    if (window_.tray_icon())
        window_.tray_icon()->hide();
    app_.request_stop();
    if (event_thread_.joinable())
        event_thread_.join();
    app_.shutdown();
    // The window goes after this: later lines only reach the debug file.
    app_.server().set_title_sink(nullptr);
    app_.server().log.set_sink([](std::string_view) {});
}

} // namespace orv
