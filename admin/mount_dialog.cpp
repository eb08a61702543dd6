#include "admin/mount_dialog.hpp"

#include "admin/dialog_units.hpp"
#include "admin/dir_tree.hpp"
#include "app/admin_api.hpp"

#include <QDir>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScreen>

namespace orv {

MountDialog::MountDialog(DesktopUi& ui, QWidget* parent, const QString& real_path,
                         const QString& target)
    : QDialog(parent), ui_(ui), edit_(!real_path.isEmpty()) {
    setWindowTitle(QStringLiteral("Mounts"));
    build();
    QString drive_path = edit_ ? real_path : QDir::currentPath();
    if (edit_) {
        std::string mount_to, as;
        split_mount_target(target.toStdString(), mount_to, as);
        as_->setText(QString::fromStdString(as));
        mount_to_->setText(QString::fromStdString(mount_to));
        mount_->setText(real_path);
    } else {
        mount_to_->setText(QStringLiteral("\\"));
    }
    drives_->reload(drive_path);
    if (!edit_)
        mount_->setText(drives_->current_drive());
    vfs_tree_->set_root(QStringLiteral("\\"));
    if (edit_) {
        real_tree_->reveal(real_path);
        vfs_tree_->reveal(target);
    }
    resize(dialog_units(this, 323, 234));
    if (QScreen* screen = this->screen())
        move(screen->geometry().center() - rect().center());
}

void MountDialog::build() {
    drives_ = new DriveList(this);
    drives_->setObjectName(QStringLiteral("drive"));
    mount_ = new QLineEdit(this);
    mount_->setObjectName(QStringLiteral("mount"));
    mount_to_ = new QLineEdit(this);
    mount_to_->setObjectName(QStringLiteral("mount_to"));
    as_ = new QLineEdit(this);
    as_->setObjectName(QStringLiteral("as"));
    mount_->setMaxLength(260);
    mount_to_->setMaxLength(260);
    as_->setMaxLength(256);
    real_tree_ = new HostDirTree(this);
    real_tree_->setObjectName(QStringLiteral("tree1"));
    vfs_tree_ = new VfsDirTree(ui_.api, this);
    vfs_tree_->setObjectName(QStringLiteral("tree2"));

    auto* ok = new QPushButton(QStringLiteral("OK"), this);
    ok->setObjectName(QStringLiteral("ok"));
    ok->setDefault(true);
    auto* cancel = new QPushButton(QStringLiteral("Cancel"), this);
    cancel->setObjectName(QStringLiteral("cancel"));
    auto* refresh_button = new QPushButton(QStringLiteral("Refresh"), this);
    refresh_button->setObjectName(QStringLiteral("refresh"));

    // The host side (drive, real directory tree) on the left, the VFS side on the right, the
    // three texts across the top.
    auto* targets = new QHBoxLayout;
    targets->addWidget(new QLabel(QStringLiteral("Mount To"), this));
    targets->addWidget(mount_to_, 2);
    targets->addWidget(new QLabel(QStringLiteral("-->As"), this));
    targets->addWidget(as_, 1);
    auto* grid = new QGridLayout(this);
    grid->addWidget(new QLabel(QStringLiteral("Drive"), this), 0, 0);
    grid->addWidget(new QLabel(QStringLiteral("Mount"), this), 0, 1);
    grid->addWidget(drives_, 1, 0);
    grid->addWidget(mount_, 1, 1);
    grid->addLayout(targets, 2, 0, 1, 2);
    grid->addWidget(new QLabel(QStringLiteral("Mount"), this), 3, 0);
    grid->addWidget(new QLabel(QStringLiteral("Mount As"), this), 3, 1);
    grid->addWidget(real_tree_, 4, 0);
    grid->addWidget(vfs_tree_, 4, 1);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(ok);
    buttons->addWidget(cancel);
    buttons->addWidget(refresh_button);
    grid->addLayout(buttons, 5, 0, 1, 2);
    grid->setRowStretch(4, 1);
    grid->setColumnStretch(0, 1);
    grid->setColumnStretch(1, 1);

    connect(drives_, &DriveList::drive_chosen, real_tree_, &HostDirTree::set_root);
    connect(real_tree_, &LazyDirTree::path_selected, mount_, &QLineEdit::setText);
    connect(vfs_tree_, &LazyDirTree::path_selected, mount_to_, &QLineEdit::setText);
    connect(ok, &QPushButton::clicked, this, &MountDialog::try_accept);
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);
    connect(refresh_button, &QPushButton::clicked, this, &MountDialog::refresh);
}

void MountDialog::refresh() {
    drives_->reload(drives_->current_drive());
}

void MountDialog::try_accept() {
    MountForm form;
    form.mount = mount_->text().toStdString();
    form.mount_to = mount_to_->text().toStdString();
    form.as = as_->text().toStdString();
    form.edit = edit_;
    MountFormResult checked = ui_.api.check_mount(form);
    if (checked.refusal) {
        ui_.message(this, QStringLiteral("Error"), QString::fromStdString(*checked.refusal),
                    QMessageBox::Critical);
        return;
    }
    result_.real_path = QString::fromStdString(checked.mount);
    result_.target = QString::fromStdString(checked.target);
    real_tree_->clear();
    vfs_tree_->clear();
    accept();
}

} // namespace orv
