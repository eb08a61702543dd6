#include "admin/desktop_ui.hpp"

#include "admin/browse_dialog.hpp"
#include "admin/editor.hpp"
#include "admin/mount_dialog.hpp"
#include "admin/text_editor_dialog.hpp"
#include "app/admin_api.hpp"

namespace orv {

QString box_text(const QString& text) {
    QString out = text;
    out.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    return out;
}

DesktopUi::DesktopUi(AdminApi& admin_api) : api(admin_api) {
    message = [](QWidget* parent, const QString& title, const QString& text,
                 QMessageBox::Icon icon) {
        QMessageBox box(icon, title, box_text(text), QMessageBox::Ok, parent);
        box.exec();
    };
    open_editor = [this](const QString& file) {
        QString dir = QString::fromStdString(api.start_dir().string());
        QString path = dir + QLatin1Char('/') + file;
        if (!open_in_text_editor(path, dir))
            edit_text(nullptr, path);
        return true;
    };
    edit_text = [this](QWidget* parent, const QString& path) {
        TextEditorDialog dialog(*this, parent, path);
        dialog.exec();
    };
    run_mount_dialog = [this](QWidget* parent, const QString& real_path,
                              const QString& target) -> std::optional<MountDialogResult> {
        MountDialog dialog(*this, parent, real_path, target);
        if (dialog.exec() != QDialog::Accepted)
            return std::nullopt;
        return dialog.chosen();
    };
    browse_host = [this](QWidget* parent, const QString& start) {
        return run_browse_dialog(*this, parent, start, BrowseDialog::Source::Host);
    };
    browse_vfs = [this](QWidget* parent, const QString& start) {
        return run_browse_dialog(*this, parent, start, BrowseDialog::Source::Vfs);
    };
}

} // namespace orv
