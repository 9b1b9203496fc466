// Quillvane as a person meets it: installed, started by its session bus under a
// virtual X server with a real tray (trayer, an XEmbed tray), driven with the
// mouse and the keyboard through xdotool. What is checked is what the clicks
// change: stored settings, windows on screen, the icon's pixels.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Models/ForwardingRecord.h"
#include "Storage/RuleStore.h"
#include "Storage/SettingsKeys.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QScreen>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTest>

#include <optional>

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

QList<XWindow> visibleWindows(const QStringList &search)
{
    QList<XWindow> windows;
    const QString found = xdotool(QStringList{u"search"_s, u"--onlyvisible"_s} + search);
    for (const QString &id : found.split(u'\n', Qt::SkipEmptyParts)) {
        QHash<QString, int> shell;
        for (const QString &line :
             xdotool({u"getwindowgeometry"_s, u"--shell"_s, id}).split(u'\n')) {
            const qsizetype equals = line.indexOf(u'=');
            shell.insert(line.left(equals), line.mid(equals + 1).toInt());
        }
        windows.append(
            {id, QRect(shell[u"X"_s], shell[u"Y"_s], shell[u"WIDTH"_s], shell[u"HEIGHT"_s])});
    }
    return windows;
}

std::optional<XWindow> waitForWindow(const QStringList &search,
                                     const std::function<bool(const QRect &)> &accept)
{
    std::optional<XWindow> result;
    (void)QTest::qWaitFor(
        [&] {
            for (const XWindow &window : visibleWindows(search)) {
                if (accept(window.geometry)) {
                    result = window;
                    return true;
                }
            }
            return false;
        },
        10000);
    return result;
}

bool waitUntilHidden(const QString &id)
{
    return QTest::qWaitFor(
        [&] {
            return !xdotool({u"search"_s, u"--onlyvisible"_s, u"--pid"_s,
                             QString::number(InstalledQuillvane::instancePid())})
                        .split(u'\n')
                        .contains(id);
        },
        10000);
}

void press(const QStringList &keys)
{
    xdotool(QStringList{u"key"_s, u"--delay"_s, u"60"_s} + keys);
}

// Gives the window the keyboard and presses the key that should close it.
bool closeWith(const XWindow &window, const QString &key)
{
    xdotool({u"windowfocus"_s, u"--sync"_s, window.id});
    press({key});
    return waitUntilHidden(window.id);
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
        const auto *left = reinterpret_cast<const QRgb *>(a.constScanLine(y));
        const auto *right = reinterpret_cast<const QRgb *>(b.constScanLine(y));
        for (int x = 0; x < a.width(); ++x)
            differing += left[x] != right[x];
    }
    return double(differing) / (double(a.width()) * a.height());
}

// Text and icons draw in many shades; an empty or black area has one or two.
int colours(const QImage &image)
{
    QSet<QRgb> seen;
    for (int y = 0; y < image.height(); ++y) {
        const auto *row = reinterpret_cast<const QRgb *>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x)
            seen.insert(row[x]);
    }
    return int(seen.size());
}

} // namespace

class TestTrayHost final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void laterIsTheEscapeAnswer();
    void trayIcon();
    void pauseAndResume();
    void createRuleAction();
    void askingWhereALinkOpens();

private:
    QStringList quillvaneWindows() const
    {
        return {u"--pid"_s, QString::number(InstalledQuillvane::instancePid())};
    }
    std::unique_ptr<QSettings> stored() const
    {
        return InstalledQuillvane::storedSettings(*m_desktop);
    }
    // Opens the tray menu with a right click and takes the pointer off it, so
    // that only the keys pressed next choose.
    std::optional<XWindow> openMenu();
    // Chooses the menu's nth enabled item with the keyboard.
    void choose(int item, const QStringList &then = {u"Return"_s});

    std::unique_ptr<FakeDesktop> m_desktop;
    QProcess m_trayer;
    XWindow m_icon;
    QImage m_activeIcon;
};

void TestTrayHost::initTestCase()
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
    // As an earlier version kept it: the first start moves it into the history database.
    auto settings = InstalledQuillvane::settingsToSeed(*m_desktop);
    settings->setValue(u"forwarding_history"_s,
                       ForwardingRecord::listToJson(
                           {makeRecord(u"https://news.example/today"_s, std::nullopt, u"Beta"_s),
                            makeRecord(u"https://docs.example/guide"_s, u"Mail"_s, u"Beta"_s,
                                       u"docs.example → Beta"_s, 90)}));
    settings->sync();

    m_trayer.start(u"trayer"_s, {u"--edge"_s, u"top"_s, u"--align"_s, u"right"_s, u"--widthtype"_s,
                                 u"request"_s, u"--height"_s, u"24"_s, u"--transparent"_s,
                                 u"false"_s, u"--tint"_s, u"0x2e3440"_s});
    QVERIFY(m_trayer.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 10000);

    // Started the way a link starts it: by the bus, on the first call.
    QDBusMessage call =
        QDBusMessage::createMethodCall(u"work.vorpa.Quillvane"_s, u"/work/vorpa/Quillvane"_s,
                                       u"work.vorpa.Quillvane.Automation"_s, u"ListFeatures"_s);
    QCOMPARE(QDBusConnection::sessionBus().call(call, QDBus::Block, 30000).type(),
             QDBusMessage::ReplyMessage);
}

void TestTrayHost::cleanupTestCase()
{
    if (InstalledQuillvane::isRunning())
        QVERIFY(InstalledQuillvane::stop());
    m_trayer.terminate();
    m_trayer.waitForFinished();
}

std::optional<XWindow> TestTrayHost::openMenu()
{
    const QPoint centre = m_icon.geometry.center();
    xdotool({u"mousemove"_s, QString::number(centre.x()), QString::number(centre.y()), u"click"_s,
             u"3"_s});
    auto menu = waitForWindow(quillvaneWindows(), [](const QRect &area) {
        return area.height() > 150 && area.width() < 500;
    });
    xdotool({u"mousemove"_s, u"0"_s,
             QString::number(QGuiApplication::primaryScreen()->size().height() - 1)});
    return menu;
}

void TestTrayHost::choose(int item, const QStringList &then)
{
    QStringList keys;
    for (int i = 0; i < item; ++i)
        keys.append(u"Down"_s);
    press(keys + then);
}

void TestTrayHost::laterIsTheEscapeAnswer()
{
    // Not the default browser yet: the question comes once the icon is up.
    const auto prompt = waitForWindow(quillvaneWindows(), [](const QRect &area) {
        return area.width() > 150 && area.height() > 60 && area.height() < 400;
    });
    QVERIFY(prompt);
    QVERIFY(colours(grab(prompt->geometry)) > 20);
    QVERIFY(closeWith(*prompt, u"Escape"_s));
    QFile mimeapps(m_desktop->configHome() + u"/mimeapps.list"_s);
    if (mimeapps.open(QIODevice::ReadOnly))
        QVERIFY(!mimeapps.readAll().contains("work.vorpa.Quillvane"));
}

void TestTrayHost::trayIcon()
{
    const auto icon = waitForWindow(quillvaneWindows(), [](const QRect &area) {
        return area.width() <= 48 && area.height() <= 48 && area.top() < 24;
    });
    QVERIFY2(icon, "the icon is not in the tray");
    m_icon = *icon;
    m_activeIcon = grab(m_icon.geometry);
    QVERIFY(colours(m_activeIcon) > 4);
}

void TestTrayHost::pauseAndResume()
{
    QVERIFY(openMenu());
    choose(1);
    QTRY_VERIFY(!SettingsKeys::read(*stored(), SettingsKeys::RulesEnabled));
    QTRY_VERIFY(difference(grab(m_icon.geometry), m_activeIcon) > 0.05);

    QVERIFY(openMenu());
    choose(1);
    QTRY_VERIFY(SettingsKeys::read(*stored(), SettingsKeys::RulesEnabled));
    QTRY_COMPARE(difference(grab(m_icon.geometry), m_activeIcon), 0.0);
}

// The ways to the settings window: the desktop entry's "Create Rule" (with a
// new app rule's sheet on it, which Escape closes without saving), the tray
// menu's history and the command line.
void TestTrayHost::createRuleAction()
{
    QDBusMessage action =
        QDBusMessage::createMethodCall(u"work.vorpa.Quillvane"_s, u"/work/vorpa/Quillvane"_s,
                                       u"org.freedesktop.Application"_s, u"ActivateAction"_s);
    action << u"create-rule"_s << QVariantList() << QVariantMap();
    QCOMPARE(QDBusConnection::sessionBus().call(action).type(), QDBusMessage::ReplyMessage);
    const auto anyArea = [](const QRect &) { return true; };
    const auto sheet = waitForWindow({u"--name"_s, u"^New App Rule$"_s}, anyArea);
    QVERIFY2(sheet, "\"Create Rule\" showed no sheet");
    QVERIFY(closeWith(*sheet, u"Escape"_s));
    QCOMPARE(RuleStore(*stored()).loadRules().size(), 3);
    const QStringList settings{u"--name"_s, u"^Quillvane Settings$"_s};
    auto window = waitForWindow(settings, anyArea);
    QVERIFY(window);
    QVERIFY(closeWith(*window, u"ctrl+w"_s));

    // "Forwarding History..." in the tray menu, and --settings from a terminal.
    QVERIFY(openMenu());
    choose(4);
    QVERIFY((window = waitForWindow(settings, anyArea)));
    QVERIFY(closeWith(*window, u"ctrl+w"_s));
    const QString quillvane = g_installed.program(u"quillvane"_s);
    QCOMPARE(InstalledQuillvane::run(quillvane, {u"--settings"_s, u"x"_s}).exitCode, 2);
    QCOMPARE(InstalledQuillvane::run(quillvane, {u"--settings"_s}).exitCode, 0);
    QVERIFY((window = waitForWindow(settings, anyArea)));
    QVERIFY(closeWith(*window, u"ctrl+w"_s));
}

// "Ask Every Time": a link that no rule claims brings up the window that asks;
// a digit opens a row; a ticked box makes the rule that decides the next link.
void TestTrayHost::askingWhereALinkOpens()
{
    if (QStandardPaths::findExecutable(u"gio"_s).isEmpty())
        QSKIP("gio (libglib2.0-bin) is not installed");
    writeFile(m_desktop->configHome() + u"/chromium/Local State"_s,
              R"({"profile":{"info_cache":{"Default":{"name":"Personal"},)"
              R"("Profile 1":{"name":"Work"}}}})");
    m_desktop->addBrowser(u"chromium"_s, u"Chromium"_s);
    // An application that sends links, as a person's mail client does.
    const QString mail = m_desktop->root() + u"/bin/mail-client"_s;
    QFile::copy(u"/bin/sh"_s, mail);
    QFile::setPermissions(mail, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_desktop->writeEntry(u"mail-client"_s,
                          u"[Desktop Entry]\nType=Application\nName=Mail\nExec=%1\n"_s.arg(mail));
    writeFile(m_desktop->configHome() + u"/mimeapps.list"_s,
              "[Default Applications]\nx-scheme-handler/https=work.vorpa.Quillvane.desktop\n");
    const QString quillvane = g_installed.program(u"quillvane"_s);
    QTRY_VERIFY_WITH_TIMEOUT(
        InstalledQuillvane::run(quillvane, {u"browsers"_s}).out.contains(u"chromium"_s), 10000);
    QCOMPARE(InstalledQuillvane::run(quillvane, {u"fallback"_s, u"--ask"_s}).out,
             u"Fallback set to Ask Every Time.\n"_s);
    const QStringList picker{u"--name"_s, u"^Open Link — Quillvane$"_s};
    const auto anyArea = [](const QRect &) { return true; };

    // From no application: the fallback's browser first, then the others and
    // their profiles; "2" opens the second.
    m_desktop->forget(u"alpha-browser"_s);
    QProcess::startDetached(u"gio"_s, {u"open"_s, u"https://ask.example/first"_s});
    auto window = waitForWindow(picker, anyArea);
    QVERIFY2(window, "no window asked where the link opens");
    xdotool({u"windowfocus"_s, u"--sync"_s, window->id});
    press({u"2"_s});
    QVERIFY(waitUntilHidden(window->id));
    QVERIFY(m_desktop->waitForRun(u"alpha-browser"_s));
    QCOMPARE(m_desktop->arguments(u"alpha-browser"_s),
             QStringList{u"https://ask.example/first"_s});
    QTRY_COMPARE(InstalledQuillvane::storedHistory(*m_desktop).value(0).decidedBy, u"asked"_s);

    // From Mail: "Always open links from ask.example here", then Chromium's Work profile.
    m_desktop->forget(u"chromium"_s);
    QProcess::startDetached(mail, {u"-c"_s, u"gio open https://ask.example/second"_s});
    window = waitForWindow(picker, anyArea);
    QVERIFY2(window, "no window asked where the link opens");
    xdotool({u"windowfocus"_s, u"--sync"_s, window->id});
    press({u"Tab"_s, u"space"_s, u"5"_s});
    QVERIFY(waitUntilHidden(window->id));
    QVERIFY(m_desktop->waitForRun(u"chromium"_s));
    QCOMPARE(m_desktop->arguments(u"chromium"_s),
             (QStringList{u"--profile-directory=Profile 1"_s, u"https://ask.example/second"_s}));
    const RoutingRule learnt = RuleStore(*stored()).loadRules().last();
    QCOMPARE(learnt.urlPattern, u"ask.example"_s);
    QCOMPARE(learnt.targetBrowserBundleID, u"chromium"_s);
    QCOMPARE(learnt.targetProfileID, u"Profile 1"_s);

    // The next link from there is the rule's: nothing asks.
    m_desktop->forget(u"chromium"_s);
    QProcess::startDetached(u"gio"_s, {u"open"_s, u"https://ask.example/third"_s});
    QVERIFY(m_desktop->waitForRun(u"chromium"_s));
    QCOMPARE(m_desktop->arguments(u"chromium"_s).last(), u"https://ask.example/third"_s);
    QVERIFY(visibleWindows(picker).isEmpty());
    InstalledQuillvane::run(quillvane, {u"fallback"_s, u"beta-browser"_s});
}

QTEST_MAIN(TestTrayHost)
#include "tst_trayhost.moc"
