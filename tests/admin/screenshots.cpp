// Takes the README's pictures: starts a small demo server with the desktop window, opens each
// dialog with sample data and saves a PNG of it. Run by scripts/screenshots.sh under Xvfb.
#include "accounts/password.hpp"
#include "admin/app_icon.hpp"
#include "admin/browse_dialog.hpp"
#include "admin/desktop_session.hpp"
#include "admin/mount_dialog.hpp"
#include "app/server_app.hpp"
#include "harness.hpp"
#include "support/temp_dir.hpp"
#include "support/test_server.hpp"

#include <QApplication>
#include <QComboBox>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPainter>
#include <QTreeWidget>
#include <cstdio>
#include <functional>

using namespace orv;

namespace {

bool wait_until(const std::function<bool()>& done, int ms = 5000) {
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}

void settle() {
    wait_until([] { return false; }, 300);
}

// The virtual display has no window manager, so the caption that a desktop would draw (icon and
// title) is drawn here above the window's own pixels.
QPixmap with_caption(QWidget* widget) {
    QPixmap body = widget->grab();
    const int bar = 26;
    QPixmap out(body.width() + 2, body.height() + bar + 1);
    out.fill(QColor(0x3c, 0x3f, 0x44));
    QPainter p(&out);
    p.drawPixmap(4, 5, app_pixmap(16));
    p.setPen(Qt::white);
    QFont font = widget->font();
    font.setBold(true);
    p.setFont(font);
    p.drawText(QRect(26, 0, out.width() - 30, bar), Qt::AlignVCenter | Qt::AlignLeft,
               widget->windowTitle());
    p.drawPixmap(1, bar, body);
    return out;
}

bool save(QWidget* widget, const QString& dir, const char* name) {
    widget->show();
    widget->raise();
    settle();
    QString path = dir + QLatin1Char('/') + QString::fromLatin1(name);
    bool ok = with_caption(widget).save(path, "PNG");
    std::printf("%s %s\n", ok ? "wrote" : "FAILED", path.toLocal8Bit().constData());
    return ok;
}

// Opens the host tree's root, showing only the usual top-level directories of a Linux system
// (the build machine's own extras are of no interest in the pictures).
void open_host_root(QWidget* dialog) {
    static const QStringList usual = {"bin", "boot", "dev",  "etc", "home", "lib", "media",
                                      "mnt", "opt",  "root", "srv", "tmp",  "usr", "var"};
    QTreeWidgetItem* root =
        dialog->findChild<QTreeWidget*>(QStringLiteral("tree1"))->topLevelItem(0);
    root->setExpanded(true);
    for (int i = 0; i < root->childCount(); ++i)
        root->child(i)->setHidden(!usual.contains(root->child(i)->text(0)));
}

std::string user_line(const char* name, int uid, const char* password, int flags,
                      const char* home) {
    return std::string(name) + ":" + std::to_string(uid) + ":" +
           encode_password(name, password).value_or("") + ":3:" + std::to_string(flags) + ":" +
           home + "\n";
}

void prepare_demo(const test::TempDir& d, int ftp_port, int telnet_port) {
    d.write("settings.ini", "[Server_Settings]\nserverhome=" + (d / "home").string() +
                                "\nmaxusers=20\n[Services]\ntelnet=1\nftp=1\ntelnet_port=" +
                                std::to_string(telnet_port) +
                                "\nftp_port=" + std::to_string(ftp_port) + "\n");
    d.write("users", user_line("ops", 10, "ops-secret", 15, "\\") +
                         user_line("anna", 101, "anna-secret", 15, "\\pub") +
                         user_line("bob", 102, "bob-secret", 4, "\\pub") +
                         user_line("guest", 103, "guest-secret", 4, "\\pub\\docs"));
    d.write("groups", "staff:101:anna:bob\neditors:102:anna\n");
    d.write("home/pub/docs/manual.txt", "manual\n");
    d.write("home/pub/readme.txt", "hello\n");
    d.write("home/incoming/.keep", "");
    d.write("home/projects/site/index.html", "<html></html>\n");
    d.write("media/music/track01.txt", "la\n");
    d.write("media/photos/2024/img.txt", "x\n");
    d.write("mounts", (d / "media").string() + "|\\pub\\media\n");
}

} // namespace

int main(int argc, char** argv) {
    QApplication qapp(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(".");

    test::TempDir demo;
    // Ports the settings dialog accepts, as a real configuration would have.
    int ftp_port = test::free_port();
    prepare_demo(demo, ftp_port, test::free_port());
    ServerApp app(demo.path(), nullptr);
    DesktopSession session(app);
    session.start();
    MainWindow& window = session.window();
    if (!wait_until([&] { return window.windowTitle().contains(QLatin1String("Users")); })) {
        std::fprintf(stderr, "the demo server did not start\n");
        return 1;
    }
    // A session or two, so that the log shows some traffic.
    test::TestClient ftp(ftp_port);
    ftp.read_until("ready.\r\n");
    ftp.send("USER anna\r\n");
    ftp.read_until("\r\n");
    ftp.send("PASS anna-secret\r\n");
    ftp.read_until("230 anna user logged in.\r\n");
    settle();

    // The host trees open on the current drive: make that the top of the disk.
    out = QDir(out).absolutePath();
    QDir::setCurrent(QDir::rootPath());

    bool ok = save(&window, out, "main-window.png");

    window.open_server_settings();
    ok = save(window.server_dialog(), out, "server-settings.png") && ok;
    window.server_dialog()->close();

    window.open_user_settings();
    auto* user_name = window.user_dialog()->findChild<QComboBox*>(QStringLiteral("name"));
    int anna = user_name->findText(QStringLiteral("anna"));
    user_name->setCurrentIndex(anna);
    emit user_name->activated(anna);
    ok = save(window.user_dialog(), out, "user-settings.png") && ok;
    window.user_dialog()->close();

    window.open_group_settings();
    auto* group_name = window.group_dialog()->findChild<QComboBox*>(QStringLiteral("name"));
    int staff = group_name->findText(QStringLiteral("staff"));
    group_name->setCurrentIndex(staff);
    emit group_name->activated(staff);
    ok = save(window.group_dialog(), out, "group-settings.png") && ok;
    window.group_dialog()->close();

    {
        // A new mount being typed in; the host tree stays at the top of the disk.
        MountDialog mounts(session.ui(), nullptr, QString(), QString());
        open_host_root(&mounts);
        auto* vfs = mounts.findChild<QTreeWidget*>(QStringLiteral("tree2"));
        vfs->topLevelItem(0)->setExpanded(true);
        for (int i = 0; i < vfs->topLevelItem(0)->childCount(); ++i)
            if (vfs->topLevelItem(0)->child(i)->text(0) == QLatin1String("pub"))
                vfs->setCurrentItem(vfs->topLevelItem(0)->child(i));
        mounts.findChild<QLineEdit*>(QStringLiteral("mount"))
            ->setText(QStringLiteral("/srv/photos"));
        mounts.findChild<QLineEdit*>(QStringLiteral("as"))->setText(QStringLiteral("photos"));
        ok = save(&mounts, out, "mounts.png") && ok;
    }
    {
        BrowseDialog browse(session.ui(), nullptr, QString(), BrowseDialog::Source::Host);
        open_host_root(&browse);
        browse.findChild<QLineEdit*>(QStringLiteral("current_path"))
            ->setText(QStringLiteral("/srv/ftp"));
        ok = save(&browse, out, "browse.png") && ok;
    }
    {
        std::unique_ptr<QMessageBox> about(window.make_about_box());
        ok = save(about.get(), out, "about.png") && ok;
    }
    ftp.close();
    session.stop();
    return ok ? 0 : 1;
}
