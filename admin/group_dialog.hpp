#pragma once
// The "Group settings" dialog: adds and deletes groups and sets their members. Modeless; it
// stays open beside the main window.
#include "admin/desktop_ui.hpp"

#include <QDialog>

class QComboBox;
class QLabel;
class QListWidget;

namespace orv {

class GroupSettingsDialog : public QDialog {
    Q_OBJECT
  public:
    GroupSettingsDialog(DesktopUi& ui, QWidget* parent = nullptr);

    // Re-reads the user list (after an account change), keeping the chosen group.
    void refresh_users();

  signals:
    void accounts_changed();

  private:
    void reload_groups();
    void show_group(const QString& name);
    void save();
    void remove();
    void rename();

    DesktopUi& ui_;
    QComboBox* name_ = nullptr;
    QLabel* gid_ = nullptr;
    QListWidget* users_ = nullptr;
};

} // namespace orv
