#include "admin/dir_tree.hpp"

#include "app/admin_api.hpp"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QSignalBlocker>
#include <QStorageInfo>

namespace orv {
namespace {

constexpr int kPathRole = Qt::UserRole;
constexpr int kLoadedRole = Qt::UserRole + 1;

bool holds_files(const QStorageInfo& volume) {
    static const QSet<QByteArray> pseudo = {
        "proc",    "sysfs",  "devtmpfs",    "devpts",  "cgroup",   "cgroup2",   "securityfs",
        "pstore",  "bpf",    "tracefs",     "debugfs", "mqueue",   "hugetlbfs", "configfs",
        "fusectl", "autofs", "binfmt_misc", "nsfs",    "efivarfs", "rpc_pipefs"};
    return volume.isValid() && volume.isReady() && !pseudo.contains(volume.fileSystemType());
}

bool usable_dir(const QString& root) {
    QFileInfo info(root);
    return info.isDir() && info.isReadable() && info.isExecutable();
}

} // namespace

QStringList host_drives() {
    QStringList roots;
    for (const QStorageInfo& volume : QStorageInfo::mountedVolumes())
        if (holds_files(volume) && !roots.contains(volume.rootPath()))
            roots << volume.rootPath();
    roots.removeAll(QStringLiteral("/"));
    roots.sort();
    roots.prepend(QStringLiteral("/"));
    return roots;
}

QString drive_of(const QString& path, const QStringList& drives) {
    QString best = drives.isEmpty() ? QStringLiteral("/") : drives.first();
    for (const QString& root : drives) {
        bool inside =
            path == root || root == QLatin1String("/") || path.startsWith(root + QLatin1Char('/'));
        if (inside && root.size() > best.size())
            best = root;
    }
    return best;
}

// ---- LazyDirTree ----

LazyDirTree::LazyDirTree(QWidget* parent) : QTreeWidget(parent) {
    setHeaderHidden(true);
    setColumnCount(1);
    connect(this, &QTreeWidget::itemExpanded, this,
            [this](QTreeWidgetItem* item) { load_children(item); });
    connect(this, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        if (item)
            emit path_selected(item->data(0, kPathRole).toString());
    });
}

QTreeWidgetItem* LazyDirTree::add_item(QTreeWidgetItem* parent, const QString& text,
                                       const QString& path) {
    auto* item = parent ? new QTreeWidgetItem(parent) : new QTreeWidgetItem(this);
    item->setText(0, text);
    item->setData(0, kPathRole, path);
    item->setData(0, kLoadedRole, false);
    item->setChildIndicatorPolicy(QTreeWidgetItem::ShowIndicator);
    return item;
}

void LazyDirTree::set_root(const QString& root_path) {
    QSignalBlocker quiet(this);
    clear();
    add_item(nullptr, root_path, root_path);
}

void LazyDirTree::load_children(QTreeWidgetItem* item) {
    if (item->data(0, kLoadedRole).toBool())
        return;
    item->setData(0, kLoadedRole, true);
    QString path = item->data(0, kPathRole).toString();
    const QStringList names = child_dirs(path);
    for (const QString& name : names)
        add_item(item, name, join(path, name));
    if (names.isEmpty())
        item->setChildIndicatorPolicy(QTreeWidgetItem::DontShowIndicatorWhenChildless);
}

void LazyDirTree::reveal(const QString& path) {
    QTreeWidgetItem* item = topLevelItem(0);
    if (!item)
        return;
    QSignalBlocker quiet(this);
    for (const QString& name : components(item->data(0, kPathRole).toString(), path)) {
        load_children(item);
        item->setExpanded(true);
        QTreeWidgetItem* next = nullptr;
        for (int i = 0; i < item->childCount() && !next; ++i)
            if (item->child(i)->text(0) == name)
                next = item->child(i);
        if (!next)
            break;
        item = next;
    }
    // The chosen directory opens too, showing what lies below it.
    load_children(item);
    item->setExpanded(true);
    setCurrentItem(item);
    scrollToItem(item);
}

QString LazyDirTree::selected_path() const {
    QTreeWidgetItem* item = currentItem();
    return item ? item->data(0, kPathRole).toString() : QString();
}

// ---- HostDirTree ----

QStringList HostDirTree::child_dirs(const QString& path) {
    return QDir(path).entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name);
}

QString HostDirTree::join(const QString& dir, const QString& name) const {
    return dir.endsWith(QLatin1Char('/')) ? dir + name : dir + QLatin1Char('/') + name;
}

QStringList HostDirTree::components(const QString& root, const QString& path) const {
    if (!path.startsWith(root))
        return {};
    return path.mid(root.size()).split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

// ---- VfsDirTree ----

QStringList VfsDirTree::child_dirs(const QString& path) {
    QStringList names;
    for (const std::string& name : api_.vfs_child_dirs(path.toStdString()))
        names << QString::fromStdString(name);
    return names;
}

QString VfsDirTree::join(const QString& dir, const QString& name) const {
    return dir.endsWith(QLatin1Char('\\')) ? dir + name : dir + QLatin1Char('\\') + name;
}

QStringList VfsDirTree::components(const QString&, const QString& path) const {
    QString p = path;
    p.replace(QLatin1Char('/'), QLatin1Char('\\'));
    return p.split(QLatin1Char('\\'), Qt::SkipEmptyParts);
}

// ---- DriveList ----

DriveList::DriveList(QWidget* parent) : QComboBox(parent) {
    connect(this, &QComboBox::activated, this, [this](int index) { choose(index); });
}

void DriveList::reload(const QString& path) {
    QSignalBlocker quiet(this);
    clear();
    const QStringList drives = host_drives();
    addItems(drives);
    setCurrentIndex(static_cast<int>(drives.indexOf(drive_of(path, drives))));
    quiet.unblock();
    choose(currentIndex());
}

void DriveList::set_fixed(const QStringList& drives) {
    QSignalBlocker quiet(this);
    fixed_ = true;
    clear();
    addItems(drives);
    setCurrentIndex(0);
}

void DriveList::choose(int index) {
    if (!fixed_) {
        while (count() > 0 && !usable_dir(itemText(index))) {
            removeItem(index);
            index = index > 0 ? index - 1 : 0;
        }
    }
    if (count() == 0)
        return;
    {
        QSignalBlocker quiet(this);
        setCurrentIndex(index);
    }
    emit drive_chosen(itemText(index));
}

} // namespace orv
