// The Server Settings dialog, driven through its widgets.
#include "admin/settings_dialog.hpp"
#include "core/server.hpp"
#include "core/settings.hpp"
#include "harness.hpp"

#include <QCheckBox>
#include <QLineEdit>
#include <QListWidget>
#include <QtTest>

using namespace orv;
using orv::test::Box;
using orv::test::child;
using orv::test::click;

class SettingsDialogTest : public QObject {
    Q_OBJECT
  private slots:
    void opens_with_the_values_in_use_and_a_refusal_changes_nothing();
    void new_ftp_port_restarts_the_listener();
    void new_home_directory_shows_the_info_box();
    void mount_buttons();
    void login_message_opens_motd_in_the_editor();
};

void SettingsDialogTest::opens_with_the_values_in_use_and_a_refusal_changes_nothing() {
    test::Harness h;
    ServerSettingsDialog dialog(h.ui);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowActive(&dialog));
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Server Settings"));
    QCOMPARE(child<QLineEdit>(&dialog, "serverhome")->text(),
             QString::fromStdString(h.server.home().string()));
    QVERIFY(child<QCheckBox>(&dialog, "ftp")->isChecked());
    QCOMPARE(child<QLineEdit>(&dialog, "ftp_port")->text(), QString::number(h.server.ftp_port()));
    auto* max_users = child<QLineEdit>(&dialog, "maxusers");
    QCOMPARE(max_users->text(), QStringLiteral("10"));

    std::string before = h.server.dir().read("settings.ini");
    size_t mark = h.log_mark();
    max_users->setText(QStringLiteral("257"));
    child<QLineEdit>(&dialog, "ftp_port")->setText(QString::number(test::free_port()));
    click(&dialog, "save");
    QCOMPARE(h.boxes, (std::vector<Box>{{"Error", "Max Users must be between 0 and 256"}}));
    QVERIFY(max_users->hasFocus());
    QCOMPARE(max_users->text(), QStringLiteral("257")); // kept for correction
    QCOMPARE(h.server.dir().read("settings.ini"), before);
    QCOMPARE(h.server.server().settings.maxusers, int16_t(10));
    QVERIFY(h.log_since(mark).empty());
}

void SettingsDialogTest::new_ftp_port_restarts_the_listener() {
    test::TestServerConfig config;
    config.telnet = false; // its port only gets stored
    test::Harness h(config);
    test::TestClient before(h.server.ftp_port());
    QVERIFY(before.read_until("ready.\r\n").starts_with("220 "));
    ServerSettingsDialog dialog(h.ui);
    int port = test::free_port();
    child<QLineEdit>(&dialog, "telnet_port")->setText(QString::number(test::free_port()));
    child<QLineEdit>(&dialog, "ftp_port")->setText(QString::number(port));
    size_t mark = h.log_mark();
    click(&dialog, "save");
    QVERIFY2(h.boxes.empty(), qPrintable(h.boxes.empty() ? QString() : h.boxes[0].text));
    QCOMPARE(h.log_since(mark),
             (std::vector<std::string>{"  FTP - Disabled",
                                       "  FTP - Ok.  port " + std::to_string(port)}));
    test::TestClient client(port);
    QVERIFY(client.read_until("ready.\r\n").starts_with("220 "));
    test::TestClient old_port;
    QVERIFY(!old_port.connect(h.server.ftp_port()));
    // A session from before the change is still served.
    QVERIFY(before.send("USER demo\r\n"));
    QCOMPARE(before.read_until("\r\n"), std::string("331 User ok need Password.\r\n"));
}

void SettingsDialogTest::new_home_directory_shows_the_info_box() {
    test::Harness h;
    std::filesystem::create_directories(h.server.dir() / "elsewhere");
    ServerSettingsDialog dialog(h.ui);
    QString home = QString::fromStdString((h.server.dir() / "elsewhere").string());
    child<QLineEdit>(&dialog, "serverhome")->setText(home);
    child<QLineEdit>(&dialog, "telnet_port")->setText(QString::number(test::free_port()));
    child<QLineEdit>(&dialog, "ftp_port")->setText(QString::number(test::free_port()));
    click(&dialog, "save");
    QCOMPARE(h.boxes, (std::vector<Box>{{"INFO!", "Server home directory change will take\r\n"
                                                  "effect next time you start the server"}}));
    QCOMPARE(QString::fromStdString(read_settings(h.server.dir() / "settings.ini").serverhome),
             home);
    // The Browse button fills the field with the picker's choice.
    h.ui.browse_host = [](QWidget*, const QString&) { return QStringLiteral("/picked"); };
    click(&dialog, "browse");
    QCOMPARE(child<QLineEdit>(&dialog, "serverhome")->text(), QStringLiteral("/picked"));
}

void SettingsDialogTest::mount_buttons() {
    test::Harness h({}, [](test::TempDir& d) { d.write("disk/a.txt", "a"); });
    std::string disk = (h.server.dir() / "disk").string();
    QString asked_real, asked_target;
    h.ui.run_mount_dialog = [&](QWidget*, const QString& real, const QString& target) {
        asked_real = real;
        asked_target = target;
        return std::optional(MountDialogResult{QString::fromStdString(disk), "\\music"});
    };
    ServerSettingsDialog dialog(h.ui);
    click(&dialog, "edit");
    click(&dialog, "delete");
    QCOMPARE(h.boxes, (std::vector<Box>{{"INFO", "Must Select Mount to Edit"},
                                        {"INFO", "Must Select Mount to Delete"}}));
    auto* list = child<QListWidget>(&dialog, "mounts");
    click(&dialog, "add");
    QVERIFY(asked_real.isEmpty());
    QVERIFY(h.server.wait_for_log("Single mount thread complete!"));
    QCOMPARE(list->count(), 1);
    QCOMPARE(list->item(0)->text(), QString::fromStdString(disk + " - > \\music"));
    // Edit opens the mount dialog on the selected mount.
    list->setCurrentRow(0);
    click(&dialog, "edit");
    QCOMPARE(asked_real, QString::fromStdString(disk));
    QCOMPARE(asked_target, QStringLiteral("\\music"));
    QVERIFY(h.server.wait_for_log("Remove mount thread Complete."));
    list->setCurrentRow(0);
    click(&dialog, "delete");
    QCOMPARE(list->count(), 0);
}

void SettingsDialogTest::login_message_opens_motd_in_the_editor() {
    test::Harness h;
    ServerSettingsDialog dialog(h.ui);
    click(&dialog, "login_message");
    QCOMPARE(h.edited, std::vector<QString>{QStringLiteral("motd.txt")});
    // Created empty so that an editor can open it; an empty message sends no lines.
    QVERIFY(std::filesystem::exists(h.server.dir() / "motd.txt"));
}

QTEST_MAIN(SettingsDialogTest)
#include "settings_dialog_test.moc"
