#include "admin/browse_dialog.hpp"

#include "admin/dialog_units.hpp"
#include "admin/dir_tree.hpp"

#include <QDir>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace orv {

BrowseDialog::BrowseDialog(DesktopUi& ui, QWidget* parent, const QString& start, Source source)
    : QDialog(parent) {
    setWindowTitle(QStringLiteral("Browse"));
    path_ = new QLineEdit(start, this);
    path_->setObjectName(QStringLiteral("current_path"));
    path_->setMaxLength(260);
    drives_ = new DriveList(this);
    drives_->setObjectName(QStringLiteral("drive"));
    if (source == Source::Host)
        tree_ = new HostDirTree(this);
    else
        tree_ = new VfsDirTree(ui.api, this);
    tree_->setObjectName(QStringLiteral("tree1"));
    auto* ok = new QPushButton(QStringLiteral("OK"), this);
    ok->setObjectName(QStringLiteral("ok"));
    ok->setDefault(true);
    auto* cancel = new QPushButton(QStringLiteral("Cancel"), this);
    cancel->setObjectName(QStringLiteral("cancel"));

    auto* grid = new QGridLayout(this);
    grid->addWidget(new QLabel(QStringLiteral("Current Path:"), this), 0, 0, 1, 2);
    grid->addWidget(path_, 1, 0, 1, 2);
    grid->addWidget(new QLabel(QStringLiteral("File:"), this), 2, 0, 1, 2);
    grid->addWidget(tree_, 3, 0, 1, 2);
    grid->addWidget(new QLabel(QStringLiteral("Drive:"), this), 4, 0);
    grid->addWidget(drives_, 4, 1);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(ok);
    buttons->addWidget(cancel);
    grid->addLayout(buttons, 5, 0, 1, 2);
    grid->setRowStretch(3, 1);
    grid->setColumnStretch(1, 1);

    connect(drives_, &DriveList::drive_chosen, tree_, &LazyDirTree::set_root);
    connect(tree_, &LazyDirTree::path_selected, path_, &QLineEdit::setText);
    connect(ok, &QPushButton::clicked, this, &QDialog::accept);
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);

    if (source == Source::Host) {
        drives_->reload(start.isEmpty() ? QDir::currentPath() : start);
    } else {
        drives_->set_fixed({QStringLiteral("\\")});
        tree_->set_root(QStringLiteral("\\"));
    }
    if (!start.isEmpty())
        tree_->reveal(start);
    resize(dialog_units(this, 230, 183));
}

QString BrowseDialog::chosen() const {
    return path_->text();
}

QString run_browse_dialog(DesktopUi& ui, QWidget* parent, const QString& start,
                          BrowseDialog::Source source) {
    BrowseDialog dialog(ui, parent, start, source);
    return dialog.exec() == QDialog::Accepted ? dialog.chosen() : start;
}

} // namespace orv
