#pragma once
// Our own plain-text editor window, for the help text and the FTP login message when the
// desktop has no editor to open them with.
#include "admin/desktop_ui.hpp"

#include <QDialog>

class QPlainTextEdit;

namespace orv {

class TextEditorDialog : public QDialog {
    Q_OBJECT
  public:
    // Shows `path` (empty when it does not exist yet); Save writes it back and closes, Cancel
    // closes without writing. A file that cannot be written is said so in a box, and the
    // window stays open with the text.
    TextEditorDialog(DesktopUi& ui, QWidget* parent, const QString& path);
    QPlainTextEdit* editor() const { return text_; }

  private:
    void save();
    DesktopUi& ui_;
    QString path_;
    QPlainTextEdit* text_ = nullptr;
};

} // namespace orv
