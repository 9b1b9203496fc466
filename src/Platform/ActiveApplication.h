#pragma once

#include <QList>
#include <QString>
#include <QObject>

#include <memory>
#include <optional>

// Which window the user works in, by the process that owns it. On X11 this is
// the root window's _NET_ACTIVE_WINDOW and each window's _NET_WM_PID. Wayland
// tells ordinary applications nothing of the kind; KWin, though, runs scripts
// that may tell, and names the window's desktop entry too. Elsewhere (GNOME on
// Wayland, wlroots compositors) the answers are empty and no activation is
// ever announced. sway and Hyprland say it on sockets of their own.
class ActiveApplication : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    // The process of the focused window.
    virtual std::optional<qint64> activePid() = 0;
    // The desktop entry id of the focused window's application, where the
    // desktop says so.
    virtual std::optional<QString> activeAppId() { return std::nullopt; }
    // Whether activeAppId is only what the window calls itself (a class, an
    // app id): then the window's process is looked up first.
    virtual bool appIdIsHint() const { return false; }
    // Processes of the windows that are not minimised, topmost first.
    virtual QList<qint64> visibleWindowPids() = 0;
    // Starts announcing changes of the focused window.
    virtual void startWatching() = 0;

    // sway's or Hyprland's socket where one of them runs; the X11
    // implementation in an X11 session with a reachable server; else one that
    // asks KWin whenever KWin runs, and knows nothing otherwise.
    static std::unique_ptr<ActiveApplication> create();
    // Whether this is an X11 session, and whether its server answers.
    static bool isX11Session();
    static bool x11Reachable();

    // KWin's part: the script it runs, and where the script reports.
    static constexpr const char *KWinScriptName = "quillvane-active-window";
    static constexpr const char *ReportPath = "/work/vorpa/Quillvane/ActiveWindow";
    static constexpr const char *ReportInterface = "work.vorpa.Quillvane.ActiveWindow";
    static QByteArray kwinScript();

Q_SIGNALS:
    // appId: the desktop entry id, when known.
    void activated(qint64 pid, const QString &appId = QString());
};
