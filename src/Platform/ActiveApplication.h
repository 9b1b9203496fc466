#pragma once

#include <QList>
#include <QObject>

#include <memory>
#include <optional>

// Which window the user works in, by the process that owns it. On X11 this is
// the root window's _NET_ACTIVE_WINDOW and each window's _NET_WM_PID; Wayland
// tells ordinary applications nothing of the kind, so there the answers are
// empty and no activation is ever announced.
class ActiveApplication : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    // The process of the focused window.
    virtual std::optional<qint64> activePid() = 0;
    // Processes of the windows that are not minimised, topmost first.
    virtual QList<qint64> visibleWindowPids() = 0;
    // Starts announcing changes of the focused window.
    virtual void startWatching() = 0;

    // The X11 implementation when an X server is reachable, else one that knows nothing.
    static std::unique_ptr<ActiveApplication> create();

Q_SIGNALS:
    void activated(qint64 pid);
};
