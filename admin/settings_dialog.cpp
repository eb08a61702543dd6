#include "admin/settings_dialog.hpp"

#include "app/admin_api.hpp"

#include <QCheckBox>
#include <QFile>
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

QPushButton* button(QWidget* parent, const char* text, const char* name) {
    auto* b = new QPushButton(QString::fromLatin1(text), parent);
    b->setObjectName(QString::fromLatin1(name));
    b->setAutoDefault(false);
    return b;
}

QLineEdit* line_edit(QWidget* parent, const char* name, int max_length) {
    auto* e = new QLineEdit(parent);
    e->setObjectName(QString::fromLatin1(name));
    e->setMaxLength(max_length);
    return e;
}

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

} // namespace

ServerSettingsDialog::ServerSettingsDialog(DesktopUi& ui, QWidget* parent)
    : QDialog(parent), ui_(ui) {
    setWindowTitle(QStringLiteral("Server Settings"));
    home_ = line_edit(this, "serverhome", 260);
    max_users_ = line_edit(this, "maxusers", 6);
    telnet_ = new QCheckBox(QStringLiteral("&Telnet"), this);
    telnet_->setObjectName(QStringLiteral("telnet"));
    telnet_port_ = line_edit(this, "telnet_port", 6);
    ftp_ = new QCheckBox(QStringLiteral("&FTP"), this);
    ftp_->setObjectName(QStringLiteral("ftp"));
    ftp_port_ = line_edit(this, "ftp_port", 6);
    mounts_ = new QListWidget(this);
    mounts_->setObjectName(QStringLiteral("mounts"));
    ftps_ = new QCheckBox(QStringLiteral("FTP over T&LS (AUTH TLS)"), this);
    ftps_->setObjectName(QStringLiteral("ftps"));
    ftps_port_ = line_edit(this, "ftps_implicit_port", 6);
    certificate_ = line_edit(this, "tls_certificate", 4096);
    private_key_ = line_edit(this, "tls_private_key", 4096);
    require_tls_ = new QCheckBox(QStringLiteral("&Require TLS for logins and data"), this);
    require_tls_->setObjectName(QStringLiteral("require_tls"));
    session_reuse_ =
        new QCheckBox(QStringLiteral("Data connections must reuse the TLS &session"), this);
    session_reuse_->setObjectName(QStringLiteral("tls_session_reuse"));

    QPushButton* browse_button = button(this, "&Browse", "browse");
    QPushButton* motd = button(this, "FTP Login Message", "login_message");
    QPushButton* add = button(this, "&Add", "add");
    QPushButton* edit = button(this, "&Edit", "edit");
    QPushButton* remove = button(this, "&Delete", "delete");
    QPushButton* save_button = button(this, "&Save", "save");
    QPushButton* close_button = button(this, "&Close", "close");

    auto* top = new QGridLayout;
    top->addWidget(new QLabel(QStringLiteral("Server Home Directory"), this), 0, 0);
    top->addWidget(home_, 0, 1, 1, 2);
    top->addWidget(browse_button, 0, 3);
    top->addWidget(new QLabel(QStringLiteral("Max Users"), this), 1, 0);
    top->addWidget(max_users_, 1, 1);
    top->addWidget(telnet_, 2, 0);
    top->addWidget(new QLabel(QStringLiteral("Port"), this), 2, 1, Qt::AlignRight);
    top->addWidget(telnet_port_, 2, 2);
    top->addWidget(ftp_, 3, 0);
    top->addWidget(new QLabel(QStringLiteral("Port"), this), 3, 1, Qt::AlignRight);
    top->addWidget(ftp_port_, 3, 2);
    top->addWidget(motd, 3, 3);
    top->setColumnStretch(1, 1);
    top->setColumnStretch(2, 1);

    auto* tls_box = new QGroupBox(QStringLiteral("FTP over TLS"), this);
    auto* tls_layout = new QGridLayout(tls_box);
    tls_layout->addWidget(ftps_, 0, 0, 1, 2);
    tls_layout->addWidget(new QLabel(QStringLiteral("Implicit FTPS port (0 = none)"), this), 1, 0);
    tls_layout->addWidget(ftps_port_, 1, 1);
    tls_layout->addWidget(new QLabel(QStringLiteral("Certificate (PEM)"), this), 2, 0);
    tls_layout->addWidget(certificate_, 2, 1);
    tls_layout->addWidget(new QLabel(QStringLiteral("Private key (PEM, mode 600)"), this), 3, 0);
    tls_layout->addWidget(private_key_, 3, 1);
    tls_layout->addWidget(require_tls_, 4, 0, 1, 2);
    tls_layout->addWidget(session_reuse_, 5, 0, 1, 2);
    tls_layout->setColumnStretch(1, 1);

    auto* mount_box = new QGroupBox(QStringLiteral("Mounts"), this);
    auto* mount_layout = new QVBoxLayout(mount_box);
    mount_layout->addWidget(mounts_);
    auto* mount_buttons = new QHBoxLayout;
    mount_buttons->addWidget(add);
    mount_buttons->addWidget(edit);
    mount_buttons->addWidget(remove);
    mount_buttons->addStretch();
    mount_layout->addLayout(mount_buttons);

    auto* bottom = new QHBoxLayout;
    bottom->addStretch();
    bottom->addWidget(save_button);
    bottom->addWidget(close_button);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(tls_box);
    layout->addWidget(mount_box, 1);
    layout->addLayout(bottom);

    connect(browse_button, &QPushButton::clicked, this, &ServerSettingsDialog::browse);
    connect(motd, &QPushButton::clicked, this, &ServerSettingsDialog::edit_login_message);
    connect(add, &QPushButton::clicked, this, &ServerSettingsDialog::add_mount);
    connect(edit, &QPushButton::clicked, this, &ServerSettingsDialog::edit_mount);
    connect(remove, &QPushButton::clicked, this, &ServerSettingsDialog::delete_mount);
    connect(save_button, &QPushButton::clicked, this, &ServerSettingsDialog::save);
    connect(close_button, &QPushButton::clicked, this, &QDialog::close);

    load();
    resize(520, 600);
}

void ServerSettingsDialog::load() {
    SettingsForm form = ui_.api.settings_form();
    home_->setText(qs(form.serverhome));
    max_users_->setText(qs(form.maxusers));
    telnet_->setChecked(form.telnet);
    telnet_port_->setText(qs(form.telnet_port));
    ftp_->setChecked(form.ftp);
    ftp_port_->setText(qs(form.ftp_port));
    ftps_->setChecked(form.tls.ftps);
    ftps_port_->setText(qs(form.tls.implicit_port));
    certificate_->setText(qs(form.tls.certificate));
    private_key_->setText(qs(form.tls.private_key));
    require_tls_->setChecked(form.tls.require_tls);
    session_reuse_->setChecked(form.tls.session_reuse);
    reload_mounts();
}

QWidget* ServerSettingsDialog::field(SettingsField which) const {
    switch (which) {
    case SettingsField::Home:
        return home_;
    case SettingsField::MaxUsers:
        return max_users_;
    case SettingsField::TelnetPort:
        return telnet_port_;
    case SettingsField::FtpPort:
        return ftp_port_;
    case SettingsField::FtpsPort:
        return ftps_port_;
    case SettingsField::TlsFiles:
        return certificate_;
    }
    return home_;
}

void ServerSettingsDialog::save() {
    SettingsForm form;
    form.serverhome = home_->text().toStdString();
    form.maxusers = max_users_->text().toStdString();
    form.telnet = telnet_->isChecked();
    form.telnet_port = telnet_port_->text().toStdString();
    form.ftp = ftp_->isChecked();
    form.ftp_port = ftp_port_->text().toStdString();
    form.tls.ftps = ftps_->isChecked();
    form.tls.implicit_port = ftps_port_->text().toStdString();
    form.tls.certificate = certificate_->text().toStdString();
    form.tls.private_key = private_key_->text().toStdString();
    form.tls.require_tls = require_tls_->isChecked();
    form.tls.session_reuse = session_reuse_->isChecked();
    if (std::optional<SettingsRefusal> refusal = check_settings_form(form, ui_.api.start_dir())) {
        ui_.message(this, QStringLiteral("Error"), qs(refusal->text), QMessageBox::Critical);
        field(refusal->focus)->setFocus();
        return;
    }
    if (ui_.api.save_settings(form))
        ui_.message(this, QStringLiteral("INFO!"), QString::fromLatin1(kHomeChangeInfo),
                    QMessageBox::Information);
    ui_.api.apply_services(form);
}

void ServerSettingsDialog::browse() {
    home_->setText(ui_.browse_host(this, home_->text()));
}

void ServerSettingsDialog::edit_login_message() {
    // An editor cannot open a file that is not there; an empty message is the same as none.
    QString path = QString::fromStdString((ui_.api.start_dir() / "motd.txt").string());
    if (!QFile::exists(path)) {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.close();
    }
    ui_.open_editor(QStringLiteral("motd.txt"));
}

void ServerSettingsDialog::reload_mounts() {
    mounts_->clear();
    for (const std::string& line : ui_.api.mount_lines())
        mounts_->addItem(qs(line));
}

void ServerSettingsDialog::add_mount() {
    std::optional<MountDialogResult> chosen = ui_.run_mount_dialog(this, QString(), QString());
    if (!chosen)
        return;
    ui_.api.add_mount(chosen->real_path.toStdString(), chosen->target.toStdString());
    reload_mounts();
}

void ServerSettingsDialog::edit_mount() {
    QListWidgetItem* item = mounts_->currentItem();
    if (!item || !item->isSelected()) {
        ui_.message(this, QStringLiteral("INFO"), QStringLiteral("Must Select Mount to Edit"),
                    QMessageBox::Information);
        return;
    }
    std::string line = item->text().toStdString();
    std::optional<MountPaths> mount = ui_.api.find_mount(line);
    if (!mount) {
        ui_.message(this, QStringLiteral("Error"), QStringLiteral("Invalid mount Selected"),
                    QMessageBox::Critical);
        return;
    }
    std::optional<MountDialogResult> chosen =
        ui_.run_mount_dialog(this, qs(mount->real_dir), qs(mount->mount_point));
    if (!chosen)
        return;
    if (ui_.api.edit_mount(line, chosen->real_path.toStdString(), chosen->target.toStdString()) ==
        MountChange::NoSuchMount)
        ui_.message(this, QStringLiteral("Error"), QStringLiteral("Invalid mount Selected"),
                    QMessageBox::Critical);
    reload_mounts();
}

void ServerSettingsDialog::delete_mount() {
    QListWidgetItem* item = mounts_->currentItem();
    if (!item || !item->isSelected()) {
        ui_.message(this, QStringLiteral("INFO"), QStringLiteral("Must Select Mount to Delete"),
                    QMessageBox::Information);
        return;
    }
    if (ui_.api.delete_mount(item->text().toStdString()) == MountChange::NoSuchMount)
        ui_.message(this, QStringLiteral("Error"), QStringLiteral("Invalid mount Selected"),
                    QMessageBox::Critical);
    reload_mounts();
}

} // namespace orv
