// The window that asks, on a tiling Wayland compositor: a real sway (headless,
// as an unprivileged user when the test runs as root, since sway refuses root)
// must float it at its natural size instead of tiling it over the screen, and
// keys typed on the compositor's virtual keyboard (wtype) must reach it.
#include "App/AppState.h"
#include "TestSupport.h"
#include "Views/LinkPicker.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// sway in a runtime folder of its own, with one headless output.
class Sway final
{
public:
    ~Sway()
    {
        m_keyboard.kill();
        m_keyboard.waitForFinished(10000);
        m_process.terminate();
        m_process.waitForFinished(10000);
    }

    // Starts it; the reason it cannot otherwise.
    QString start()
    {
        for (const QString &program : {u"sway"_s, u"swaymsg"_s, u"wtype"_s, u"setpriv"_s}) {
            if (QStandardPaths::findExecutable(program).isEmpty())
                return program + u" is not installed"_s;
        }
        const QString config = m_dir.path() + u"/config"_s;
        writeFile(config, "output HEADLESS-1 resolution 1280x800\n");
        QFile::setPermissions(m_dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                | QFile::ReadOther | QFile::ExeOther);
        QFile::setPermissions(config, QFile::ReadOwner | QFile::ReadOther);
        const QString runtime = m_dir.path() + u"/run"_s;
        QDir().mkpath(runtime);
        QStringList command{u"sway"_s, u"-c"_s, config};
        if (::geteuid() == 0) {
            if (::chown(QFile::encodeName(runtime).constData(), 65534, 65534) != 0)
                return u"cannot hand the runtime folder to nobody"_s;
            command = QStringList{u"setpriv"_s, u"--reuid=65534"_s, u"--regid=65534"_s,
                                  u"--clear-groups"_s}
                      + command;
        }
        QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QProcessEnvironment environment;
        for (const auto &[name, value] : {std::pair{u"PATH"_s, qEnvironmentVariable("PATH")},
                                          {u"HOME"_s, runtime},
                                          {u"XDG_RUNTIME_DIR"_s, runtime},
                                          {u"WLR_BACKENDS"_s, u"headless"_s},
                                          {u"WLR_RENDERER"_s, u"pixman"_s},
                                          {u"WLR_LIBINPUT_NO_DEVICES"_s, u"1"_s}})
            environment.insert(name, value);
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.setStandardOutputFile(QProcess::nullDevice());
        // Up once both its sockets are there: told by inotify, as there is no
        // event loop yet (the application is made once sway is up).
        const int watch = ::inotify_init1(IN_CLOEXEC);
        ::inotify_add_watch(watch, QFile::encodeName(runtime).constData(), IN_CREATE);
        m_process.start(command.takeFirst(), command);
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 60000 && !m_process.waitForFinished(0)) {
            const QStringList ipc = QDir(runtime).entryList({u"sway-ipc.*.sock"_s}, QDir::System);
            if (QFile::exists(runtime + u"/wayland-1"_s) && !ipc.isEmpty()) {
                socket = runtime + u"/wayland-1"_s;
                m_ipcSocket = runtime + u'/' + ipc.first();
                break;
            }
            pollfd created{watch, POLLIN, 0};
            char events[4096];
            if (::poll(&created, 1, 1000) > 0 && ::read(watch, events, sizeof events) < 0)
                break;
        }
        ::close(watch);
        if (socket.isEmpty())
            return u"sway did not start"_s;
        // A keyboard on the seat before any window: a virtual keyboard that only
        // waits. The window binds it as it opens, and keys typed later on other
        // virtual keyboards reach it (typed on a keyboard of their own alone,
        // they may arrive before the window has bound it, and are lost).
        m_keyboard.setProcessEnvironment(waylandEnvironment());
        m_keyboard.start(u"wtype"_s, {u"-s"_s, u"3600000"_s, u"x"_s});
        return m_keyboard.waitForStarted() ? QString() : u"wtype did not start"_s;
    }

    // The size of the window of that title where sway floats it (without the
    // border and title sway gives it).
    QSize floating(const QString &title) const
    {
        QProcess swaymsg;
        swaymsg.start(u"swaymsg"_s, {u"-s"_s, m_ipcSocket, u"-r"_s, u"-t"_s, u"get_tree"_s});
        swaymsg.waitForFinished(10000);
        QSize found;
        std::function<void(const QJsonObject &)> walk = [&](const QJsonObject &node) {
            for (const QJsonValue &floating : node[u"floating_nodes"_s].toArray()) {
                const QJsonObject rect = floating[u"window_rect"_s].toObject();
                if (floating[u"name"_s] == title)
                    found = QSize(rect[u"width"_s].toInt(), rect[u"height"_s].toInt());
            }
            for (const QJsonValue &child : node[u"nodes"_s].toArray())
                walk(child.toObject());
        };
        walk(QJsonDocument::fromJson(swaymsg.readAllStandardOutput()).object());
        return found;
    }

    // Types on a virtual keyboard of sway's, while the events go on (a key
    // that means nothing goes first).
    bool type(const QString &text) const
    {
        QProcess wtype;
        wtype.setProcessEnvironment(waylandEnvironment());
        wtype.start(u"wtype"_s, {u"-k"_s, u"Shift_L"_s, text});
        return QTest::qWaitFor([&wtype] { return wtype.state() == QProcess::NotRunning; }, 10000)
               && wtype.exitCode() == 0;
    }

    QString socket;

private:
    QProcessEnvironment waylandEnvironment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"WAYLAND_DISPLAY"_s, socket);
        return environment;
    }

    QTemporaryDir m_dir;
    QProcess m_process;
    QProcess m_keyboard;
    QString m_ipcSocket;
};

Sway *g_sway = nullptr;
QString g_swayError;

} // namespace

class TestPickerWayland final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void floatsAndTakesKeys()
    {
        if (!g_swayError.isEmpty())
            QSKIP(qPrintable(g_swayError));
        QCOMPARE(QGuiApplication::platformName(), u"wayland"_s);
        AppFixture app;
        // Safari and Firefox, without the profiles of a Firefox of the real user's.
        qputenv("HOME", QFile::encodeName(app.environment.path()));
        app.start().refreshBrowsers();
        LinkPicker picker(*app.state, app.entries);
        QList<AskAnswer> answers;
        picker.ask(AskRequest{link(u"https://example.com/tiling"_s), std::nullopt, {}, u"safari"_s},
                   [&answers](const AskAnswer &answer) { answers.append(answer); });

        // Floating, at about the size it asks for, not tiled over the 1280×800 output.
        QSize floated;
        QVERIFY(QTest::qWaitFor(
            [&] { return !(floated = g_sway->floating(picker.windowTitle())).isEmpty(); }, 30000));
        QVERIFY2(std::abs(floated.width() - picker.width()) <= 4
                     && std::abs(floated.height() - picker.height()) <= 4,
                 qPrintable(u"%1×%2, asked for %3×%4"_s.arg(floated.width())
                                .arg(floated.height())
                                .arg(picker.width())
                                .arg(picker.height())));
        QVERIFY(floated.width() < 1280 && floated.height() < 800);

        // It has the keyboard: the digit 2 opens the second row.
        QTRY_VERIFY_WITH_TIMEOUT(picker.isActiveWindow(), 30000);
        for (int attempt = 0; attempt < 30 && answers.isEmpty(); ++attempt) {
            QVERIFY(g_sway->type(u"2"_s));
            (void)QTest::qWaitFor([&answers] { return !answers.isEmpty(); }, 1000);
        }
        QCOMPARE(answers.size(), 1);
        QCOMPARE(answers[0].kind, AskAnswer::Kind::Chosen);
        QCOMPARE(answers[0].browserID, u"firefox"_s);
    }
};

int main(int argc, char **argv)
{
    Sway sway;
    g_sway = &sway;
    g_swayError = sway.start();
    if (g_swayError.isEmpty()) {
        qputenv("WAYLAND_DISPLAY", QFile::encodeName(sway.socket));
        qputenv("QT_QPA_PLATFORM", "wayland");
        qunsetenv("DISPLAY");
    }
    QApplication application(argc, argv);
    TestPickerWayland test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_pickerwayland.moc"
