#pragma once
// The Mounts dialog: one mount's real directory ("Mount"), the VFS directory it goes under
// ("Mount To") and the name of the new directory ("As"), with the OK checks.
#include "admin/desktop_ui.hpp"

#include <QDialog>

class QLineEdit;

namespace orv {

class DriveList;
class HostDirTree;
class VfsDirTree;

class MountDialog : public QDialog {
    Q_OBJECT
  public:
    // Empty `real_path` and `target` for a new mount, those of the mount for an edit.
    MountDialog(DesktopUi& ui, QWidget* parent, const QString& real_path, const QString& target);

    bool edit_mode() const { return edit_; }
    // Valid after the dialog was accepted.
    const MountDialogResult& chosen() const { return result_; }

  private:
    void build();
    void try_accept();
    void refresh();

    DesktopUi& ui_;
    bool edit_ = false;
    MountDialogResult result_;
    DriveList* drives_ = nullptr;
    QLineEdit* mount_ = nullptr;
    QLineEdit* mount_to_ = nullptr;
    QLineEdit* as_ = nullptr;
    HostDirTree* real_tree_ = nullptr;
    VfsDirTree* vfs_tree_ = nullptr;
};

} // namespace orv
