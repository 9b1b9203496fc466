// Quillvane as a person meets it: installed, started by its session bus under a
// virtual X server with a real tray (trayer, an XEmbed tray), driven with the
// mouse and the keyboard through xdotool. What is checked is what the clicks
// change: stored settings, windows on screen, the icon's pixels.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Storage/SettingsKeys.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QGuiApplication>
#include <QProcess>
#include <QScreen>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));

struct XWindow
{
    QString id;
    QRect geometry;
};

QString xdotool(const QStringList &arguments)
{
    QProcess process;
    process.start(u"xdotool"_s, arguments);
    if (!process.waitForFinished(10000))
        qFatal("xdotool did not finish");
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

QStringList quillvaneWindows()
{
    return {u"--pid"_s, QString::number(InstalledQuillvane::instancePid())};
}

// The first visible window the search finds whose area the test accepts.
std::optional<XWindow> waitForWindow(
    const QStringList &search,
    const std::function<bool(const QRect &)> &accept = [](const QRect &) { return true; })
{
    std::optional<XWindow> result;
    (void)QTest::qWaitFor(
        [&] {
            const QString found = xdotool(QStringList{u"search"_s, u"--onlyvisible"_s} + search);
            for (const QString &id : found.split(u'\n', Qt::SkipEmptyParts)) {
                QHash<QString, int> shell;
                for (const QString &line :
                     xdotool({u"getwindowgeometry"_s, u"--shell"_s, id}).split(u'\n'))
                    shell.insert(line.section(u'=', 0, 0), line.section(u'=', 1).toInt());
                const QRect area(shell[u"X"_s], shell[u"Y"_s], shell[u"WIDTH"_s],
                                 shell[u"HEIGHT"_s]);
                if (accept(area)) {
                    result = XWindow{id, area};
                    return true;
                }
            }
            return false;
        },
        10000);
    return result;
}

void press(const QStringList &keys)
{
    xdotool(QStringList{u"key"_s, u"--delay"_s, u"60"_s} + keys);
}

// Gives the window the keyboard, presses the keys, and waits for it to go.
bool closeWith(const XWindow &window, const QStringList &keys)
{
    xdotool({u"windowfocus"_s, u"--sync"_s, window.id});
    press(keys);
    return QTest::qWaitFor(
        [&] {
            return !xdotool(QStringList{u"search"_s, u"--onlyvisible"_s} + quillvaneWindows())
                        .split(u'\n')
                        .contains(window.id);
        },
        10000);
}

QImage grab(const QRect &area)
{
    return QGuiApplication::primaryScreen()
        ->grabWindow(0, area.x(), area.y(), area.width(), area.height())
        .toImage()
        .convertToFormat(QImage::Format_RGB32);
}

// The share of pixels that differ between two pictures of the same area.
double difference(const QImage &a, const QImage &b)
{
    if (a.size() != b.size() || a.isNull())
        return 1.0;
    qint64 differing = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x)
            differing += a.pixel(x, y) != b.pixel(x, y);
    }
    return double(differing) / (double(a.width()) * a.height());
}

// Text and icons draw in many shades; an empty or black area has one or two.
int colours(const QImage &image)
{
    QSet<QRgb> seen;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            seen.insert(image.pixel(x, y));
    }
    return int(seen.size());
}

} // namespace

class TestTrayHost final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (!QDBusConnection::sessionBus().isConnected())
            QSKIP("needs a session bus: run under dbus-run-session");
        if (QGuiApplication::platformName() != u"xcb")
            QSKIP("needs an X server: run under xvfb-run");
        m_desktop = std::make_unique<FakeDesktop>();
        QVERIFY(g_installed.setUp(QStringLiteral(QUILLVANE_BUILD_DIR), *m_desktop));
        InstalledQuillvane::seedAlphaAndBeta(
            *m_desktop, {makeRule(u"org.example.Mail"_s, std::nullopt, u"alpha-browser"_s),
                         makeRule({}, u"docs.example"_s, u"beta-browser"_s),
                         makeRule({}, u"*.intranet.example"_s, u"alpha-browser"_s)});
        m_trayer.start(u"trayer"_s, {u"--edge"_s, u"top"_s, u"--align"_s, u"right"_s,
                                     u"--widthtype"_s, u"request"_s, u"--height"_s, u"24"_s,
                                     u"--transparent"_s, u"false"_s, u"--tint"_s, u"0x2e3440"_s});
        QVERIFY(m_trayer.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 10000);
        // Started the way a link starts it: by the bus, on the first call.
        QCOMPARE(InstalledQuillvane::open({u"https://docs.example/first"_s}).type(),
                 QDBusMessage::ReplyMessage);
    }

    void cleanupTestCase()
    {
        if (InstalledQuillvane::isRunning())
            QVERIFY(InstalledQuillvane::stop());
        m_trayer.terminate();
        m_trayer.waitForFinished();
    }

    void laterIsTheEscapeAnswer()
    {
        // Not the default browser yet: the question comes once the icon is up.
        const auto prompt = waitForWindow(quillvaneWindows(), [](const QRect &area) {
            return area.width() > 150 && area.height() > 60 && area.height() < 400;
        });
        QVERIFY(prompt);
        QVERIFY(colours(grab(prompt->geometry)) > 20);
        QVERIFY(closeWith(*prompt, {u"Escape"_s}));
        QVERIFY(!readFile(m_desktop->configHome() + u"/mimeapps.list"_s)
                     .contains("work.vorpa.Quillvane"));
    }

    void trayIcon()
    {
        const auto icon = waitForWindow(quillvaneWindows(), [](const QRect &area) {
            return area.width() <= 48 && area.height() <= 48 && area.top() < 24;
        });
        QVERIFY2(icon, "the icon is not in the tray");
        m_icon = *icon;
        m_activeIcon = grab(m_icon.geometry);
        QVERIFY(colours(m_activeIcon) > 4);
    }

    void pauseAndResume()
    {
        choose(1);
        QTRY_VERIFY(!SettingsKeys::read(*stored(), SettingsKeys::RulesEnabled));
        QTRY_VERIFY(difference(grab(m_icon.geometry), m_activeIcon) > 0.05);
        choose(1);
        QTRY_VERIFY(SettingsKeys::read(*stored(), SettingsKeys::RulesEnabled));
        QTRY_COMPARE(difference(grab(m_icon.geometry), m_activeIcon), 0.0);
    }

    // The desktop entry's "Create Rule" (with a new app rule's sheet on it, which
    // Escape closes without saving), the tray menu's history, and the command line.
    void waysToTheSettingsWindow()
    {
        QDBusMessage action =
            QDBusMessage::createMethodCall(u"work.vorpa.Quillvane"_s, u"/work/vorpa/Quillvane"_s,
                                           u"org.freedesktop.Application"_s, u"ActivateAction"_s);
        action << u"create-rule"_s << QVariantList() << QVariantMap();
        QCOMPARE(QDBusConnection::sessionBus().call(action).type(), QDBusMessage::ReplyMessage);
        const auto sheet = waitForWindow({u"--name"_s, u"^New App Rule$"_s});
        QVERIFY2(sheet, "\"Create Rule\" showed no sheet");
        QVERIFY(closeWith(*sheet, {u"Escape"_s}));
        QCOMPARE(RuleStore(*stored()).loadRules().size(), 3);
        const QStringList settings{u"--name"_s, u"^Quillvane Settings$"_s};
        for (int way = 0; way < 3; ++way) {
            if (way == 1)
                choose(4); // "Forwarding History..."
            if (way == 2) {
                QCOMPARE(g_installed.quillvane({u"--settings"_s, u"x"_s}).exitCode, 2);
                QCOMPARE(g_installed.quillvane({u"--settings"_s}).exitCode, 0);
            }
            const auto window = waitForWindow(settings);
            QVERIFY2(window, qPrintable(u"way %1 showed no settings window"_s.arg(way)));
            QVERIFY(closeWith(*window, {u"ctrl+w"_s}));
        }
    }

    void askingWhereALinkOpens();

private:
    std::unique_ptr<QSettings> stored() const
    {
        return InstalledQuillvane::storedSettings(*m_desktop);
    }

    // Opens the tray menu with a right click, takes the pointer off it (so that
    // only the keys pressed next choose), and chooses the nth enabled item.
    void choose(int item);

    std::unique_ptr<FakeDesktop> m_desktop;
    QProcess m_trayer;
    XWindow m_icon;
    QImage m_activeIcon;
};

void TestTrayHost::choose(int item)
{
    const QPoint centre = m_icon.geometry.center();
    xdotool({u"mousemove"_s, QString::number(centre.x()), QString::number(centre.y()), u"click"_s,
             u"3"_s});
    QVERIFY(waitForWindow(quillvaneWindows(), [](const QRect &area) {
        return area.height() > 150 && area.width() < 500;
    }));
    xdotool({u"mousemove"_s, u"0"_s,
             QString::number(QGuiApplication::primaryScreen()->size().height() - 1)});
    press(QStringList(item, u"Down"_s) << u"Return"_s);
}

// "Ask Every Time": a link that no rule claims, from a mail client, brings up
// the window that asks; a ticked box and a digit open the link and make a rule
// (which decides the next link: tst_linkpicker).
void TestTrayHost::askingWhereALinkOpens()
{
    if (QStandardPaths::findExecutable(u"gio"_s).isEmpty())
        QSKIP("gio (libglib2.0-bin) is not installed");
    writeFile(m_desktop->configHome() + u"/chromium/Local State"_s,
              R"({"profile":{"info_cache":{"Default":{"name":"Personal"},)"
              R"("Profile 1":{"name":"Work"}}}})");
    m_desktop->addBrowser(u"chromium"_s, u"Chromium"_s);
    const QString mail = m_desktop->addApplication(u"mail-client"_s, u"Mail"_s);
    writeFile(m_desktop->configHome() + u"/mimeapps.list"_s,
              "[Default Applications]\nx-scheme-handler/https=work.vorpa.Quillvane.desktop\n");
    QTRY_VERIFY_WITH_TIMEOUT(g_installed.quillvane({u"browsers"_s}).out.contains(u"chromium"_s),
                             10000);
    QCOMPARE(g_installed.quillvane({u"fallback"_s, u"--ask"_s}).exitCode, 0);

    // The fallback's browser first, then the others and their profiles: "5" is
    // Chromium's Work profile.
    QProcess::startDetached(mail, {u"-c"_s, u"gio open https://ask.example/second"_s});
    const auto window = waitForWindow({u"--name"_s, u"^Open Link — Quillvane$"_s});
    QVERIFY2(window, "no window asked where the link opens");
    QVERIFY(closeWith(*window, {u"Tab"_s, u"space"_s, u"5"_s}));
    QCOMPARE(m_desktop->opened(u"chromium"_s),
             (QStringList{u"--profile-directory=Profile 1"_s, u"https://ask.example/second"_s}));
    QTRY_COMPARE(InstalledQuillvane::storedHistory(*m_desktop).value(0).decidedBy, u"asked"_s);
    const RoutingRule learnt = RuleStore(*stored()).loadRules().last();
    QCOMPARE(learnt.urlPattern, u"ask.example"_s);
    QCOMPARE(learnt.targetBrowserBundleID, u"chromium"_s);
    QCOMPARE(learnt.targetProfileID, u"Profile 1"_s);

    g_installed.quillvane({u"fallback"_s, u"beta-browser"_s});
}

QTEST_MAIN(TestTrayHost)
#include "tst_trayhost.moc"
