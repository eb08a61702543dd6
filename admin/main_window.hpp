#pragma once
// The "Orvane Server" main window: the log panel, the menus, the tray icon, and the three
// administration dialogs (one of each at a time; their menu entries are greyed while open).
#include "admin/desktop_ui.hpp"
#include "admin/group_dialog.hpp"
#include "admin/settings_dialog.hpp"
#include "admin/user_dialog.hpp"

#include <QMainWindow>
#include <QPointer>
#include <string>
#include <vector>

class QAction;
class QMenu;
class QMessageBox;
class QSystemTrayIcon;

namespace orv {

class LogView;

class MainWindow : public QMainWindow {
    Q_OBJECT
  public:
    explicit MainWindow(DesktopUi& ui);
    ~MainWindow() override;

    LogView* log_view() const { return log_; }
    void add_log_lines(const std::vector<std::string>& lines);

    // Placement at start: centred across, 16 pixels above the middle.
    void place_on_screen();
    // The tray icon comes once the server is ready; without a tray the window just minimises.
    void add_tray_icon();
    QSystemTrayIcon* tray_icon() const { return tray_; }
    // Shows the window again (tray double click, a second start).
    void bring_forward();

    void open_server_settings();
    void open_user_settings();
    void open_group_settings();
    void open_help();
    // The About box, made but not shown.
    QMessageBox* make_about_box();
    void close_dialogs();

    ServerSettingsDialog* server_dialog() const { return server_dialog_; }
    UserSettingsDialog* user_dialog() const { return user_dialog_; }
    GroupSettingsDialog* group_dialog() const { return group_dialog_; }
    QMenu* tray_menu() const { return tray_menu_; }

  protected:
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

  private:
    void build_menus();
    void update_dialog_actions();
    template <typename Dialog> void track(Dialog* dialog);

    DesktopUi& ui_;
    LogView* log_ = nullptr;
    QSystemTrayIcon* tray_ = nullptr;
    QMenu* tray_menu_ = nullptr;
    QPointer<ServerSettingsDialog> server_dialog_;
    QPointer<UserSettingsDialog> user_dialog_;
    QPointer<GroupSettingsDialog> group_dialog_;
    // Menu bar and tray entries of the three dialogs.
    QList<QAction*> server_actions_;
    QList<QAction*> user_actions_;
    QList<QAction*> group_actions_;
};

} // namespace orv
