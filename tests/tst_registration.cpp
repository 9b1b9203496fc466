// Becoming the default browser: the launch prompt (answered through its seam)
// and the request, against GIO's real mimeapps.list, on a real X display.
#include "App/AppDelegate.h"
#include "App/AppState.h"
#include "FakeDesktop.h"
#include "Platform/DesktopSettings.h"
#include "Services/DefaultBrowserRegistration.h"
#include "TestSupport.h"
#include "Views/MessageBox.h"

#include <QApplication>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestRegistration final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_desktop = std::make_unique<FakeDesktop>();
        m_desktop->addBrowser(u"firefox-esr"_s, u"Firefox ESR"_s);
        m_entry = m_desktop->addBrowser(u"work.vorpa.Quillvane"_s, u"Quillvane"_s);
    }

    // Removes the associations, and waits until GIO has noticed.
    void cleanup()
    {
        QFile::remove(m_desktop->configHome() + u"/mimeapps.list"_s);
        QTRY_VERIFY(GioDesktopEntries::instance().defaultHandler(u"https"_s)
                    != u"work.vorpa.Quillvane"_s);
    }

    // "Set as Default" registers for http and https (and the types browsers
    // open), and once that is so nothing asks again.
    void thePromptAtStart()
    {
        AppDelegate delegate;
        QVERIFY(!delegate.appState().isSystemDefaultBrowser());
        MessageBox::setNextAnswer(0);
        delegate.promptSetAsDefaultBrowserIfNeeded();
        QCOMPARE(trail().last(),
                 u"Successfully requested default browser registration for http + https"_s);
        QVERIFY(delegate.appState().checkIsDefaultBrowser());
        QCOMPARE(GioDesktopEntries::instance().defaultHandler(u"http"_s),
                 u"work.vorpa.Quillvane"_s);
        QVERIFY(readFile(m_desktop->configHome() + u"/mimeapps.list"_s)
                    .contains("text/html=work.vorpa.Quillvane.desktop"));
        MessageBox::setNextAnswer(1);
        delegate.promptSetAsDefaultBrowserIfNeeded();
        QCOMPARE(trail().last(), u"Already the default browser — skipping prompt"_s);
        MessageBox::setNextAnswer(std::nullopt);
    }

    // The real question, on the real display, asked without a loop of its own
    // (links go on being routed meanwhile): Escape answers "Later".
    void escapeIsLater()
    {
        AppDelegate delegate;
        delegate.promptSetAsDefaultBrowserIfNeeded();
        QCOMPARE(trail().last(), u"Not the default browser — showing prompt"_s);
        QTRY_VERIFY(QApplication::activeModalWidget());
        QTest::keyClick(QApplication::activeModalWidget(), Qt::Key_Escape);
        QTRY_COMPARE(trail().last(), u"User chose 'Later' — skipping default browser registration"_s);
        QVERIFY(!delegate.appState().checkIsDefaultBrowser());
    }

    // On XFCE, xdg-settings and exo-open ask XFCE's own preferred browser: the
    // registration sets it too, keeping the file's other lines, and xdg-settings
    // then agrees that Quillvane is the web browser.
    void xfceKeepsABrowserOfItsOwn()
    {
        const QString rc = m_desktop->configHome() + u"/xfce4/helpers.rc"_s;
        writeFile(rc, "TerminalEmulator=xfce4-terminal\nWebBrowser=firefox\n");
        qputenv("XDG_CURRENT_DESKTOP", "XFCE");
        const auto restore = qScopeGuard([] { qunsetenv("XDG_CURRENT_DESKTOP"); });
        const auto requested = DefaultBrowserRegistration::request(GioDesktopEntries::instance(),
                                                                   u"work.vorpa.Quillvane"_s);
        QVERIFY2(requested, requested ? "" : qPrintable(requested.error()));
        QCOMPARE(readFile(rc),
                 QByteArray("TerminalEmulator=xfce4-terminal\nWebBrowser=work.vorpa.Quillvane\n"));
        QCOMPARE(DesktopSettings::xfceWebBrowser(), u"work.vorpa.Quillvane"_s);
        const QByteArray helper =
            readFile(m_desktop->root() + u"/data/xfce4/helpers/work.vorpa.Quillvane.desktop"_s);
        QVERIFY(helper.contains("Type=X-XFCE-Helper\nX-XFCE-Category=WebBrowser\n"));
        const QByteArray command =
            "X-XFCE-CommandsWithParameter="
            + QFile::encodeName(m_desktop->root() + u"/bin/work.vorpa.Quillvane"_s) + " \"%s\"";
        QVERIFY2(helper.contains(command), helper.constData());
        const QString xdgSettings = QStandardPaths::findExecutable(u"xdg-settings"_s);
        QProcess asked;
        asked.start(xdgSettings, {u"get"_s, u"default-web-browser"_s});
        QVERIFY(asked.waitForFinished(20000));
        QCOMPARE(asked.readAllStandardOutput().trimmed(),
                 QByteArray("work.vorpa.Quillvane.desktop"));
    }

    void failureIsLoggedAndChangesNothing()
    {
        int waits = 0;
        AppDelegate delegate(nullptr, [&](auto, QObject *, std::function<void()>) { ++waits; });
        QFile::remove(m_entry);
        m_desktop->refreshDatabase();
        QTRY_VERIFY(!GioDesktopEntries::instance().entry(u"work.vorpa.Quillvane"_s));
        QTest::ignoreMessage(QtCriticalMsg, "Failed to set default browser: <private>");
        delegate.appState().requestSetAsDefaultBrowser();
        QTRY_VERIFY(trail().last().startsWith(u"[AppState] Failed to set default browser: "_s));
        QCOMPARE(waits, 0);
        QVERIFY(!delegate.appState().isSystemDefaultBrowser());
        QVERIFY(!QFile::exists(m_desktop->configHome() + u"/mimeapps.list"_s));
    }

private:
    // The trail's lines without their times.
    QStringList trail() const
    {
        static const QRegularExpression time(u"^\\[[^\\]]+\\] "_s);
        QStringList lines = QString::fromUtf8(readFile(m_desktop->root() + u"/run/Quillvane.log"_s))
                                .split(u'\n', Qt::SkipEmptyParts);
        for (QString &line : lines)
            line.remove(time);
        return lines;
    }

    std::unique_ptr<FakeDesktop> m_desktop;
    QString m_entry;
};

QTEST_MAIN(TestRegistration)
#include "tst_registration.moc"
