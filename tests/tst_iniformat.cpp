#include "Storage/IniFormat.h"
#include "Storage/UserSettings.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// Values of every kind Quillvane stores, and the characters that need escaping.
QVariantMap sampleValues()
{
    QByteArray allBytes;
    for (int i = 0; i < 256; ++i)
        allBytes += char(i);
    return {
        {u"routing_rules"_s, QByteArray(R"([{"id":"A","pattern":"*a,b;c=d \"q\" \\ /x*"}])")},
        {u"forwarding_history"_s, allBytes},
        {u"hex_after_escape"_s, QByteArray("\x01"
                                           "abc\x7f"
                                           "9")},
        {u"empty_bytes"_s, QByteArray("")},
        {u"rules_enabled"_s, false},
        {u"today_forward_count"_s, qint64(1) << 40},
        {u"today_date"_s, u"2026-03-05"_s},
        {u"default_browser_bundle_id"_s, u"  Bücher → 😀, \"x\"; \\y"_s},
        {u"at_sign"_s, u"@ByteArray(not bytes)"_s},
        {u"control"_s, u"a\tb\nc\u0001"_s},
        {u"empty_text"_s, QString()},
    };
}

// Data values compare as bytes, everything else as text.
void compareValue(const QVariant &actual, const QVariant &expected)
{
    if (expected.typeId() == QMetaType::QByteArray)
        QCOMPARE(actual.toByteArray(), expected.toByteArray());
    else
        QCOMPARE(actual.toString(), expected.toString());
}

} // namespace

class TestIniFormat final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ourFileReadsBackAndQtAgrees()
    {
        const QString path = this->path();
        const QVariantMap values = sampleValues();
        {
            auto settings = UserSettings::open(path);
            for (auto it = values.cbegin(); it != values.cend(); ++it)
                settings->setValue(it.key(), it.value());
            settings->setValue(u"group/inner key"_s, 7);
            settings->setValue(u"General/named"_s, 8); // a section called General
            settings->sync();
            QCOMPARE(settings->status(), QSettings::NoError);
        }
        auto ours = UserSettings::open(path);
        QSettings qt(path, QSettings::IniFormat);
        for (auto it = values.cbegin(); it != values.cend(); ++it) {
            compareValue(ours->value(it.key()), it.value());
            compareValue(qt.value(it.key()), it.value());
        }
        for (QSettings *settings : {static_cast<QSettings *>(&qt), ours.get()})
            QCOMPARE((QList<int>{settings->value(u"group/inner key"_s).toInt(),
                                 settings->value(u"General/named"_s).toInt()}),
                     (QList<int>{7, 8}));
        QVERIFY(!ours->contains(u"named"_s));
    }

    void handWrittenFile()
    {
        writeFile(
            path(),
            "; a comment\r\n[General]\r\n  rules_enabled = false ; trailing comment\r\nname=two "
            "words  \n"
            "broken line without equals\n=no key\n[Other%20Section]\nk=\"quoted "
            "\\\"x\\\"\"\n\xff\xfe "
            "binary\n/leading=1\ntrailing/=2\n[a//b]\nc=3\n[%General]\nsub=5\n");
        auto settings = UserSettings::open(path());
        QCOMPARE(settings->value(u"rules_enabled"_s).toString(), u"false"_s);
        QCOMPARE(settings->value(u"name"_s).toString(), u"two words"_s);
        QCOMPARE(settings->value(u"Other Section/k"_s).toString(), u"quoted \"x\""_s);
        QCOMPARE(settings->status(), QSettings::NoError);
        // Slashes out of place (a damaged file) read as QSettings spells keys.
        QCOMPARE(settings->value(u"Other Section/leading"_s).toInt(), 1);
        QCOMPARE(settings->value(u"Other Section/trailing"_s).toInt(), 2);
        QCOMPARE(settings->value(u"a/b/c"_s).toInt(), 3);
        QCOMPARE(settings->value(u"General/sub"_s).toInt(), 5);
    }

    // The file system takes only part of the bytes (a full disk, a file size limit):
    // the write fails, and the file on disk stays as it was.
    void writeThatDoesNotFit()
    {
        auto settings = UserSettings::open(path());
        settings->setValue(u"routing_rules"_s, QByteArray(900, 'r'));
        settings->sync();
        const QByteArray before = readFile(path());

        rlimit saved{};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &saved), 0);
        const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limited = saved;
        limited.rlim_cur = 1024;
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limited), 0);
        // Small enough to sit in the file's buffer until the very end.
        settings->setValue(u"forwarding_history"_s, QByteArray(1500, 'h'));
        settings->sync();
        const QSettings::Status status = settings->status();
        ::setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previousHandler);

        QCOMPARE(status, QSettings::AccessError);
        QCOMPARE(readFile(path()), before);
    }

private:
    // A file of the test function's own: Qt keeps a parsed copy of each file it read.
    QString path() const { return m_dir.filePath(QLatin1StringView(QTest::currentTestFunction())); }

    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestIniFormat)
#include "tst_iniformat.moc"
