#include "Platform/ActiveApplication.h"

#include "Platform/X11Atoms.h"

#include <QSocketNotifier>

#include <xcb/xcb.h>

#include <cstdlib>

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

} // namespace

std::unique_ptr<ActiveApplication> ActiveApplication::create()
{
    // Under Wayland a DISPLAY may lead to Xwayland, which knows only X clients.
    if (qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return std::make_unique<NoActiveApplication>();
    xcb_connection_t *connection = xcb_connect(nullptr, nullptr);
    if (!connection || xcb_connection_has_error(connection)) {
        if (connection)
            xcb_disconnect(connection);
        return std::make_unique<NoActiveApplication>();
    }
    return std::make_unique<X11ActiveApplication>(connection);
}
