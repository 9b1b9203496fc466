// The diagnostic trail file and the system log's records.
#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
#include "Services/URLCleaner.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <atomic>
#include <fcntl.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

class TestLogs final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_environment = std::make_unique<TestEnvironment>(); }
    void cleanup() { m_environment.reset(); }
    void lineFormatAndPlace();
    // A symlink or another user's file in the trail's place, or no runtime folder:
    // nothing is written through them, and no folder is made.
    void placesItNeverWrites()
    {
        const QString path = m_environment->diagnosticLogPath();
        const QString target = m_environment->path() + u"/victim"_s;
        writeFile(target, "untouched");
        QVERIFY(QFile::link(target, path));
        DiagnosticLog::write(u"T", u"secret link");
        QCOMPARE(readFile(target), QByteArray("untouched"));
        // A second name for the trail (a hard link) is not written to either.
        QVERIFY(QFile::remove(path));
        QCOMPARE(::link(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()),
                 0);
        DiagnosticLog::write(u"T", u"secret link");
        QCOMPARE(readFile(target), QByteArray("untouched"));
        // A file Quillvane writes there for the desktop replaces the link in its place.
        const QString script = m_environment->path() + u"/run/script.js"_s;
        QVERIFY(QFile::link(target, script));
        QCOMPARE(DiagnosticLog::writeRuntimeFile(script, "ours"), QString());
        QCOMPARE(readFile(target), QByteArray("untouched"));
        QCOMPARE(readFile(script), QByteArray("ours"));
        QVERIFY(!QFileInfo(script).isSymLink());
        if (::geteuid() == 0) {
            QVERIFY(QFile::remove(path));
            writeFile(path, {});
            QCOMPARE(::chmod(QFile::encodeName(path).constData(), 0666), 0);
            QCOMPARE(::chown(QFile::encodeName(path).constData(), 65534, 65534), 0);
            DiagnosticLog::write(u"T", u"secret link");
            QCOMPARE(readFile(path), QByteArray());
        }
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_environment->path() + u"/gone/run"_s));
        DiagnosticLog::write(u"T", u"nowhere to go");
        QVERIFY(!QFileInfo::exists(m_environment->path() + u"/gone"_s));
    }

    // A FIFO in the trail's place: writing returns at once, with or without a
    // reader, and the reader gets nothing.
    void aFifoNeverBlocksNorReceives()
    {
        const QByteArray path = QFile::encodeName(m_environment->diagnosticLogPath());
        QCOMPARE(::mkfifo(path.constData(), 0600), 0);
        std::atomic<bool> returned = false;
        std::unique_ptr<QThread> writer(QThread::create([&] {
            DiagnosticLog::write(u"T", u"https://secret.example/");
            returned = true;
        }));
        writer->start();
        const bool withoutReader = QTest::qWaitFor([&] { return returned.load(); }, 5000);
        // A reader frees a writer stuck in open(), so that the test can end.
        const int reader = ::open(path.constData(), O_RDONLY | O_NONBLOCK);
        writer->wait();
        QVERIFY2(withoutReader, "writing the trail blocked on a FIFO");
        DiagnosticLog::write(u"T", u"https://secret.example/");
        char received[64];
        QVERIFY(::read(reader, received, sizeof received) <= 0);
        ::close(reader);
    }

    void sizeIsBounded()
    {
        const QString path = m_environment->diagnosticLogPath();
        // A link of 1 MiB: one line, cut, saying how much is left out.
        DiagnosticLog::write(u"T", QString(u"https://e.com/"_s + QString(1024 * 1024, u'a')));
        QVERIFY(trail().size() < DiagnosticLog::MaxLineLength + 100);
        QVERIFY2(trail().endsWith(" … [cut: 1040398 more characters]\n"),
                 trail().right(60).constData());
        // Written on and on: the file starts again beside one older file, neither over the limit.
        const QString long_(DiagnosticLog::MaxLineLength, u'b');
        for (int i = 0; i < int(DiagnosticLog::MaxFileBytes / DiagnosticLog::MaxLineLength) + 50;
             ++i)
            DiagnosticLog::write(u"T", long_);
        DiagnosticLog::write(u"T", u"the newest line");
        QVERIFY(QFileInfo(path).size() <= DiagnosticLog::MaxFileBytes);
        const qint64 older = QFileInfo(path + u".old"_s).size();
        QVERIFY(older <= DiagnosticLog::MaxFileBytes && older > DiagnosticLog::MaxFileBytes / 2);
        QVERIFY(trail().endsWith("[T] the newest line\n"));
    }

    // Text from outside reaches log lines; it must neither steer the terminal that
    // shows them nor, in the system log, start a record of its own.
    void controlCharactersAreWrittenOut()
    {
        DiagnosticLog::write(u"T", u"title \x1b]0;owned\x07 bell\r\n[2026] forged \u202Etxt.exe");
        QCOMPARE(trail().split(']').mid(2).join(']'),
                 QByteArray(" title \\x1B]0;owned\\x07 bell\\x0D\\x0A[2026] forged "
                            "\\u{202E}txt.exe\n"));
        QCOMPARE(SystemLog::formatForStderr(
                     QtWarningMsg, "work.vorpa.Quillvane.URLRouter",
                     u"Routed https://e.com/\nquillvane[AppState] error: forged \x1b[2J"_s),
                 u"quillvane[URLRouter] warning: Routed https://e.com/\\x0Aquillvane[AppState] "
                 "error: forged \\x1B[2J\n"_s);
    }

    // In the system log a link is its scheme, host and path, and the cleaner's
    // line still names the parameters it removed; QUILLVANE_LOG_PRIVATE=1 shows
    // links whole.
    void linksInTheSystemLog()
    {
        const Link reset = link(u"https://e.com/reset/abc?token=s3cr3t#frag"_s);
        for (const auto &[logged, expected] :
             {std::pair{SystemLog::link(reset), u"https://e.com/reset/abc?…#…"_s},
              {SystemLog::link(link(u"https://me:pw@[::1]:8443/p?q"_s)),
               u"https://…@[::1]:8443/p?…"_s},
              {SystemLog::link(link(u"HTTP://E.com"_s)), u"HTTP://E.com"_s},
              {SystemLog::withLink(
                   u"Error transferring %1 - server replied"_s.arg(reset.toString()), reset),
               u"Error transferring https://e.com/reset/abc?…#… - server replied"_s},
              // Whatever wrote the line: a browser's error output, a notification.
              {SystemLog::withLinksNamed(
                   u"Chromium ended (status 1): cannot open 'HTTPS://u:p@e.com:8/a?t=1#f', \"x\""_s),
               u"Chromium ended (status 1): cannot open 'HTTPS://…@e.com:8/a?…#…', \"x\""_s},
              {SystemLog::withLinksNamed(u"(https://e.com/a#f?x) and ://odd and x-y.z://h/p?q"_s),
               u"(https://e.com/a#…) and ://odd and x-y.z://h/p?…"_s}})
            QCOMPARE(logged, expected);
        QCOMPARE(SystemLog::formatForStderr(QtInfoMsg, "work.vorpa.Quillvane.Notifications",
                                            u"failed\nError: https://e.com/?token=s3cr3t"_s),
                 u"quillvane[Notifications] info: failed\\x0AError: https://e.com/?…\n"_s);
        QTest::ignoreMessage(QtInfoMsg, "Removed 3 tracking param(s) (utm_source, fbclid): "
                                        "https://e.com/p?… → https://e.com/p?…");
        URLCleaner::clean(
            link(u"https://e.com/p?utm_source=a&code=s3cr3t&fbclid=b&utm_source=c"_s));
        SystemLog::setShowPrivate(true);
        QCOMPARE(SystemLog::link(reset), reset.toString());
        SystemLog::setShowPrivate(false);
    }

private:
    QByteArray trail() const { return readFile(m_environment->diagnosticLogPath()); }

    std::unique_ptr<TestEnvironment> m_environment;
};

// "[time] [tag] message" a line, in a file of the user's own in the runtime
// folder (else in /tmp, named after the user), made again when deleted;
// nothing when switched off.
void TestLogs::lineFormatAndPlace()
{
    const QString path = m_environment->diagnosticLogPath();
    QCOMPARE(DiagnosticLog::filePath(), path);
    DiagnosticLog::write(u"URLRouter", u"No rule matched");
    DiagnosticLog::write(QStringView(), u"Sender PID: 412");
    DiagnosticLog::writeLines(u"URLRouter", {u"a"_s, u"two\nlines"_s});
    static const QRegularExpression format(
        uR"(^\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\] \[URLRouter\] No rule matched\n)"
        uR"(\[[^\]]+Z\] Sender PID: 412\n)"
        uR"(\[[^\]]+Z\] \[URLRouter\] a\n)"
        uR"(\[[^\]]+Z\] \[URLRouter\] two\\x0Alines\n$)"_s);
    QVERIFY2(format.match(QString::fromUtf8(trail())).hasMatch(), trail().constData());
    struct stat info = {};
    QCOMPARE(::stat(QFile::encodeName(path).constData(), &info), 0);
    QCOMPARE(info.st_mode & 0777, 0600u);

    QVERIFY(QFile::remove(path));
    DiagnosticLog::setEnabled(false);
    DiagnosticLog::write(u"T", u"dropped");
    QVERIFY(!QFile::exists(path));
    DiagnosticLog::setEnabled(true);
    DiagnosticLog::write(u"T", u"second");
    QCOMPARE(trail().split(']').mid(1).join(']'), QByteArray(" [T] second\n"));

    qunsetenv("XDG_RUNTIME_DIR");
    QCOMPARE(DiagnosticLog::filePath(), u"/tmp/Quillvane-%1.log"_s.arg(::getuid()));
}

QTEST_GUILESS_MAIN(TestLogs)
#include "tst_logs.moc"
