// The Mounts and Browse dialogs: their starting texts, the trees, the drive list and the OK
// checks, driven through their widgets.
#include "admin/browse_dialog.hpp"
#include "admin/dir_tree.hpp"
#include "admin/mount_dialog.hpp"
#include "harness.hpp"

#include <QComboBox>
#include <QLineEdit>
#include <QTreeWidget>
#include <QtTest>

using namespace orv;
using orv::test::Box;
using orv::test::child;
using orv::test::click;

namespace {

// The item of `tree` at the path of item texts below the root, expanding on the way.
QTreeWidgetItem* item_at(QTreeWidget* tree, const QStringList& names) {
    QTreeWidgetItem* item = tree->topLevelItem(0);
    for (const QString& name : names) {
        if (!item)
            return nullptr;
        item->setExpanded(true);
        QTreeWidgetItem* next = nullptr;
        for (int i = 0; i < item->childCount(); ++i)
            if (item->child(i)->text(0) == name)
                next = item->child(i);
        item = next;
    }
    return item;
}

QStringList child_texts(QTreeWidgetItem* item) {
    QStringList out;
    for (int i = 0; i < item->childCount(); ++i)
        out << item->child(i)->text(0);
    return out;
}

void prepare(test::TempDir& d) {
    std::filesystem::create_directories(d / "home/pub/data");
    std::filesystem::create_directories(d / "home/incoming");
    d.write("home/readme.txt", "x");
    d.write("disk/songs/a.txt", "a");
    std::filesystem::create_directories(d / "disk/videos");
}

QString host_path(test::Harness& h, const char* relative) {
    return QString::fromStdString((h.server.dir() / relative).string());
}

} // namespace

class PathDialogsTest : public QObject {
    Q_OBJECT
  private slots:
    void new_mount_starts_at_the_drive_root_and_ok_checks();
    void edit_mode_and_trees_fill_the_fields();
    void unusable_drive_falls_back_to_the_one_before();
    void browse_returns_the_choice_or_the_start();
    void browse_over_the_vfs_lists_its_directories();
};

void PathDialogsTest::new_mount_starts_at_the_drive_root_and_ok_checks() {
    test::Harness h({}, prepare);
    MountDialog dialog(h.ui, nullptr, QString(), QString());
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Mounts"));
    auto* drive = child<QComboBox>(&dialog, "drive");
    QVERIFY(drive->count() >= 1);
    QCOMPARE(drive->itemText(0), QStringLiteral("/"));
    QCOMPARE(child<QLineEdit>(&dialog, "mount")->text(), drive->currentText());
    QCOMPARE(child<QLineEdit>(&dialog, "mount_to")->text(), QStringLiteral("\\"));
    QCOMPARE(child<QTreeWidget>(&dialog, "tree1")->topLevelItem(0)->text(0), drive->currentText());
    QCOMPARE(child<QTreeWidget>(&dialog, "tree2")->topLevelItem(0)->text(0), QStringLiteral("\\"));

    // OK checks the fields and normalises the target.
    child<QLineEdit>(&dialog, "mount")->setText(host_path(h, "disk"));
    child<QLineEdit>(&dialog, "mount_to")->setText(QStringLiteral("pub\\"));
    child<QLineEdit>(&dialog, "as")->setText(QString());
    click(&dialog, "ok");
    QCOMPARE(h.boxes, (std::vector<Box>{{"Error", "The \"as\" directory is required"}}));
    QCOMPARE(dialog.QDialog::result(), int(QDialog::Rejected));

    child<QLineEdit>(&dialog, "as")->setText(QStringLiteral("\\music"));
    click(&dialog, "ok");
    QCOMPARE(dialog.QDialog::result(), int(QDialog::Accepted));
    QCOMPARE(dialog.chosen().target, QStringLiteral("\\pub\\music"));
    QCOMPARE(dialog.chosen().real_path, host_path(h, "disk"));
}

void PathDialogsTest::edit_mode_and_trees_fill_the_fields() {
    test::Harness h({}, prepare);
    MountDialog dialog(h.ui, nullptr, host_path(h, "disk"), QStringLiteral("\\pub\\data"));
    QCOMPARE(child<QLineEdit>(&dialog, "mount")->text(), host_path(h, "disk"));
    QCOMPARE(child<QLineEdit>(&dialog, "mount_to")->text(), QStringLiteral("\\pub"));
    QCOMPARE(child<QLineEdit>(&dialog, "as")->text(), QStringLiteral("data"));
    // The VFS tree shows the current target selected, without rewriting "Mount To".
    auto* vfs = child<QTreeWidget>(&dialog, "tree2");
    QVERIFY(vfs->currentItem());
    QCOMPARE(vfs->currentItem()->text(0), QStringLiteral("data"));
    // The existing target passes in edit mode.
    click(&dialog, "ok");
    QVERIFY(h.boxes.empty());
    QCOMPARE(dialog.chosen().target, QStringLiteral("\\pub\\data"));

    // The trees fill the fields (in a new dialog: OK clears the trees).
    MountDialog trees(h.ui, nullptr, host_path(h, "disk"), QStringLiteral("\\pub\\data"));
    vfs = child<QTreeWidget>(&trees, "tree2");
    // Directories only, loaded a level at a time.
    QCOMPARE(child_texts(item_at(vfs, {})),
             (QStringList{QStringLiteral("incoming"), QStringLiteral("pub")}));
    vfs->setCurrentItem(item_at(vfs, {QStringLiteral("pub")}));
    QCOMPARE(child<QLineEdit>(&trees, "mount_to")->text(), QStringLiteral("\\pub"));

    auto* real = child<QTreeWidget>(&trees, "tree1");
    QString root = real->topLevelItem(0)->text(0);
    QString path = host_path(h, "disk/videos");
    QStringList below =
        path.mid(root == QLatin1String("/") ? 0 : root.size()).split('/', Qt::SkipEmptyParts);
    QTreeWidgetItem* videos = item_at(real, below);
    QVERIFY(videos);
    real->setCurrentItem(videos);
    QCOMPARE(child<QLineEdit>(&trees, "mount")->text(), host_path(h, "disk/videos"));
}

void PathDialogsTest::unusable_drive_falls_back_to_the_one_before() {
    DriveList drives;
    drives.reload(QStringLiteral("/"));
    int good = drives.count();
    drives.addItem(QStringLiteral("/no/such/drive"));
    drives.addItem(QStringLiteral("/no/such/other"));
    QSignalSpy chosen(&drives, &DriveList::drive_chosen);
    drives.setCurrentIndex(good + 1);
    emit drives.activated(good + 1);
    // Both dead entries go; the last working drive is chosen.
    QCOMPARE(drives.count(), good);
    QCOMPARE(drives.currentIndex(), good - 1);
    QCOMPARE(chosen.count(), 1);
    QCOMPARE(chosen.first().first().toString(), drives.itemText(good - 1));
}

void PathDialogsTest::browse_returns_the_choice_or_the_start() {
    test::Harness h({}, prepare);
    QString start = host_path(h, "disk");
    BrowseDialog dialog(h.ui, nullptr, start, BrowseDialog::Source::Host);
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Browse"));
    auto* tree = child<QTreeWidget>(&dialog, "tree1");
    // Opened on the start path, which is shown selected.
    QVERIFY(tree->currentItem());
    QCOMPARE(tree->currentItem()->text(0), QStringLiteral("disk"));
    QCOMPARE(child_texts(tree->currentItem()),
             (QStringList{QStringLiteral("songs"), QStringLiteral("videos")}));
    tree->setCurrentItem(tree->currentItem()->child(0));
    QCOMPARE(child<QLineEdit>(&dialog, "current_path")->text(), host_path(h, "disk/songs"));
    QCOMPARE(dialog.chosen(), host_path(h, "disk/songs"));

    // Cancel gives the start path back.
    QTimer::singleShot(0, [&] {
        for (QWidget* w : QApplication::topLevelWidgets())
            if (auto* b = qobject_cast<BrowseDialog*>(w); b && b->isVisible())
                click(b, "cancel");
    });
    QCOMPARE(run_browse_dialog(h.ui, nullptr, start, BrowseDialog::Source::Host), start);
}

void PathDialogsTest::browse_over_the_vfs_lists_its_directories() {
    test::Harness h({}, prepare);
    BrowseDialog dialog(h.ui, nullptr, QStringLiteral("\\pub"), BrowseDialog::Source::Vfs);
    QCOMPARE(child<QComboBox>(&dialog, "drive")->currentText(), QStringLiteral("\\"));
    auto* tree = child<QTreeWidget>(&dialog, "tree1");
    QVERIFY(tree->currentItem());
    QCOMPARE(tree->currentItem()->text(0), QStringLiteral("pub"));
    tree->setCurrentItem(tree->currentItem()->child(0));
    QCOMPARE(dialog.chosen(), QStringLiteral("\\pub\\data"));
}

QTEST_MAIN(PathDialogsTest)
#include "path_dialogs_test.moc"
