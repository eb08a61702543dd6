#include "admin/main_window.hpp"

#include "admin/app_icon.hpp"
#include "admin/group_dialog.hpp"
#include "admin/log_view.hpp"
#include "admin/settings_dialog.hpp"
#include "admin/user_dialog.hpp"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTimer>

namespace orv {

MainWindow::MainWindow(DesktopUi& ui) : ui_(ui) {
    setObjectName(QStringLiteral("main_window"));
    setWindowTitle(QStringLiteral("Orvane Server"));
    setWindowIcon(app_icon());
    log_ = new LogView(this);
    setCentralWidget(log_);
    build_menus();
    resize(480, 400);
}

MainWindow::~MainWindow() {
    close_dialogs();
}

void MainWindow::build_menus() {
    QMenu* file = menuBar()->addMenu(QStringLiteral("&File"));
    file->addAction(QStringLiteral("E&xit"), qApp, &QCoreApplication::quit);
    QMenu* server = menuBar()->addMenu(QStringLiteral("&Server"));
    server_actions_ << server->addAction(QStringLiteral("&Options..."), this,
                                         &MainWindow::open_server_settings);
    QMenu* groups = menuBar()->addMenu(QStringLiteral("&Groups"));
    group_actions_ << groups->addAction(QStringLiteral("&Options..."), this,
                                        &MainWindow::open_group_settings);
    QMenu* users = menuBar()->addMenu(QStringLiteral("&Users"));
    user_actions_ << users->addAction(QStringLiteral("&Options..."), this,
                                      &MainWindow::open_user_settings);
    QMenu* help = menuBar()->addMenu(QStringLiteral("&Help"));
    help->addAction(QStringLiteral("&Help"), this, &MainWindow::open_help);
    help->addSeparator();
    help->addAction(QStringLiteral("&About"), this, [this] {
        QMessageBox* box = make_about_box();
        box->exec();
        delete box;
    });

    tray_menu_ = new QMenu(this);
    server_actions_ << tray_menu_->addAction(QStringLiteral("&Server"), this,
                                             &MainWindow::open_server_settings);
    group_actions_ << tray_menu_->addAction(QStringLiteral("&Groups"), this,
                                            &MainWindow::open_group_settings);
    user_actions_ << tray_menu_->addAction(QStringLiteral("&Users"), this,
                                           &MainWindow::open_user_settings);
    tray_menu_->addSeparator();
    tray_menu_->addAction(QStringLiteral("E&xit"), qApp, &QCoreApplication::quit);
}

void MainWindow::add_log_lines(const std::vector<std::string>& lines) {
    log_->add_lines(lines);
}

void MainWindow::place_on_screen() {
    QScreen* screen = this->screen() ? this->screen() : QGuiApplication::primaryScreen();
    if (!screen)
        return;
    QRect desktop = screen->geometry();
    int x = desktop.x() + desktop.width() / 2 - width() / 2;
    int y = desktop.y() + desktop.height() / 2 - height() / 2 - 16;
    move(x, y);
}

void MainWindow::add_tray_icon() {
    if (tray_ || !QSystemTrayIcon::isSystemTrayAvailable())
        return;
    tray_ = new QSystemTrayIcon(app_icon(), this);
    tray_->setToolTip(QStringLiteral("Orvane Server"));
    tray_->setContextMenu(tray_menu_);
    connect(tray_, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::DoubleClick)
                    bring_forward();
            });
    tray_->show();
}

void MainWindow::bring_forward() {
    showNormal();
    raise();
    activateWindow();
}

void MainWindow::changeEvent(QEvent* event) {
    QMainWindow::changeEvent(event);
    // Minimised, the window leaves the task bar and waits in the tray.
    if (event->type() == QEvent::WindowStateChange && isMinimized() && tray_ && tray_->isVisible())
        QTimer::singleShot(0, this, &QWidget::hide);
}

void MainWindow::closeEvent(QCloseEvent* event) {
    event->accept();
    QCoreApplication::quit();
}

template <typename Dialog> void MainWindow::track(Dialog* dialog) {
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowIcon(app_icon());
    connect(dialog, &QObject::destroyed, this, [this] {
        QMetaObject::invokeMethod(this, &MainWindow::update_dialog_actions, Qt::QueuedConnection);
    });
    dialog->show();
    update_dialog_actions();
}

void MainWindow::update_dialog_actions() {
    for (QAction* a : server_actions_)
        a->setEnabled(!server_dialog_);
    for (QAction* a : user_actions_)
        a->setEnabled(!user_dialog_);
    for (QAction* a : group_actions_)
        a->setEnabled(!group_dialog_);
}

void MainWindow::open_server_settings() {
    if (server_dialog_) {
        server_dialog_->raise();
        return;
    }
    server_dialog_ = new ServerSettingsDialog(ui_);
    track(server_dialog_.data());
}

void MainWindow::open_user_settings() {
    if (user_dialog_) {
        user_dialog_->raise();
        return;
    }
    user_dialog_ = new UserSettingsDialog(ui_);
    connect(user_dialog_, &UserSettingsDialog::accounts_changed, this, [this] {
        if (group_dialog_)
            group_dialog_->refresh_users();
    });
    track(user_dialog_.data());
}

void MainWindow::open_group_settings() {
    if (group_dialog_) {
        group_dialog_->raise();
        return;
    }
    group_dialog_ = new GroupSettingsDialog(ui_);
    connect(group_dialog_, &GroupSettingsDialog::accounts_changed, this, [this] {
        if (user_dialog_)
            user_dialog_->refresh();
    });
    track(group_dialog_.data());
}

void MainWindow::open_help() {
    ui_.open_editor(QStringLiteral("ov-help.txt"));
}

QMessageBox* MainWindow::make_about_box() {
    auto* box = new QMessageBox(this);
    box->setWindowTitle(QStringLiteral("About Orvane Server"));
    box->setIconPixmap(app_pixmap(64));
    box->setText(
        QStringLiteral("<b>Orvane Server</b><br>Version %1").arg(QStringLiteral(ORVANE_VERSION)));
    box->setInformativeText(QStringLiteral("FTP and Telnet file server.\n\n"
                                           "Written by the Orvane Server developers."));
    box->setStandardButtons(QMessageBox::Ok);
    return box;
}

void MainWindow::close_dialogs() {
    delete server_dialog_.data();
    delete user_dialog_.data();
    delete group_dialog_.data();
}

} // namespace orv
