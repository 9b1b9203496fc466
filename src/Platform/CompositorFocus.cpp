#include "Platform/CompositorFocus.h"

#include "Platform/SystemLog.h"

#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QTimer>
#include <QtEndian>

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcCompositorFocus, "CompositorFocus")

namespace CompositorFocus {

namespace {

// A compositor's messages are small; a tree of hundreds of windows is a few
// hundred kilobytes. Beyond this the peer is not a compositor.
constexpr qsizetype MaxMessage = 16 * 1024 * 1024;
// A compositor that starts makes its socket a moment before it listens on it:
// a refused connection is tried again this often, for a few seconds at most.
constexpr int RetryMs = 100;
constexpr int MaxRetries = 50;

bool peerIsThisUser(const QLocalSocket &socket)
{
    struct ucred credentials = {};
    socklen_t length = sizeof credentials;
    return ::getsockopt(int(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &credentials,
                        &length)
               == 0
           && credentials.uid == ::geteuid();
}

// What sway and Hyprland have in common: one socket that reports focus
// changes, followed for as long as it is there and again once it is back.
class SocketFollower : public ActiveApplication
{
public:
    explicit SocketFollower(const QString &path) : m_path(path) {}
    // The socket, closed as it goes, would report it to a follower half gone.
    ~SocketFollower() override { m_socket.disconnect(this); }

    std::optional<qint64> activePid() override
    {
        return m_pid > 0 ? std::optional<qint64>(m_pid) : std::nullopt;
    }
    std::optional<QString> activeAppId() override
    {
        return m_appId.isEmpty() ? std::nullopt : std::optional<QString>(m_appId);
    }
    bool appIdIsHint() const override { return true; }
    QList<qint64> visibleWindowPids() override { return {}; }

    void startWatching() override
    {
        connect(&m_socket, &QLocalSocket::connected, this, [this] {
            if (!peerIsThisUser(m_socket)) {
                qCWarning(lcCompositorFocus).noquote()
                    << u"%1 is served by another user: not used"_s.arg(m_path);
                m_socket.abort();
                return;
            }
            m_buffer.clear();
            connected();
        });
        connect(&m_socket, &QLocalSocket::readyRead, this, [this] {
            m_buffer += m_socket.readAll();
            if (m_buffer.size() > MaxMessage) {
                m_socket.abort();
                return;
            }
            received();
            // Spoken to as a compositor speaks: a loss from now on is worth new tries.
            if (m_socket.state() == QLocalSocket::ConnectedState)
                m_retries = 0;
        });
        // Lost, or refused (a compositor that made its socket and does not
        // listen yet): a refusal reports its error while still connecting, and
        // is unconnected only after that.
        connect(&m_socket, &QLocalSocket::stateChanged, this,
                [this](QLocalSocket::LocalSocketState state) {
                    if (state == QLocalSocket::UnconnectedState)
                        waitForReturn();
                });
        reach();
    }

protected:
    virtual void connected() = 0;
    // New bytes are in m_buffer; take what is whole.
    virtual void received() = 0;

    void focused(qint64 pid, const QString &appId)
    {
        if (pid == m_pid && appId == m_appId)
            return;
        m_pid = pid;
        m_appId = appId.left(255);
        Q_EMIT activated(m_pid, m_appId);
    }

    const QString m_path;
    QLocalSocket m_socket;
    QByteArray m_buffer;

private:
    void reach()
    {
        if (const QString why = refusal(m_path); !why.isEmpty()) {
            qCInfo(lcCompositorFocus).noquote() << why;
            waitForReturn();
            return;
        }
        m_tried = identity(m_path);
        m_socket.connectToServer(m_path);
    }

    // Which socket file is there, if any: a compositor that starts again makes a new one.
    using Identity = std::pair<ino_t, qint64>;
    static Identity identity(const QString &path)
    {
        struct stat info = {};
        if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
            return {};
        return {info.st_ino, qint64(info.st_ctim.tv_sec) * 1'000'000'000 + info.st_ctim.tv_nsec};
    }

    // Until the compositor is back, its folder is watched. It may have come back
    // before the loss was noticed, or made its socket a moment before listening
    // on it: a socket that is there is tried again a few times, a new one as
    // often again, and a stale one left by a crash no more than that.
    void waitForReturn()
    {
        m_pid = 0;
        m_appId.clear();
        const QString folder = QFileInfo(m_path).path();
        if (!m_folder) {
            m_folder = new QFileSystemWatcher(this);
            connect(m_folder, &QFileSystemWatcher::directoryChanged, this, [this] {
                if (const Identity now = identity(m_path); now != Identity() && now != m_tried)
                    m_retries = 0;
                tryAgain(0);
            });
        }
        if (!m_folder->directories().contains(folder))
            m_folder->addPath(folder);
        tryAgain(RetryMs);
    }

    void tryAgain(int afterMs)
    {
        if (m_socket.state() != QLocalSocket::UnconnectedState || m_retries >= MaxRetries
            || identity(m_path) == Identity())
            return;
        ++m_retries;
        QTimer::singleShot(afterMs, this, [this] {
            if (m_socket.state() == QLocalSocket::UnconnectedState)
                reach();
        });
    }

    QFileSystemWatcher *m_folder = nullptr;
    int m_retries = 0;
    Identity m_tried;
    qint64 m_pid = 0;
    QString m_appId;
};

// sway's IPC: "i3-ipc", the payload's length and the message's type (both
// 32 bits, the machine's byte order), then JSON. Asked for the tree once (what
// has the focus now) and subscribed to window events (each focus change).
class SwayFocus final : public SocketFollower
{
public:
    using SocketFollower::SocketFollower;

private:
    static constexpr quint32 GetTree = 4;
    static constexpr quint32 Subscribe = 2;
    static constexpr quint32 WindowEvent = 0x80000003;

    void connected() override
    {
        send(GetTree, {});
        send(Subscribe, R"(["window"])");
    }

    void send(quint32 type, const QByteArray &payload)
    {
        QByteArray message("i3-ipc");
        const quint32 header[2] = {quint32(payload.size()), type};
        message.append(reinterpret_cast<const char *>(header), sizeof header);
        m_socket.write(message + payload);
    }

    void received() override
    {
        constexpr qsizetype HeaderSize = 14;
        while (m_buffer.size() >= HeaderSize) {
            if (!m_buffer.startsWith("i3-ipc")) {
                m_socket.abort();
                return;
            }
            quint32 header[2];
            std::memcpy(header, m_buffer.constData() + 6, sizeof header);
            if (m_buffer.size() < HeaderSize + qsizetype(header[0]))
                return;
            const QJsonObject message =
                QJsonDocument::fromJson(m_buffer.mid(HeaderSize, header[0])).object();
            m_buffer.remove(0, HeaderSize + header[0]);
            if (header[1] == GetTree) {
                if (const QJsonObject node = focusedIn(message); !node.isEmpty())
                    take(node);
            } else if (header[1] == WindowEvent && message.value(u"change"_s) == u"focus"_s) {
                take(message.value(u"container"_s).toObject());
            }
        }
    }

    static QJsonObject focusedIn(const QJsonObject &node, int depth = 0)
    {
        if (node.value(u"focused"_s).toBool())
            return node;
        if (depth > 64)
            return {};
        for (const char *children : {"nodes", "floating_nodes"}) {
            for (const QJsonValue &child : node.value(QLatin1StringView(children)).toArray()) {
                if (const QJsonObject found = focusedIn(child.toObject(), depth + 1); !found.isEmpty())
                    return found;
            }
        }
        return {};
    }

    void take(const QJsonObject &window)
    {
        // A Wayland window has an app id; an X11 one under Xwayland a class.
        QString appId = window.value(u"app_id"_s).toString();
        if (appId.isEmpty())
            appId = window.value(u"window_properties"_s).toObject().value(u"class"_s).toString();
        focused(window.value(u"pid"_s).toInteger(), appId);
    }
};

// Hyprland: ".socket2.sock" writes a line per event ("activewindow>>CLASS,TITLE",
// "activewindowv2>>ADDRESS"); ".socket.sock" answers one request and closes,
// "j/activewindow" with the window as JSON (its class and pid among the rest).
class HyprlandFocus final : public SocketFollower
{
public:
    explicit HyprlandFocus(const QString &folder)
        : SocketFollower(folder + u"/.socket2.sock"_s)
        , m_requests(folder + u"/.socket.sock"_s)
    {}

private:
    void connected() override { ask(); }

    void received() override
    {
        qsizetype end;
        while ((end = m_buffer.indexOf('\n')) >= 0) {
            const QByteArray line = m_buffer.left(end);
            m_buffer.remove(0, end + 1);
            if (line.startsWith("activewindow>>") || line.startsWith("activewindowv2>>"))
                ask();
        }
    }

    // One question at a time; a change meanwhile asks again once it is answered.
    void ask()
    {
        if (m_asking) {
            m_askAgain = true;
            return;
        }
        if (const QString why = refusal(m_requests); !why.isEmpty()) {
            qCInfo(lcCompositorFocus).noquote() << why;
            return;
        }
        m_asking = true;
        auto *socket = new QLocalSocket(this);
        auto answer = std::make_shared<QByteArray>();
        const auto done = [this, socket, answer] {
            if (!m_asking || socket->property("done").toBool())
                return;
            socket->setProperty("done", true);
            socket->deleteLater();
            m_asking = false;
            const QJsonObject window = QJsonDocument::fromJson(*answer).object();
            if (!window.isEmpty())
                focused(window.value(u"pid"_s).toInteger(), window.value(u"class"_s).toString());
            if (std::exchange(m_askAgain, false))
                ask();
        };
        connect(socket, &QLocalSocket::connected, this, [socket] {
            if (!peerIsThisUser(*socket)) {
                socket->abort();
                return;
            }
            socket->write("j/activewindow");
        });
        connect(socket, &QLocalSocket::readyRead, this, [socket, answer] {
            *answer += socket->readAll();
            if (answer->size() > MaxMessage)
                socket->abort();
        });
        connect(socket, &QLocalSocket::disconnected, this, done);
        connect(socket, &QLocalSocket::errorOccurred, this, [socket, done] {
            if (socket->state() == QLocalSocket::UnconnectedState)
                done();
        });
        socket->connectToServer(m_requests);
    }

    const QString m_requests;
    bool m_asking = false;
    bool m_askAgain = false;
};

} // namespace

QString swaySocket()
{
    return qEnvironmentVariable("SWAYSOCK");
}

QString hyprlandFolder()
{
    const QString signature = qEnvironmentVariable("HYPRLAND_INSTANCE_SIGNATURE");
    if (signature.isEmpty() || signature.contains(u'/') || signature.startsWith(u'.'))
        return {};
    // Hyprland 0.40 moved its sockets from /tmp into the runtime folder.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR") + u"/hypr/"_s + signature;
    const QString old = u"/tmp/hypr/"_s + signature;
    return !QFileInfo::exists(runtime) && QFileInfo::exists(old) ? old : runtime;
}

std::unique_ptr<ActiveApplication> create()
{
    if (!swaySocket().isEmpty())
        return std::make_unique<SwayFocus>(swaySocket());
    if (!hyprlandFolder().isEmpty())
        return std::make_unique<HyprlandFocus>(hyprlandFolder());
    return nullptr;
}

QString refusal(const QString &path)
{
    struct stat info = {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return u"%1 is not there (yet)"_s.arg(path);
    if (!S_ISSOCK(info.st_mode))
        return u"%1 is not a socket: not used"_s.arg(path);
    if (info.st_uid != ::geteuid())
        return u"%1 belongs to another user: not used"_s.arg(path);
    return {};
}

} // namespace CompositorFocus
