#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {
QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

class TestLogs final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lineFormatAndMode();
    void recreatedWhenDeleted();
    void neverFollowsASymlink();
    void missingFolderIsNotMade();
    void neverWritesAnotherUsersFile();
    void fallbackLocation();
    void disabledAndRedirected();
    void journalDetection();
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
}

void TestLogs::recreatedWhenDeleted()
{
    TestEnvironment environment;
    DiagnosticLog::write(u"T", u"first");
    QVERIFY(QFile::remove(environment.diagnosticLogPath()));
    DiagnosticLog::write(u"T", u"second");
    const QByteArray text = readFile(environment.diagnosticLogPath());
    QVERIFY(text.endsWith("[T] second\n"));
    QCOMPARE(text.count('\n'), 1);
}

void TestLogs::neverFollowsASymlink()
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
}

void TestLogs::missingFolderIsNotMade()
{
    TestEnvironment environment;
    const QString missing = environment.path() + u"/gone/run"_s;
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(missing));
    DiagnosticLog::write(u"T", u"nowhere to go");
    QVERIFY(!QFileInfo::exists(environment.path() + u"/gone"_s));
}

void TestLogs::neverWritesAnotherUsersFile()
{
    if (::geteuid() != 0)
        QSKIP("needs root to create a file owned by another user");
    TestEnvironment environment;
    QFile planted(environment.diagnosticLogPath());
    QVERIFY(planted.open(QIODevice::WriteOnly));
    planted.close();
    QCOMPARE(::chmod(QFile::encodeName(planted.fileName()).constData(), 0666), 0);
    QCOMPARE(::chown(QFile::encodeName(planted.fileName()).constData(), 65534, 65534), 0);
    DiagnosticLog::write(u"T", u"secret link");
    QCOMPARE(readFile(planted.fileName()), QByteArray());
}

void TestLogs::fallbackLocation()
{
    const QByteArray saved = qgetenv("XDG_RUNTIME_DIR");
    qunsetenv("XDG_RUNTIME_DIR");
    const QString path = DiagnosticLog::filePath();
    qputenv("XDG_RUNTIME_DIR", saved);
    QCOMPARE(path, u"/tmp/Quillvane-%1.log"_s.arg(::getuid()));
}

void TestLogs::disabledAndRedirected()
{
    TestEnvironment environment;
    DiagnosticLog::setEnabled(false);
    DiagnosticLog::write(u"T", u"dropped");
    QVERIFY(!QFile::exists(environment.diagnosticLogPath()));
    {
        QStringList seen;
        DiagnosticLog::Redirect redirect(
            [&](QStringView tag, QStringView message) { seen.append(tag + u'|' + message); });
        QVERIFY(DiagnosticLog::isEnabled());
        DiagnosticLog::writeLines(u"T", {u"x"_s, u"y"_s});
        QCOMPARE(seen, (QStringList{u"T|x"_s, u"T|y"_s}));
    }
    DiagnosticLog::setEnabled(true);
    DiagnosticLog::write(u"T", u"kept");
    QVERIFY(readFile(environment.diagnosticLogPath()).endsWith("[T] kept\n"));
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

QTEST_GUILESS_MAIN(TestLogs)
#include "tst_logs.moc"
