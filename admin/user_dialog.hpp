#pragma once
// The "User Settings" dialog: adds, updates and deletes accounts. Modeless; one at a time.
#include "admin/desktop_ui.hpp"

#include <QDialog>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;

namespace orv {

class UserSettingsDialog : public QDialog {
    Q_OBJECT
  public:
    UserSettingsDialog(DesktopUi& ui, QWidget* parent = nullptr);

    // Re-reads the user list and the shown user (after a group change, say).
    void refresh();

  signals:
    // An account was added, changed or deleted.
    void accounts_changed();

  private:
    void show_user(const QString& name);
    void save();
    void remove();
    void browse();

    DesktopUi& ui_;
    QComboBox* name_ = nullptr;
    QLabel* uid_ = nullptr;
    QLineEdit* password_ = nullptr;
    QCheckBox* super_user_ = nullptr;
    QLineEdit* max_logins_ = nullptr;
    QLineEdit* home_ = nullptr;
    QListWidget* groups_ = nullptr;
    QCheckBox* telnet_in_ = nullptr;
    QCheckBox* ftp_in_ = nullptr;
    QCheckBox* telnet_out_ = nullptr;
    QCheckBox* ftp_out_ = nullptr;
};

} // namespace orv
