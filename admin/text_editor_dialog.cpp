#include "admin/text_editor_dialog.hpp"

#include "admin/dialog_units.hpp"

#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSaveFile>
#include <QVBoxLayout>

namespace orv {

TextEditorDialog::TextEditorDialog(DesktopUi& ui, QWidget* parent, const QString& path)
    : QDialog(parent), ui_(ui), path_(path) {
    setWindowTitle(QFileInfo(path).fileName());
    text_ = new QPlainTextEdit(this);
    text_->setObjectName(QStringLiteral("text"));
    text_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    text_->setLineWrapMode(QPlainTextEdit::NoWrap);
    QFile file(path);
    if (file.open(QIODevice::ReadOnly))
        text_->setPlainText(QString::fromLocal8Bit(file.readAll()));

    auto* save = new QPushButton(QStringLiteral("&Save"), this);
    save->setObjectName(QStringLiteral("save"));
    auto* cancel = new QPushButton(QStringLiteral("&Cancel"), this);
    cancel->setObjectName(QStringLiteral("cancel"));
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(save);
    buttons->addWidget(cancel);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(text_);
    layout->addLayout(buttons);

    connect(save, &QPushButton::clicked, this, &TextEditorDialog::save);
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);
    resize(dialog_units(this, 320, 240));
}

void TextEditorDialog::save() {
    // Written whole or not at all: a failed save keeps the old file.
    QSaveFile file(path_);
    QByteArray bytes = text_->toPlainText().toLocal8Bit();
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        ui_.message(this, QStringLiteral("Error"),
                    QStringLiteral("Unable to save %1\r\n%2").arg(path_, file.errorString()),
                    QMessageBox::Critical);
        return;
    }
    accept();
}

} // namespace orv
