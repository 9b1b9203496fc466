#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
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
    void lineFormatAndMode();
    void placesItNeverWrites();
    void fallbackLocation();
    void aFifoNeverBlocksNorReceives();
    void sizeIsBounded();
    void journalDetection();
    void controlCharactersAreWrittenOut();
};

void TestLogs::lineFormatAndMode()
{
    TestEnvironment environment;
    QCOMPARE(DiagnosticLog::filePath(), environment.diagnosticLogPath());
    DiagnosticLog::write(u"URLRouter", u"No rule matched");
    DiagnosticLog::write(QStringView(), u"Sender PID: 412");
    DiagnosticLog::writeLines(u"URLRouter", {u"a"_s, u"two\nlines"_s});

    const QString text = QString::fromUtf8(readFile(environment.diagnosticLogPath()));
    static const QRegularExpression format(
        uR"(^\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\] \[URLRouter\] No rule matched\n)"
        uR"(\[[^\]]+Z\] Sender PID: 412\n)"
        uR"(\[[^\]]+Z\] \[URLRouter\] a\n)"
        uR"(\[[^\]]+Z\] \[URLRouter\] two\nlines\n$)"_s);
    QVERIFY2(format.match(text).hasMatch(), qPrintable(text));

    struct stat info = {};
    QCOMPARE(::stat(QFile::encodeName(environment.diagnosticLogPath()).constData(), &info), 0);
    QCOMPARE(info.st_mode & 0777, 0600u);

    // Deleted: made again. Switched off: nothing written.
    QVERIFY(QFile::remove(environment.diagnosticLogPath()));
    DiagnosticLog::setEnabled(false);
    DiagnosticLog::write(u"T", u"dropped");
    QVERIFY(!QFile::exists(environment.diagnosticLogPath()));
    DiagnosticLog::setEnabled(true);
    DiagnosticLog::write(u"T", u"second");
    QCOMPARE(readFile(environment.diagnosticLogPath()).split(']').mid(1).join(']'),
             QByteArray(" [T] second\n"));
}

// A symlink or another user's file in the trail's place, or no runtime folder:
// nothing is written through them, and no folder is made.
void TestLogs::placesItNeverWrites()
{
    TestEnvironment environment;
    const QString target = environment.path() + u"/victim"_s;
    QFile victim(target);
    QVERIFY(victim.open(QIODevice::WriteOnly));
    victim.write("untouched");
    victim.close();
    QVERIFY(QFile::link(target, environment.diagnosticLogPath()));
    DiagnosticLog::write(u"T", u"secret link");
    QCOMPARE(readFile(target), QByteArray("untouched"));

    if (::geteuid() == 0) {
        QVERIFY(QFile::remove(environment.diagnosticLogPath()));
        QFile planted(environment.diagnosticLogPath());
        QVERIFY(planted.open(QIODevice::WriteOnly));
        planted.close();
        QCOMPARE(::chmod(QFile::encodeName(planted.fileName()).constData(), 0666), 0);
        QCOMPARE(::chown(QFile::encodeName(planted.fileName()).constData(), 65534, 65534), 0);
        DiagnosticLog::write(u"T", u"secret link");
        QCOMPARE(readFile(planted.fileName()), QByteArray());
    }

    const QString missing = environment.path() + u"/gone/run"_s;
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(missing));
    DiagnosticLog::write(u"T", u"nowhere to go");
    QVERIFY(!QFileInfo::exists(environment.path() + u"/gone"_s));
}

void TestLogs::fallbackLocation()
{
    const QByteArray saved = qgetenv("XDG_RUNTIME_DIR");
    qunsetenv("XDG_RUNTIME_DIR");
    const QString path = DiagnosticLog::filePath();
    qputenv("XDG_RUNTIME_DIR", saved);
    QCOMPARE(path, u"/tmp/Quillvane-%1.log"_s.arg(::getuid()));
}

// A FIFO in the trail's place: writing returns at once, with or without a
// reader, and the reader gets nothing.
void TestLogs::aFifoNeverBlocksNorReceives()
{
    TestEnvironment environment;
    const QByteArray path = QFile::encodeName(environment.diagnosticLogPath());
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

void TestLogs::sizeIsBounded()
{
    TestEnvironment environment;
    const QString path = environment.diagnosticLogPath();
    // A link of 1 MiB: one line, cut, saying how much is left out.
    DiagnosticLog::write(u"T", QString(u"https://e.com/"_s + QString(1024 * 1024, u'a')));
    const QByteArray line = readFile(path);
    QVERIFY(line.size() < DiagnosticLog::MaxLineLength + 100);
    QVERIFY2(line.endsWith(" … [cut: 1040398 more characters]\n"), line.right(60).constData());

    // Written on and on: the file starts again beside one older file, neither over the limit.
    const QString long_(DiagnosticLog::MaxLineLength, u'b');
    const int lines = int(DiagnosticLog::MaxFileBytes / DiagnosticLog::MaxLineLength) + 50;
    for (int i = 0; i < lines; ++i)
        DiagnosticLog::write(u"T", long_);
    DiagnosticLog::write(u"T", u"the newest line");
    QVERIFY(QFileInfo(path).size() <= DiagnosticLog::MaxFileBytes);
    QVERIFY(QFileInfo(path + u".old"_s).size() <= DiagnosticLog::MaxFileBytes);
    QVERIFY(QFileInfo(path + u".old"_s).size() > DiagnosticLog::MaxFileBytes / 2);
    QVERIFY(readFile(path).endsWith("[T] the newest line\n"));
}

void TestLogs::journalDetection()
{
    struct stat info = {};
    QCOMPARE(::fstat(STDERR_FILENO, &info), 0);
    const QByteArray matching = QByteArray::number(qulonglong(info.st_dev)) + ':'
                                + QByteArray::number(qulonglong(info.st_ino));
    qputenv("JOURNAL_STREAM", matching);
    QVERIFY(SystemLog::stderrIsJournal());
    qputenv("JOURNAL_STREAM", matching + '1');
    QVERIFY(!SystemLog::stderrIsJournal());
    qputenv("JOURNAL_STREAM", "garbage");
    QVERIFY(!SystemLog::stderrIsJournal());
    qunsetenv("JOURNAL_STREAM");
    QVERIFY(!SystemLog::stderrIsJournal());
}

// Text from outside reaches log lines; it must neither steer the terminal that
// shows them nor, in the system log, start a record of its own.
void TestLogs::controlCharactersAreWrittenOut()
{
    TestEnvironment environment;
    DiagnosticLog::write(u"T", u"title \x1b]0;owned\x07 bell\r\nnext");
    QCOMPARE(readFile(environment.diagnosticLogPath()).split(']').mid(2).join(']'),
             QByteArray(" title \\x1B]0;owned\\x07 bell\\x0D\nnext\n"));

    const QString record = SystemLog::formatForStderr(
        QtWarningMsg, "work.vorpa.Quillvane.URLRouter",
        u"Routed https://e.com/\nquillvane[AppState] error: forged \x1b[2J"_s);
    QCOMPARE(record, u"quillvane[URLRouter] warning: Routed https://e.com/\\x0Aquillvane[AppState] "
                     "error: forged \\x1B[2J\n"_s);
}

QTEST_GUILESS_MAIN(TestLogs)
#include "tst_logs.moc"
