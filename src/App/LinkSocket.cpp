#include "App/LinkSocket.h"

#include "App/LinkIntake.h"
#include "Models/DisplayText.h"

#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <QTimer>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

LinkSocket::LinkSocket(LinkIntake &intake, QObject *parent) : QObject(parent), m_intake(intake) {}

LinkSocket::~LinkSocket() = default;

QString LinkSocket::path()
{
    // Only a folder of this user's that no one else can enter: a socket
    // another user could plant would hear every link.
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    struct stat info = {};
    if (!runtime.startsWith('/') || ::stat(runtime.constData(), &info) != 0
        || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid() || (info.st_mode & 077) != 0)
        return {};
    return QFile::decodeName(runtime) + u"/quillvane.socket"_s;
}

std::optional<LinkSocket::Request> LinkSocket::parse(const QByteArray &bytes, QString *error)
{
    Request request;
    qsizetype start = 0;
    for (qsizetype end; (end = bytes.indexOf('\0', start)) >= 0; start = end + 1) {
        const QByteArray field = bytes.sliced(start, end - start);
        if (field.isEmpty())
            return request;
        const qsizetype equals = field.indexOf('=');
        const QByteArray key = equals < 0 ? field : field.first(equals);
        const QString value = QString::fromUtf8(field.sliced(equals + 1));
        if (equals > 0 && key == "link")
            request.links.append(value);
        else if (equals > 0 && (key == "activation-token" || key == "desktop-startup-id"))
            request.platformData.insert(QString::fromLatin1(key), value);
        else {
            *error = u"Quillvane does not know the request's field \"%1\"."_s.arg(
                DisplayText::escapeControls(QString::fromUtf8(key.left(40))));
            return request;
        }
    }
    return std::nullopt;
}

bool LinkSocket::listen(QString *why)
{
    const QString where = path();
    if (where.isEmpty()) {
        *why = u"there is no private runtime folder (XDG_RUNTIME_DIR)"_s;
        return false;
    }
    // What an instance that ended without cleaning up left behind: this
    // instance owns the bus name, so no other one listens there.
    QLocalServer::removeServer(where);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(where)) {
        *why = m_server->errorString();
        return false;
    }
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *peer = m_server->nextPendingConnection())
            serve(peer);
    });
    return true;
}

void LinkSocket::serve(QLocalSocket *peer)
{
    connect(peer, &QLocalSocket::disconnected, peer, &QObject::deleteLater);
    struct ucred credentials = {};
    socklen_t length = sizeof credentials;
    if (::getsockopt(int(peer->socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &credentials, &length)
            != 0
        || credentials.uid != ::geteuid()) {
        peer->abort();
        return;
    }
    // Only until the request is whole: from then on the links are Quillvane's,
    // and the peer waits for the answer however long it takes.
    auto *timeout = new QTimer(peer);
    timeout->setSingleShot(true);
    connect(timeout, &QTimer::timeout, peer, &QLocalSocket::abort);
    timeout->start(PeerTimeoutMs);
    // Taken from the kernel a piece at a time: what a peer sends after its
    // request waits there instead of in Quillvane's memory.
    peer->setReadBufferSize(64 * 1024);
    const qint64 pid = credentials.pid;
    connect(peer, &QLocalSocket::readyRead, this,
            [this, peer, timeout, pid, buffer = QByteArray()]() mutable {
        if (!timeout->isActive())
            return;
        // The request ends with an empty field: a NUL after a NUL, or first.
        const qsizetype from = std::max<qsizetype>(0, buffer.size() - 1);
        buffer += peer->read(MaxRequest + 1 - buffer.size());
        const bool whole = buffer.startsWith('\0')
                           || buffer.indexOf(QByteArrayView("\0\0", 2), from) >= 0;
        if (!whole && buffer.size() <= MaxRequest)
            return;
        QString refusal;
        const std::optional<Request> request = parse(buffer, &refusal);
        buffer = QByteArray();
        timeout->stop();
        const auto answer = [peer = QPointer<QLocalSocket>(peer)](const QString &refused) {
            if (!peer)
                return;
            peer->write(refused.isEmpty() ? QByteArray("0") : "1" + refused.toUtf8());
            peer->disconnectFromServer();
        };
        if (!request)
            answer(u"The request is larger than %1 bytes."_s.arg(MaxRequest));
        else if (!refusal.isEmpty())
            answer(refusal);
        else
            m_intake.openFrom(pid, request->links, request->platformData, answer);
    });
}
