#include "admin/group_dialog.hpp"

#include "app/admin_api.hpp"

#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace orv {
namespace {

QPushButton* button(QWidget* parent, const char* text, const char* name) {
    auto* b = new QPushButton(QString::fromLatin1(text), parent);
    b->setObjectName(QString::fromLatin1(name));
    b->setAutoDefault(false);
    return b;
}

} // namespace

GroupSettingsDialog::GroupSettingsDialog(DesktopUi& ui, QWidget* parent)
    : QDialog(parent), ui_(ui) {
    setWindowTitle(QStringLiteral("Group settings"));
    name_ = new QComboBox(this);
    name_->setObjectName(QStringLiteral("name"));
    name_->setEditable(true);
    name_->setInsertPolicy(QComboBox::NoInsert);
    name_->lineEdit()->setMaxLength(31);
    gid_ = new QLabel(this);
    gid_->setObjectName(QStringLiteral("gid"));
    users_ = new QListWidget(this);
    users_->setObjectName(QStringLiteral("users"));
    users_->setSelectionMode(QAbstractItemView::MultiSelection);
    QPushButton* save_button = button(this, "&Add/Save", "save");
    QPushButton* delete_button = button(this, "&Delete", "delete");
    QPushButton* rename_button = button(this, "Rena&me", "rename");
    QPushButton* close_button = button(this, "&Close", "close");

    auto* fields = new QGridLayout;
    fields->addWidget(new QLabel(QStringLiteral("Group Name"), this), 0, 0);
    fields->addWidget(name_, 0, 1);
    fields->addWidget(new QLabel(QStringLiteral("Group ID"), this), 1, 0);
    fields->addWidget(gid_, 1, 1);
    fields->addWidget(new QLabel(QStringLiteral("Members"), this), 2, 0, 1, 2);
    fields->setColumnStretch(1, 1);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(save_button);
    buttons->addWidget(delete_button);
    buttons->addWidget(rename_button);
    buttons->addStretch();
    buttons->addWidget(close_button);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(fields);
    layout->addWidget(users_, 1);
    layout->addLayout(buttons);

    connect(name_, &QComboBox::activated, this,
            [this](int index) { show_group(name_->itemText(index)); });
    connect(save_button, &QPushButton::clicked, this, &GroupSettingsDialog::save);
    connect(delete_button, &QPushButton::clicked, this, &GroupSettingsDialog::remove);
    connect(rename_button, &QPushButton::clicked, this, &GroupSettingsDialog::rename);
    connect(close_button, &QPushButton::clicked, this, &QDialog::close);

    reload_groups();
    refresh_users();
    resize(360, 380);
}

void GroupSettingsDialog::reload_groups() {
    name_->clear();
    for (const std::string& name : ui_.api.group_names())
        name_->addItem(QString::fromStdString(name));
    name_->setCurrentIndex(-1);
    gid_->clear();
}

void GroupSettingsDialog::refresh_users() {
    users_->clear();
    for (const std::string& name : ui_.api.user_names())
        users_->addItem(QString::fromStdString(name));
    if (name_->currentIndex() >= 0)
        show_group(name_->itemText(name_->currentIndex()));
}

void GroupSettingsDialog::show_group(const QString& name) {
    std::optional<GroupView> group = ui_.api.group(name.toStdString());
    if (!group) {
        ui_.message(this, QStringLiteral("Error"), QStringLiteral("Could not find group info!"),
                    QMessageBox::Critical);
        return;
    }
    gid_->setText(QString::number(group->gid));
    users_->clearSelection();
    for (const std::string& member : group->members)
        for (QListWidgetItem* item :
             users_->findItems(QString::fromStdString(member), Qt::MatchExactly))
            item->setSelected(true);
}

void GroupSettingsDialog::save() {
    QString name = name_->currentText();
    std::vector<std::string> selected;
    for (int i = 0; i < users_->count(); ++i)
        if (users_->item(i)->isSelected())
            selected.push_back(users_->item(i)->text().toStdString());
    GroupSaveResult result = ui_.api.save_group(name.toStdString(), selected);
    if (result.refusal) {
        ui_.message(this, QString::fromStdString(result.refusal->title),
                    QString::fromStdString(result.refusal->text), QMessageBox::Critical);
        return;
    }
    if (result.added) {
        name_->addItem(name);
        name_->setCurrentIndex(name_->count() - 1);
    }
    gid_->setText(QString::number(result.gid));
    emit accounts_changed();
}

void GroupSettingsDialog::remove() {
    if (name_->currentIndex() < 0) {
        ui_.message(this, QStringLiteral("Error"), QStringLiteral("Select a group first!"),
                    QMessageBox::Critical);
        return;
    }
    ui_.api.delete_group(name_->currentText().toStdString());
    reload_groups();
    name_->setEditText(QString());
    users_->clearSelection();
    emit accounts_changed();
}

void GroupSettingsDialog::rename() {
    // With a group chosen the button has nothing to do; it only asks for the choice.
    if (name_->currentIndex() < 0)
        ui_.message(this, QStringLiteral("Error"), QStringLiteral("Select a group first!"),
                    QMessageBox::Critical);
}

} // namespace orv
