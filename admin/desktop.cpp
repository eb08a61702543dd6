// The desktop front end: Qt on the calling thread, the server's event loop on a thread of its
// own. The GUI reaches the server only through AdminApi; the server reaches the GUI only
// through queued calls (log lines, the title, "ready").
#include "app/desktop.hpp"

#include "admin/desktop_ui.hpp"
#include "admin/instance_channel.hpp"
#include "admin/log_queue.hpp"
#include "admin/main_window.hpp"
#include "app/admin_api.hpp"
#include "app/server_app.hpp"

#include <QApplication>
#include <QSystemTrayIcon>
#include <asio.hpp>
#include <csignal>
#include <memory>
#include <thread>

namespace orv {

int run_desktop(ServerApp& app, int argc, char** argv) {
    QApplication qapp(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Orvane Server"));
    // Hidden in the tray the window is not "last closed"; only Exit or closing it ends the run.
    QApplication::setQuitOnLastWindowClosed(false);
    Server& server = app.server();

    AdminApi api(app);
    DesktopUi ui(api);
    MainWindow window(ui);
    LogQueue log_queue;
    QObject::connect(&log_queue, &LogQueue::lines_ready, &window, &MainWindow::add_log_lines);
    server.log.set_sink([&log_queue](std::string_view line) { log_queue.push(line); });
    server.set_title_sink([&window](const std::string& title) {
        QMetaObject::invokeMethod(
            &window,
            [&window, text = QString::fromStdString(title)] { window.setWindowTitle(text); },
            Qt::QueuedConnection);
    });

    InstanceChannel channel(QString::fromStdString(server.start_dir.string()));
    QObject::connect(&channel, &InstanceChannel::raise_requested, &window,
                     &MainWindow::bring_forward);

    window.place_on_screen();
    window.show();

    // SIGTERM and SIGINT end the run as File > Exit does.
    asio::signal_set stop_signals(server.io(), SIGINT, SIGTERM);
    stop_signals.async_wait([](const asio::error_code& ec, int) {
        if (!ec)
            QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    });

    std::thread event_thread([&app, &window] {
        app.start();
        QMetaObject::invokeMethod(&window, &MainWindow::add_tray_icon, Qt::QueuedConnection);
        app.run();
    });

    QApplication::exec();

    window.close_dialogs();
    if (window.tray_icon())
        window.tray_icon()->hide();
    app.request_stop();
    event_thread.join();
    asio::error_code ignored;
    stop_signals.cancel(ignored);
    app.shutdown();
    // The window goes with this function: later lines only reach the debug file.
    server.set_title_sink(nullptr);
    server.log.set_sink([](std::string_view) {});
    return 0;
}

void raise_running_instance(const char* start_dir) {
    std::unique_ptr<QCoreApplication> own_app;
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "orvane-server";
        static char* argv[] = {name, nullptr};
        own_app = std::make_unique<QCoreApplication>(argc, argv);
    }
    ask_running_instance_to_raise(QString::fromLocal8Bit(start_dir));
}

} // namespace orv
