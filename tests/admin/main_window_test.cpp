// The main window with a running server: log panel, title, menus, tray entries, the second
// start, and the helpers that leave the program (editor, instance channel).
#include "admin/desktop_session.hpp"
#include "admin/editor.hpp"
#include "admin/log_view.hpp"
#include "app/desktop.hpp"
#include "app/server_app.hpp"
#include "harness.hpp"

#include <QMenuBar>
#include <QMessageBox>
#include <QSystemTrayIcon>
#include <QtTest>
#include <thread>

using namespace orv;

namespace {

struct DesktopFixture {
    DesktopFixture() {
        ftp_port = test::free_port();
        dir.write("settings.ini", "[Server_Settings]\nserverhome=" + (dir / "home").string() +
                                      "\nmaxusers=2\n[Services]\nftp=1\nftp_port=" +
                                      std::to_string(ftp_port) + "\n");
        std::filesystem::create_directories(dir / "home");
        app = std::make_unique<ServerApp>(dir.path(), nullptr);
        session = std::make_unique<DesktopSession>(*app);
        session->ui().open_editor = [this](const QString& file) {
            edited << file;
            return true;
        };
        session->start();
    }
    MainWindow& window() { return session->window(); }
    QStringList log_texts() {
        QStringList out;
        for (int i = 0; i < window().log_view()->count(); ++i)
            out << window().log_view()->item(i)->text();
        return out;
    }

    test::TempDir dir;
    int ftp_port = 0;
    std::unique_ptr<ServerApp> app;
    std::unique_ptr<DesktopSession> session;
    QStringList edited;
};

QAction* menu_action(QMainWindow& window, const QString& menu, const QString& item) {
    for (QAction* top : window.menuBar()->actions())
        if (top->text() == menu)
            for (QAction* a : top->menu()->actions())
                if (a->text() == item)
                    return a;
    return nullptr;
}

QAction* tray_action(MainWindow& window, const QString& item) {
    for (QAction* a : window.tray_menu()->actions())
        if (a->text() == item)
            return a;
    return nullptr;
}

void write_script(const test::TempDir& dir, const char* relative, const std::string& body) {
    dir.write(relative, "#!/bin/sh\n" + body + "\n");
    std::filesystem::permissions(dir / relative, std::filesystem::perms::owner_all);
}

} // namespace

class MainWindowTest : public QObject {
    Q_OBJECT
  private slots:
    void log_and_title_follow_the_server();
    void dialog_entries_are_greyed_while_open();
    void help_about_minimising_and_a_second_start();
    void log_lines_from_many_threads_arrive_in_order();
    void editor_is_the_desktop_opener_or_visual();
};

void MainWindowTest::log_and_title_follow_the_server() {
    DesktopFixture f;
    QTRY_COMPARE(f.window().windowTitle(), QStringLiteral("Orvane Server - 0 Users"));
    QTRY_VERIFY(f.log_texts().contains(QStringLiteral("Ready...")));
    QVERIFY(f.log_texts().contains(QStringLiteral("  FTP - Ok.  port %1").arg(f.ftp_port)));
    {
        test::TestClient a(f.ftp_port);
        QTRY_COMPARE(f.window().windowTitle(), QStringLiteral("Orvane Server - 1 Users"));
    }
    QTRY_COMPARE(f.window().windowTitle(), QStringLiteral("Orvane Server - 0 Users"));

    f.session->stop();
    // Every line also reached the debug file, shutdown lines included.
    std::string debug = f.dir.read("debug.txt");
    QVERIFY(debug.find("Ready...\r\n") != std::string::npos);
    QVERIFY(debug.find("  FTP - Disabled\r\n") != std::string::npos);
    QVERIFY(std::filesystem::exists(f.dir / "users"));
}

void MainWindowTest::dialog_entries_are_greyed_while_open() {
    DesktopFixture f;
    struct Entry {
        const char* menu;
        const char* tray;
        std::function<QWidget*()> dialog;
    };
    const Entry entries[] = {
        {"&Server", "&Server", [&] { return (QWidget*)f.window().server_dialog(); }},
        {"&Users", "&Users", [&] { return (QWidget*)f.window().user_dialog(); }},
        {"&Groups", "&Groups", [&] { return (QWidget*)f.window().group_dialog(); }},
    };
    for (const Entry& e : entries) {
        QAction* menu =
            menu_action(f.window(), QString::fromLatin1(e.menu), QStringLiteral("&Options..."));
        QAction* tray = tray_action(f.window(), QString::fromLatin1(e.tray));
        QVERIFY(menu && tray);
        QVERIFY(menu->isEnabled() && tray->isEnabled());
        menu->trigger();
        QWidget* dialog = e.dialog();
        QVERIFY(dialog && dialog->isVisible());
        QVERIFY(!menu->isEnabled());
        QVERIFY(!tray->isEnabled());
        dialog->close();
        QTRY_VERIFY(menu->isEnabled() && tray->isEnabled());
        QVERIFY(!e.dialog());
    }
}

void MainWindowTest::help_about_minimising_and_a_second_start() {
    DesktopFixture f;
    QTRY_VERIFY(f.log_texts().contains(QStringLiteral("Ready...")));
    menu_action(f.window(), QStringLiteral("&Help"), QStringLiteral("&Help"))->trigger();
    QCOMPARE(f.edited, QStringList{QStringLiteral("ov-help.txt")});
    std::unique_ptr<QMessageBox> about(f.window().make_about_box());
    QVERIFY(about->text().contains(QStringLiteral(ORVANE_VERSION)));
    QVERIFY(!about->iconPixmap().isNull());

    // Without a tray, minimising keeps the window.
    QVERIFY(!f.window().tray_icon() || QSystemTrayIcon::isSystemTrayAvailable());
    f.window().showMinimized();
    QTest::qWait(50);
    QVERIFY(f.window().isVisible());

    // A second start on the same directory brings the window forward; another directory's
    // channel is a different one.
    f.window().hide();
    raise_running_instance(f.dir.path().c_str());
    QTRY_VERIFY(f.window().isVisible());
    QVERIFY(instance_channel_name(QStringLiteral("/a")) !=
            instance_channel_name(QStringLiteral("/b")));
    QVERIFY(!ask_running_instance_to_raise(QStringLiteral("/no/such/start/dir"), 200));
}

void MainWindowTest::log_lines_from_many_threads_arrive_in_order() {
    LogQueue queue;
    std::vector<std::string> got;
    QObject::connect(&queue, &LogQueue::lines_ready, [&](const std::vector<std::string>& lines) {
        got.insert(got.end(), lines.begin(), lines.end());
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&queue, t] {
            for (int i = 0; i < 100; ++i)
                queue.push(std::to_string(t) + ":" + std::to_string(i));
        });
    for (auto& th : threads)
        th.join();
    QTRY_COMPARE(got.size(), size_t(400));
    int next[4] = {0, 0, 0, 0};
    for (const std::string& line : got) {
        int t = line[0] - '0';
        QCOMPARE(line, std::to_string(t) + ":" + std::to_string(next[t]++));
    }
}

void MainWindowTest::editor_is_the_desktop_opener_or_visual() {
    test::TempDir dir;
    std::filesystem::create_directories(dir / "bin");
    std::filesystem::create_directories(dir / "start");
    write_script(dir, "bin/xdg-open", "echo \"$PWD|$1\" > " + (dir / "opened").string());
    write_script(dir, "visual", "echo \"$PWD|$1|$2\" > " + (dir / "visual-opened").string());
    QByteArray old_path = qgetenv("PATH");
    QString start = QString::fromStdString((dir / "start").string());

    qputenv("PATH", QByteArray::fromStdString((dir / "bin").string()));
    QVERIFY(open_in_text_editor(start + "/motd.txt", start));
    QTRY_VERIFY(std::filesystem::exists(dir / "opened"));
    QTRY_COMPARE(QString::fromStdString(dir.read("opened")), start + "|" + start + "/motd.txt\n");

    // Without the desktop's opener, $VISUAL (with its own arguments) is used.
    qputenv("PATH", QByteArray::fromStdString((dir / "start").string()));
    qputenv("VISUAL", QByteArray::fromStdString((dir / "visual").string() + " --wait"));
    QVERIFY(open_in_text_editor(start + "/ov-help.txt", start));
    QTRY_VERIFY(std::filesystem::exists(dir / "visual-opened"));
    QTRY_COMPARE(QString::fromStdString(dir.read("visual-opened")),
                 start + "|--wait|" + start + "/ov-help.txt\n");

    qunsetenv("VISUAL");
    qunsetenv("EDITOR");
    QVERIFY(!open_in_text_editor(start + "/ov-help.txt", start));
    qputenv("PATH", old_path);
}

QTEST_MAIN(MainWindowTest)
#include "main_window_test.moc"
