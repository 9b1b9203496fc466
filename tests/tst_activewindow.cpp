// The X11 side of source resolution against a real (virtual) X server: the
// test plays the window manager, announcing the active window and its process.
#include "Platform/ActiveApplication.h"
#include "Platform/X11Atoms.h"

#include <QSignalSpy>
#include <QTest>

#include <xcb/xcb.h>

class TestActiveWindow final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs an X server: run under xvfb-run");
        m_connection = xcb_connect(nullptr, nullptr);
        QVERIFY(m_connection && !xcb_connection_has_error(m_connection));
        m_root = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data->root;
    }

    void cleanupTestCase()
    {
        if (m_connection)
            xcb_disconnect(m_connection);
    }

    void followsTheActiveWindow()
    {
        const xcb_window_t mail = window(4001);
        const xcb_window_t chat = window(4002);
        const xcb_window_t minimised = window(4003, true);
        setRootWindows("_NET_ACTIVE_WINDOW", {mail});
        // Bottom to top, as window managers list them.
        setRootWindows("_NET_CLIENT_LIST_STACKING", {chat, minimised, mail});

        const auto active = ActiveApplication::create();
        QCOMPARE(active->activePid(), 4001);
        QCOMPARE(active->visibleWindowPids(), (QList<qint64>{4001, 4002}));

        QSignalSpy activated(active.get(), &ActiveApplication::activated);
        active->startWatching();
        setRootWindows("_NET_ACTIVE_WINDOW", {chat});
        QVERIFY(activated.wait(5000));
        QCOMPARE(activated.first().first().toLongLong(), 4002);
    }

private:
    xcb_atom_t atom(const char *name);
    xcb_window_t window(quint32 pid, bool hidden = false);
    void setRootWindows(const char *property, const QList<xcb_window_t> &windows);

    xcb_connection_t *m_connection = nullptr;
    xcb_window_t m_root = 0;
};

xcb_atom_t TestActiveWindow::atom(const char *name)
{
    return internAtom(m_connection, name);
}

xcb_window_t TestActiveWindow::window(quint32 pid, bool hidden)
{
    const xcb_window_t id = xcb_generate_id(m_connection);
    xcb_create_window(m_connection, XCB_COPY_FROM_PARENT, id, m_root, 0, 0, 10, 10, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
    xcb_change_property(m_connection, XCB_PROP_MODE_REPLACE, id, atom("_NET_WM_PID"),
                        XCB_ATOM_CARDINAL, 32, 1, &pid);
    if (hidden) {
        const xcb_atom_t state = atom("_NET_WM_STATE_HIDDEN");
        xcb_change_property(m_connection, XCB_PROP_MODE_REPLACE, id, atom("_NET_WM_STATE"),
                            XCB_ATOM_ATOM, 32, 1, &state);
    }
    xcb_flush(m_connection);
    return id;
}

void TestActiveWindow::setRootWindows(const char *property, const QList<xcb_window_t> &windows)
{
    xcb_change_property(m_connection, XCB_PROP_MODE_REPLACE, m_root, atom(property),
                        XCB_ATOM_WINDOW, 32, uint32_t(windows.size()), windows.constData());
    xcb_flush(m_connection);
}

QTEST_GUILESS_MAIN(TestActiveWindow)
#include "tst_activewindow.moc"
