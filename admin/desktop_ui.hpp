#pragma once
// What every window of the desktop shares: the administration interface and the few actions
// that leave the program (message boxes, the text editor, the path pickers). Tests replace
// those actions to drive the real dialogs without a person in front of them.
#include <QMessageBox>
#include <QString>
#include <functional>
#include <optional>

class QWidget;

namespace orv {

class AdminApi;

// What the Mounts dialog gives back on OK.
struct MountDialogResult {
    QString real_path;
    QString target; // full VFS path of the new directory
};

struct DesktopUi {
    explicit DesktopUi(AdminApi& admin_api);
    // The actions below refer to this object: it stays where it was made.
    DesktopUi(const DesktopUi&) = delete;
    DesktopUi& operator=(const DesktopUi&) = delete;

    AdminApi& api;
    // A box with one OK button; `text` may hold "\r\n" line breaks.
    std::function<void(QWidget* parent, const QString& title, const QString& text,
                       QMessageBox::Icon icon)>
        message;
    // Opens a file of the start directory in the desktop's text editor, or in our own editor
    // window (edit_text) when the desktop has none; false when neither could be shown.
    std::function<bool(const QString& file)> open_editor;
    // Our own editor window on a file (a full path).
    std::function<void(QWidget* parent, const QString& path)> edit_text;
    // The Mounts dialog: `real_path` and `target` empty for a new mount, those of the mount
    // for an edit. Nothing on Cancel.
    std::function<std::optional<MountDialogResult>(QWidget* parent, const QString& real_path,
                                                   const QString& target)>
        run_mount_dialog;
    // The Browse dialog over the host's directories (the server home) or over the VFS (a
    // user's home directory). Returns the chosen path, or `start` on Cancel.
    std::function<QString(QWidget* parent, const QString& start)> browse_host;
    std::function<QString(QWidget* parent, const QString& start)> browse_vfs;
};

// Box texts use "\r\n"; a label wants "\n".
QString box_text(const QString& text);

} // namespace orv
