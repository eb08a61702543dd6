#pragma once
// The "Server Settings" dialog: home directory, Max Users, the two services and their ports,
// the FTP login message, and the mount list. Modeless; one at a time.
#include "admin/desktop_ui.hpp"
#include "app/admin_settings.hpp"

#include <QDialog>

class QCheckBox;
class QLineEdit;
class QListWidget;

namespace orv {

class ServerSettingsDialog : public QDialog {
    Q_OBJECT
  public:
    ServerSettingsDialog(DesktopUi& ui, QWidget* parent = nullptr);

    // Re-reads the values in use and the mount list.
    void load();

  private:
    void save();
    void browse();
    void edit_login_message();
    void add_mount();
    void edit_mount();
    void delete_mount();
    void reload_mounts();
    QWidget* field(SettingsField which) const;

    DesktopUi& ui_;
    QLineEdit* home_ = nullptr;
    QLineEdit* max_users_ = nullptr;
    QCheckBox* telnet_ = nullptr;
    QLineEdit* telnet_port_ = nullptr;
    QCheckBox* ftp_ = nullptr;
    QLineEdit* ftp_port_ = nullptr;
    QCheckBox* ftps_ = nullptr;
    QLineEdit* ftps_port_ = nullptr;
    QLineEdit* certificate_ = nullptr;
    QLineEdit* private_key_ = nullptr;
    QCheckBox* require_tls_ = nullptr;
    QCheckBox* session_reuse_ = nullptr;
    QListWidget* mounts_ = nullptr;
};

} // namespace orv
