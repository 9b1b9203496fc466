#include "Platform/ActiveApplication.h"

#include "Models/BuildInfo.h"
#include "Platform/CompositorFocus.h"
#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
#include "Platform/X11Atoms.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QSocketNotifier>
#include <QStandardPaths>


#include <xcb/xcb.h>

#include <cstdlib>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcActiveApplication, "ActiveApplication")

namespace {


class NoActiveApplication final : public ActiveApplication
{
public:
    std::optional<qint64> activePid() override { return std::nullopt; }
    QList<qint64> visibleWindowPids() override { return {}; }
    void startWatching() override {}
};

class X11ActiveApplication final : public ActiveApplication
{
public:
    explicit X11ActiveApplication(xcb_connection_t *connection)
        : m_connection(connection)
    {
        const xcb_setup_t *setup = xcb_get_setup(m_connection);
        m_root = xcb_setup_roots_iterator(setup).data->root;
        m_activeWindow = atom("_NET_ACTIVE_WINDOW");
        m_wmPid = atom("_NET_WM_PID");
        m_clientList = atom("_NET_CLIENT_LIST_STACKING");
        m_wmState = atom("_NET_WM_STATE");
        m_hidden = atom("_NET_WM_STATE_HIDDEN");
    }

    ~X11ActiveApplication() override { xcb_disconnect(m_connection); }

    std::optional<qint64> activePid() override
    {
        const QList<quint32> windows = windowProperty(m_root, m_activeWindow);
        if (windows.isEmpty() || windows.first() == XCB_NONE)
            return std::nullopt;
        return pidOf(windows.first());
    }

    QList<qint64> visibleWindowPids() override
    {
        QList<qint64> pids;
        const QList<quint32> windows = windowProperty(m_root, m_clientList);
        for (auto it = windows.crbegin(); it != windows.crend(); ++it) {
            if (windowProperty(*it, m_wmState).contains(m_hidden))
                continue;
            if (const auto pid = pidOf(*it); pid && !pids.contains(*pid))
                pids.append(*pid);
        }
        return pids;
    }

    void startWatching() override
    {
        const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_change_window_attributes(m_connection, m_root, XCB_CW_EVENT_MASK, &mask);
        xcb_flush(m_connection);
        m_notifier =
            new QSocketNotifier(xcb_get_file_descriptor(m_connection), QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &X11ActiveApplication::readEvents);
    }

private:
    xcb_atom_t atom(const char *name) { return internAtom(m_connection, name); }

    QList<quint32> windowProperty(xcb_window_t window, xcb_atom_t property)
    {
        QList<quint32> values;
        xcb_get_property_reply_t *reply = xcb_get_property_reply(
            m_connection,
            xcb_get_property(m_connection, 0, window, property, XCB_ATOM_ANY, 0, 4096), nullptr);
        if (reply && reply->format == 32) {
            const auto *data = static_cast<const quint32 *>(xcb_get_property_value(reply));
            const int count = xcb_get_property_value_length(reply) / 4;
            for (int i = 0; i < count; ++i)
                values.append(data[i]);
        }
        std::free(reply);
        return values;
    }

    std::optional<qint64> pidOf(xcb_window_t window)
    {
        const QList<quint32> pid = windowProperty(window, m_wmPid);
        if (pid.isEmpty() || pid.first() == 0)
            return std::nullopt;
        return qint64(pid.first());
    }

    void readEvents()
    {
        bool activeChanged = false;
        while (xcb_generic_event_t *event = xcb_poll_for_event(m_connection)) {
            if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY) {
                const auto *property = reinterpret_cast<xcb_property_notify_event_t *>(event);
                activeChanged = activeChanged || property->atom == m_activeWindow;
            }
            std::free(event);
        }
        if (activeChanged) {
            if (const auto pid = activePid())
                Q_EMIT activated(*pid);
        }
    }

    xcb_connection_t *m_connection;
    xcb_window_t m_root = XCB_NONE;
    xcb_atom_t m_activeWindow = XCB_ATOM_NONE;
    xcb_atom_t m_wmPid = XCB_ATOM_NONE;
    xcb_atom_t m_clientList = XCB_ATOM_NONE;
    xcb_atom_t m_wmState = XCB_ATOM_NONE;
    xcb_atom_t m_hidden = XCB_ATOM_NONE;
    QSocketNotifier *m_notifier = nullptr;
};

const QString KWinService = u"org.kde.KWin"_s;

// Loads a script into KWin whenever KWin is on the bus (again after it restarts),
// which reports each window activated to Quillvane. Only KWin's reports count.
class KWinActiveApplication final : public ActiveApplication, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "work.vorpa.Quillvane.ActiveWindow")

public:
    std::optional<qint64> activePid() override
    {
        return m_pid > 0 ? std::optional<qint64>(m_pid) : std::nullopt;
    }
    std::optional<QString> activeAppId() override
    {
        return m_appId.isEmpty() ? std::nullopt : std::optional<QString>(m_appId);
    }
    QList<qint64> visibleWindowPids() override { return {}; }

    void startWatching() override
    {
        m_bus.registerObject(QString::fromLatin1(ReportPath), this,
                             QDBusConnection::ExportScriptableSlots);
        auto *watcher = new QDBusServiceWatcher(
            KWinService, m_bus, QDBusServiceWatcher::WatchForOwnerChange, this);
        connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
                [this](const QString &, const QString &, const QString &owner) {
                    kwinChanged(owner);
                });
        QDBusMessage owner = QDBusMessage::createMethodCall(
            u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s, u"org.freedesktop.DBus"_s,
            u"GetNameOwner"_s);
        owner << KWinService;
        call(owner, [this](const QDBusMessage &reply) {
            if (reply.type() == QDBusMessage::ReplyMessage && m_kwin.isEmpty())
                kwinChanged(reply.arguments().value(0).toString());
        });
    }

public Q_SLOTS:
    Q_SCRIPTABLE void WindowActivated(const QString &desktopFileName, const QString &pid)
    {
        if (!calledFromDBus() || m_kwin.isEmpty() || message().service() != m_kwin)
            return;
        m_pid = pid.toLongLong();
        m_appId = desktopFileName.left(255);
        if (m_appId.endsWith(u".desktop"))
            m_appId.chop(8);
        Q_EMIT activated(m_pid, m_appId);
    }

private:
    void call(const QDBusMessage &message, std::function<void(const QDBusMessage &)> then)
    {
        auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(message), this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this,
                [then = std::move(then)](QDBusPendingCallWatcher *done) {
                    done->deleteLater();
                    then(done->reply());
                });
    }

    QDBusMessage scripting(const QString &method, const QVariantList &arguments)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(
            KWinService, u"/Scripting"_s, u"org.kde.kwin.Scripting"_s, method);
        message.setArguments(arguments);
        return message;
    }

    void kwinChanged(const QString &owner)
    {
        m_kwin = owner;
        m_pid = 0;
        m_appId.clear();
        if (owner.isEmpty())
            return;
        const QString path = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation)
                             + u"/quillvane-kwin-active-window.js"_s;
        if (const QString failure = DiagnosticLog::writeRuntimeFile(path, kwinScript()); !failure.isEmpty()) {
            qCWarning(lcActiveApplication).noquote()
                << u"Cannot write KWin's script to %1: %2"_s.arg(path, failure);
            return;
        }
        const QString name = QString::fromLatin1(KWinScriptName);
        // One copy only: an earlier Quillvane's script may still be loaded.
        call(scripting(u"unloadScript"_s, {name}), [this, path, name](const QDBusMessage &) {
            call(scripting(u"loadScript"_s, {path, name}), [this](const QDBusMessage &loaded) {
                if (loaded.type() != QDBusMessage::ReplyMessage) {
                    qCWarning(lcActiveApplication).noquote()
                        << u"KWin did not load Quillvane's active-window script: %1"_s.arg(
                               loaded.errorMessage());
                    return;
                }
                call(scripting(u"start"_s, {}), [](const QDBusMessage &) {});
            });
        });
    }

    QDBusConnection m_bus = QDBusConnection::sessionBus();
    QString m_kwin;
    qint64 m_pid = 0;
    QString m_appId;
};

} // namespace

QByteArray ActiveApplication::kwinScript()
{
    // KWin 6 names them windowActivated and activeWindow, KWin 5 clientActivated
    // and activeClient. The process id goes as text: a script's numbers are doubles.
    return QByteArray(R"(function report(window) {
    if (!window)
        return;
    callDBus("@SERVICE@", "@PATH@", "@INTERFACE@", "WindowActivated",
             String(window.desktopFileName || ""), String(window.pid || 0));
}
(workspace.windowActivated || workspace.clientActivated).connect(report);
report(workspace.activeWindow || workspace.activeClient);
)")
        .replace("@SERVICE@", QString::fromUtf16(BuildInfo::AppId).toUtf8())
        .replace("@PATH@", ReportPath)
        .replace("@INTERFACE@", ReportInterface);
}

bool ActiveApplication::isX11Session()
{
    // Under Wayland a DISPLAY may lead to Xwayland, which knows only X clients.
    return !qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

bool ActiveApplication::x11Reachable()
{
    xcb_connection_t *connection = xcb_connect(nullptr, nullptr);
    const bool reached = connection && !xcb_connection_has_error(connection);
    if (connection)
        xcb_disconnect(connection);
    return reached;
}

std::unique_ptr<ActiveApplication> ActiveApplication::create()
{
    if (auto follower = CompositorFocus::create())
        return follower;
    if (!isX11Session())
        return std::make_unique<KWinActiveApplication>();
    xcb_connection_t *connection = xcb_connect(nullptr, nullptr);
    if (!connection || xcb_connection_has_error(connection)) {
        if (connection)
            xcb_disconnect(connection);
        return std::make_unique<NoActiveApplication>();
    }
    return std::make_unique<X11ActiveApplication>(connection);
}

#include "ActiveApplication.moc"
