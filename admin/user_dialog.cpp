#include "admin/user_dialog.hpp"

#include "accounts/user.hpp"
#include "app/admin_api.hpp"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace orv {
namespace {

QCheckBox* check_box(QWidget* parent, const char* text, const char* name) {
    auto* c = new QCheckBox(QString::fromLatin1(text), parent);
    c->setObjectName(QString::fromLatin1(name));
    return c;
}

QPushButton* button(QWidget* parent, const char* text, const char* name) {
    auto* b = new QPushButton(QString::fromLatin1(text), parent);
    b->setObjectName(QString::fromLatin1(name));
    b->setAutoDefault(false);
    return b;
}

} // namespace

UserSettingsDialog::UserSettingsDialog(DesktopUi& ui, QWidget* parent) : QDialog(parent), ui_(ui) {
    setWindowTitle(QStringLiteral("User Settings"));
    name_ = new QComboBox(this);
    name_->setObjectName(QStringLiteral("name"));
    name_->setEditable(true);
    name_->setInsertPolicy(QComboBox::NoInsert);
    name_->lineEdit()->setMaxLength(31);
    uid_ = new QLabel(this);
    uid_->setObjectName(QStringLiteral("uid"));
    password_ = new QLineEdit(this);
    password_->setObjectName(QStringLiteral("password"));
    password_->setEchoMode(QLineEdit::Password);
    password_->setMaxLength(31);
    super_user_ = check_box(this, "Super-User", "super_user");
    max_logins_ = new QLineEdit(this);
    max_logins_->setObjectName(QStringLiteral("max_logins"));
    max_logins_->setMaxLength(6);
    home_ = new QLineEdit(this);
    home_->setObjectName(QStringLiteral("home_dir"));
    home_->setMaxLength(260);
    groups_ = new QListWidget(this);
    groups_->setObjectName(QStringLiteral("groups"));
    groups_->setSelectionMode(QAbstractItemView::NoSelection);
    telnet_in_ = check_box(this, "Telnet IN", "telnet_in");
    ftp_in_ = check_box(this, "Ftp IN", "ftp_in");
    telnet_out_ = check_box(this, "Telnet OUT", "telnet_out");
    ftp_out_ = check_box(this, "Ftp OUT", "ftp_out");
    QPushButton* browse_button = button(this, "&Browse", "browse");
    QPushButton* save_button = button(this, "&Add/Save", "save");
    QPushButton* delete_button = button(this, "&Delete", "delete");
    QPushButton* close_button = button(this, "&Close", "close");

    auto* fields = new QGridLayout;
    fields->addWidget(new QLabel(QStringLiteral("User Name"), this), 0, 0);
    fields->addWidget(name_, 0, 1, 1, 2);
    fields->addWidget(new QLabel(QStringLiteral("User ID"), this), 1, 0);
    fields->addWidget(uid_, 1, 1);
    fields->addWidget(new QLabel(QStringLiteral("Password"), this), 2, 0);
    fields->addWidget(password_, 2, 1, 1, 2);
    fields->addWidget(super_user_, 3, 1);
    fields->addWidget(new QLabel(QStringLiteral("Max Logins"), this), 4, 0);
    fields->addWidget(max_logins_, 4, 1);
    fields->addWidget(new QLabel(QStringLiteral("Home Dir"), this), 5, 0);
    fields->addWidget(home_, 5, 1);
    fields->addWidget(browse_button, 5, 2);
    fields->setColumnStretch(1, 1);

    auto* rights = new QGroupBox(QStringLiteral("Rights"), this);
    auto* rights_layout = new QGridLayout(rights);
    rights_layout->addWidget(telnet_in_, 0, 0);
    rights_layout->addWidget(ftp_in_, 0, 1);
    rights_layout->addWidget(telnet_out_, 1, 0);
    rights_layout->addWidget(ftp_out_, 1, 1);

    auto* groups_box = new QGroupBox(QStringLiteral("Groups"), this);
    auto* groups_layout = new QVBoxLayout(groups_box);
    groups_layout->addWidget(groups_);

    auto* middle = new QHBoxLayout;
    middle->addWidget(rights);
    middle->addWidget(groups_box);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(save_button);
    buttons->addWidget(delete_button);
    buttons->addStretch();
    buttons->addWidget(close_button);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(fields);
    layout->addLayout(middle, 1);
    layout->addLayout(buttons);

    connect(name_, &QComboBox::activated, this,
            [this](int index) { show_user(name_->itemText(index)); });
    connect(browse_button, &QPushButton::clicked, this, &UserSettingsDialog::browse);
    connect(save_button, &QPushButton::clicked, this, &UserSettingsDialog::save);
    connect(delete_button, &QPushButton::clicked, this, &UserSettingsDialog::remove);
    connect(close_button, &QPushButton::clicked, this, &QDialog::close);

    refresh();
    name_->setEditText(QString());
    resize(440, 360);
}

void UserSettingsDialog::refresh() {
    QString current = name_->currentText();
    name_->clear();
    for (const std::string& name : ui_.api.user_names())
        name_->addItem(QString::fromStdString(name));
    int index = name_->findText(current, Qt::MatchExactly | Qt::MatchCaseSensitive);
    name_->setCurrentIndex(index);
    name_->setEditText(current);
    if (index >= 0)
        show_user(current);
}

void UserSettingsDialog::show_user(const QString& name) {
    std::optional<UserView> user = ui_.api.user(name.toStdString());
    if (!user)
        return;
    uid_->setText(QString::number(user->uid));
    password_->setText(QString::fromStdString(user->password));
    super_user_->setChecked(user->super_user);
    max_logins_->setText(QString::number(user->max_logins));
    home_->setText(QString::fromStdString(user->home_dir));
    groups_->clear();
    for (const std::string& group : user->groups)
        groups_->addItem(QString::fromStdString(group));
    telnet_in_->setChecked(user->rights & kRightTelnetIn);
    ftp_in_->setChecked(user->rights & kRightFtpIn);
    telnet_out_->setChecked(user->rights & kRightTelnetOut);
    ftp_out_->setChecked(user->rights & kRightFtpOut);
}

void UserSettingsDialog::save() {
    UserForm form;
    form.name = name_->currentText().toStdString();
    form.password = password_->text().toStdString();
    form.super_user = super_user_->isChecked();
    form.max_logins = max_logins_->text().toStdString();
    form.home_dir = home_->text().toStdString();
    form.rights = static_cast<uint16_t>((telnet_in_->isChecked() ? kRightTelnetIn : 0) |
                                        (ftp_in_->isChecked() ? kRightFtpIn : 0) |
                                        (telnet_out_->isChecked() ? kRightTelnetOut : 0) |
                                        (ftp_out_->isChecked() ? kRightFtpOut : 0));
    UserSaveResult result = ui_.api.save_user(form);
    if (result.refusal) {
        ui_.message(this, QString::fromStdString(result.refusal->title),
                    QString::fromStdString(result.refusal->text), QMessageBox::Critical);
        return;
    }
    refresh();
    uid_->setText(QString::number(result.uid));
    emit accounts_changed();
}

void UserSettingsDialog::remove() {
    QString name = name_->currentText();
    ui_.api.delete_user(name.toStdString());
    refresh();
    if (name_->currentIndex() < 0) {
        uid_->clear();
        groups_->clear();
    }
    emit accounts_changed();
}

void UserSettingsDialog::browse() {
    home_->setText(ui_.browse_vfs(this, home_->text()));
}

} // namespace orv
