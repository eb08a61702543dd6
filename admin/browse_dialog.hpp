#pragma once
// The Browse dialog: picks a directory for a settings field, from the host's directories (the
// server home) or from the virtual file system (a user's home directory, a virtual path).
#include "admin/desktop_ui.hpp"

#include <QDialog>

class QLineEdit;

namespace orv {

class DriveList;
class LazyDirTree;

class BrowseDialog : public QDialog {
    Q_OBJECT
  public:
    enum class Source { Host, Vfs };
    BrowseDialog(DesktopUi& ui, QWidget* parent, const QString& start, Source source);
    // The "Current Path:" text.
    QString chosen() const;

  private:
    QLineEdit* path_ = nullptr;
    DriveList* drives_ = nullptr;
    LazyDirTree* tree_ = nullptr;
};

// Runs the dialog: the chosen path on OK, `start` on Cancel.
QString run_browse_dialog(DesktopUi& ui, QWidget* parent, const QString& start,
                          BrowseDialog::Source source);

} // namespace orv
