#pragma once
// The directory trees and the drive list of the Mounts and Browse dialogs. On Linux there are
// no drive letters: the "drives" are the mounted file systems. Trees load one level when an
// item is first expanded, so a large disk opens at once.
#include <QComboBox>
#include <QStringList>
#include <QTreeWidget>

namespace orv {

class AdminApi;

// Root paths of the mounted file systems that hold files (not /proc and the like), "/" first;
// "/" alone when none can be listed.
QStringList host_drives();
// The drive of `drives` that holds `path` (the longest matching root), or the first.
QString drive_of(const QString& path, const QStringList& drives);

class LazyDirTree : public QTreeWidget {
    Q_OBJECT
  public:
    explicit LazyDirTree(QWidget* parent = nullptr);
    // Clears the tree and puts the root item in it (collapsed).
    void set_root(const QString& root_path);
    // Expands the tree down to `path` and selects it without reporting the selection.
    void reveal(const QString& path);
    QString selected_path() const;

  signals:
    // The administrator selected an item: its full path.
    void path_selected(const QString& path);

  protected:
    virtual QStringList child_dirs(const QString& path) = 0;
    virtual QString join(const QString& dir, const QString& name) const = 0;
    virtual QStringList components(const QString& root, const QString& path) const = 0;

  private:
    void load_children(QTreeWidgetItem* item);
    QTreeWidgetItem* add_item(QTreeWidgetItem* parent, const QString& text, const QString& path);
};

// Real directories of one drive.
class HostDirTree : public LazyDirTree {
    Q_OBJECT
  public:
    using LazyDirTree::LazyDirTree;

  protected:
    QStringList child_dirs(const QString& path) override;
    QString join(const QString& dir, const QString& name) const override;
    QStringList components(const QString& root, const QString& path) const override;
};

// Directories of the virtual file system, from "\".
class VfsDirTree : public LazyDirTree {
    Q_OBJECT
  public:
    VfsDirTree(AdminApi& api, QWidget* parent = nullptr) : LazyDirTree(parent), api_(api) {}

  protected:
    QStringList child_dirs(const QString& path) override;
    QString join(const QString& dir, const QString& name) const override;
    QStringList components(const QString& root, const QString& path) const override;

  private:
    AdminApi& api_;
};

// Fills a drive list; choosing a drive that cannot be opened drops it and falls back to the
// one before it (or the first), as often as needed.
class DriveList : public QComboBox {
    Q_OBJECT
  public:
    explicit DriveList(QWidget* parent = nullptr);
    // Re-reads the drives and chooses the one holding `path`.
    void reload(const QString& path);
    // A fixed list (the VFS has one "drive").
    void set_fixed(const QStringList& drives);
    QString current_drive() const { return currentText(); }

  signals:
    void drive_chosen(const QString& root);

  private:
    void choose(int index);
    bool fixed_ = false;
};

} // namespace orv
