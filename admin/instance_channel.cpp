#include "admin/instance_channel.hpp"

#include <QCryptographicHash>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <unistd.h>

namespace orv {

QString instance_channel_name(const QString& start_dir) {
    QString canonical = QDir(start_dir).canonicalPath();
    if (canonical.isEmpty())
        canonical = QDir(start_dir).absolutePath();
    QByteArray hash = QCryptographicHash::hash(canonical.toUtf8(), QCryptographicHash::Sha1);
    return QStringLiteral("orvane-server-%1-%2")
        .arg(::getuid())
        .arg(QString::fromLatin1(hash.toHex().left(16)));
}

InstanceChannel::InstanceChannel(const QString& start_dir, QObject* parent)
    : QObject(parent), server_(new QLocalServer(this)) {
    QString name = instance_channel_name(start_dir);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(name)) {
        QLocalServer::removeServer(name);
        server_->listen(name);
    }
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* peer = server_->nextPendingConnection()) {
            connect(peer, &QLocalSocket::disconnected, peer, &QObject::deleteLater);
            // Any contact is the request; nothing is read from the peer.
            peer->disconnectFromServer();
            emit raise_requested();
        }
    });
}

bool InstanceChannel::listening() const {
    return server_->isListening();
}

bool ask_running_instance_to_raise(const QString& start_dir, int timeout_ms) {
    QLocalSocket socket;
    socket.connectToServer(instance_channel_name(start_dir));
    if (!socket.waitForConnected(timeout_ms))
        return false;
    socket.write("raise\n");
    socket.waitForBytesWritten(timeout_ms);
    socket.disconnectFromServer();
    return true;
}

} // namespace orv
