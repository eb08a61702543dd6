// The User Settings and Group settings dialogs, driven through their widgets.
#include "admin/group_dialog.hpp"
#include "admin/user_dialog.hpp"
#include "harness.hpp"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QtTest>

using namespace orv;
using orv::test::Box;
using orv::test::child;
using orv::test::click;

namespace {

void type_user(QWidget* dialog, const char* name, const char* password) {
    child<QComboBox>(dialog, "name")->setEditText(QString::fromLatin1(name));
    child<QLineEdit>(dialog, "password")->setText(QString::fromLatin1(password));
}

void choose(QComboBox* combo, const QString& text) {
    int index = combo->findText(text);
    QVERIFY(index >= 0);
    combo->setCurrentIndex(index);
    emit combo->activated(index);
}

QStringList selected(QListWidget* list) {
    QStringList out;
    for (QListWidgetItem* item : list->selectedItems())
        out << item->text();
    out.sort();
    return out;
}

} // namespace

class AccountDialogsTest : public QObject {
    Q_OBJECT
  private slots:
    void added_user_logs_in_over_ftp();
    void choosing_a_user_shows_the_account();
    void group_members_follow_the_selection();
    void group_buttons_need_a_chosen_group();
};

void AccountDialogsTest::added_user_logs_in_over_ftp() {
    test::Harness h;
    UserSettingsDialog dialog(h.ui);
    QCOMPARE(dialog.windowTitle(), QStringLiteral("User Settings"));
    type_user(&dialog, "eve", "eve-secret");
    child<QLineEdit>(&dialog, "max_logins")->setText(QStringLiteral("3"));
    child<QLineEdit>(&dialog, "home_dir")->setText(QStringLiteral("\\"));
    child<QCheckBox>(&dialog, "ftp_in")->setChecked(true);
    size_t mark = h.log_mark();
    click(&dialog, "save");
    QVERIFY(h.boxes.empty());
    QCOMPARE(h.log_since(mark), std::vector<std::string>{"Added User (eve)"});
    QCOMPARE(child<QLabel>(&dialog, "uid")->text(), QStringLiteral("102"));
    QVERIFY(child<QComboBox>(&dialog, "name")->findText(QStringLiteral("eve")) >= 0);

    auto login = [&](std::string_view last) {
        test::TestClient c(h.server.ftp_port());
        c.read_until("ready.\r\n");
        c.send("USER eve\r\n");
        c.read_until("\r\n");
        c.send("PASS eve-secret\r\n");
        return c.read_until(last);
    };
    std::string reply = login("230 eve user logged in.\r\n");
    QVERIFY2(reply.find("230- 1 out of 3 allowed connections in use.\r\n") != std::string::npos,
             reply.c_str());
    // Unchecking Ftp IN takes the right away at once.
    child<QCheckBox>(&dialog, "ftp_in")->setChecked(false);
    click(&dialog, "save");
    QVERIFY(login("550 Login incorrect\r\n").ends_with("550 Login incorrect\r\n"));
}

void AccountDialogsTest::choosing_a_user_shows_the_account() {
    test::Harness h;
    UserSettingsDialog dialog(h.ui);
    choose(child<QComboBox>(&dialog, "name"), QStringLiteral("admin"));
    QCOMPARE(child<QLabel>(&dialog, "uid")->text(), QStringLiteral("10"));
    QCOMPARE(child<QLineEdit>(&dialog, "password")->text(), QStringLiteral("admin-pass"));
    QVERIFY(child<QCheckBox>(&dialog, "super_user")->isChecked());
    QCOMPARE(child<QLineEdit>(&dialog, "max_logins")->text(), QStringLiteral("5"));
    QVERIFY(child<QCheckBox>(&dialog, "ftp_out")->isChecked());

    // Unchecking Super-User moves the account to an ordinary ID.
    child<QCheckBox>(&dialog, "super_user")->setChecked(false);
    click(&dialog, "save");
    QCOMPARE(child<QLabel>(&dialog, "uid")->text(), QStringLiteral("102"));
    click(&dialog, "delete");
    QCOMPARE(child<QComboBox>(&dialog, "name")->findText(QStringLiteral("admin")), -1);
}

void AccountDialogsTest::group_members_follow_the_selection() {
    test::Harness h;
    UserSettingsDialog users(h.ui);
    GroupSettingsDialog groups(h.ui);
    QObject::connect(&groups, &GroupSettingsDialog::accounts_changed, &users,
                     &UserSettingsDialog::refresh);
    choose(child<QComboBox>(&users, "name"), QStringLiteral("demo"));

    auto* name = child<QComboBox>(&groups, "name");
    auto* list = child<QListWidget>(&groups, "users");
    name->setEditText(QStringLiteral("staff"));
    list->findItems(QStringLiteral("demo"), Qt::MatchExactly).first()->setSelected(true);
    size_t mark = h.log_mark();
    click(&groups, "save");
    QCOMPARE(h.log_since(mark), (std::vector<std::string>{"Added Group (staff)",
                                                          "Added User (demo) to Group (staff)."}));
    QCOMPARE(child<QLabel>(&groups, "gid")->text(), QStringLiteral("101"));
    QCOMPARE(name->currentText(), QStringLiteral("staff"));
    // The open User Settings dialog shows the new membership.
    QCOMPARE(child<QListWidget>(&users, "groups")->count(), 1);

    // Choosing the group again shows its members.
    list->clearSelection();
    choose(name, QStringLiteral("staff"));
    QCOMPARE(selected(list), QStringList{QStringLiteral("demo")});

    click(&groups, "delete");
    QCOMPARE(name->count(), 0);
    QCOMPARE(child<QListWidget>(&users, "groups")->count(), 0);
    QVERIFY(h.boxes.empty());
}

void AccountDialogsTest::group_buttons_need_a_chosen_group() {
    test::Harness h;
    GroupSettingsDialog groups(h.ui);
    QCOMPARE(groups.windowTitle(), QStringLiteral("Group settings"));
    click(&groups, "delete");
    click(&groups, "rename");
    child<QComboBox>(&groups, "name")->setEditText(QString());
    click(&groups, "save");
    QCOMPARE(h.boxes, (std::vector<Box>{{"Error", "Select a group first!"},
                                        {"Error", "Select a group first!"},
                                        {"Error", "Group name required!"}}));
    // With a group chosen, Rename has nothing to do.
    h.boxes.clear();
    h.api.save_group("ops", {});
    GroupSettingsDialog again(h.ui);
    choose(child<QComboBox>(&again, "name"), QStringLiteral("ops"));
    size_t mark = h.log_mark();
    click(&again, "rename");
    QVERIFY(h.boxes.empty());
    QVERIFY(h.log_since(mark).empty());
}

QTEST_MAIN(AccountDialogsTest)
#include "account_dialogs_test.moc"
