// The desktop front end: Qt on the calling thread, the server's event loop on a thread of its
// own. The GUI reaches the server only through AdminApi; the server reaches the GUI only
// through queued calls (log lines, the title, "ready").
#include "app/desktop.hpp"

#include "admin/desktop_session.hpp"
#include "app/server_app.hpp"

#include <QApplication>
#include <asio.hpp>
#include <csignal>
#include <memory>

namespace orv {

int run_desktop(ServerApp& app, int argc, char** argv) {
    QApplication qapp(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Orvane Server"));
    // Hidden in the tray the window is not "last closed"; only Exit or closing it ends the run.
    QApplication::setQuitOnLastWindowClosed(false);

    DesktopSession session(app);
    // SIGTERM and SIGINT end the run as File > Exit does.
    asio::signal_set stop_signals(app.server().io(), SIGINT, SIGTERM);
    stop_signals.async_wait([](const asio::error_code& ec, int) {
        if (!ec)
            QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    });
    // SIGHUP re-reads settings.ini, as a Save of the settings dialog applies it.
    asio::signal_set hangups(app.server().io(), SIGHUP);
    app.watch_hangups(hangups);
    session.start();
    QApplication::exec();
    // The handler must not outlive the loop: cancel it once the event thread is gone.
    session.stop();
    asio::error_code ignored;
    stop_signals.cancel(ignored);
    hangups.cancel(ignored);
    app.server().io().restart();
    app.server().io().poll();
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
