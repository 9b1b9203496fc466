#include "Automation/AutomationValues.h"
#include "Models/BrowserInfo.h"
#include "Models/ForwardingRecord.h"
#include "Models/RoutingRule.h"

#include <QJsonDocument>
#include <QSet>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {
const QString Id = u"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"_s;

QByteArray ruleJson(const QString &members)
{
    return (u"[{\"id\":\"" + Id
            + u"\",\"sourceAppBundleID\":\"a\",\"sourceAppName\":\"A\","
              "\"targetBrowserBundleID\":\"b\",\"targetBrowserName\":\"B\""
            + members + u"}]")
        .toUtf8();
}
} // namespace

class TestRecords final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ruleSummaries();
    void ruleRoundTrip();
    void ruleOptionalMembers();
    void ruleDocumentFailsWhole_data();
    void ruleDocumentFailsWhole();
    void browserIdentity();
    void historyRecordForm();
};

void TestRecords::ruleRoundTrip()
{
    const QList<RoutingRule> rules{
        {QUuid::createUuid(), u"org.gnome.Evolution"_s, u"Evolution"_s, u"firefox"_s, u"Firefox"_s,
         u"*.example.com/*"_s, u"work"_s},
        {QUuid::createUuid(), QString(), QString(), u"chromium"_s, u"Chromium"_s, QString(),
         std::nullopt},
        {QUuid::createUuid(), QString(), QString(), u"x"_s, u"X"_s, std::nullopt, std::nullopt},
    };
    const QByteArray json = RoutingRule::listToJson(rules);
    QCOMPARE(*RoutingRule::listFromJson(json), rules);

    const QJsonArray array = QJsonDocument::fromJson(json).array();
    // Ids are written in upper case; an empty pattern is present, an absent one is omitted.
    QCOMPARE(array[0].toObject().value(u"id"_s).toString(),
             rules[0].id.toString(QUuid::WithoutBraces).toUpper());
    QCOMPARE(array[1].toObject().value(u"urlPattern"_s), QJsonValue(u""_s));
    QVERIFY(!array[1].toObject().contains(u"targetProfileID"_s));
    QCOMPARE(array[2].toObject().keys().size(), 5);
}

void TestRecords::ruleOptionalMembers()
{
    const auto withNull =
        RoutingRule::listFromJson(ruleJson(u",\"urlPattern\":null,\"future\":[1,2]"_s));
    QVERIFY(withNull);
    QCOMPARE(withNull->first().urlPattern, std::nullopt);
    QVERIFY(!RoutingRule::listToJson(*withNull).contains("urlPattern"));

    const auto lowerCaseId =
        RoutingRule::listFromJson(ruleJson(QString()).replace(Id.toUtf8(), Id.toLower().toUtf8()));
    QVERIFY(lowerCaseId);
    QCOMPARE(lowerCaseId->first().id, QUuid::fromString(Id));
}

void TestRecords::ruleDocumentFailsWhole_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("error");
    QTest::newRow("not JSON") << QByteArray("[{") << u"The data is not valid JSON"_s;
    QTest::newRow("binary") << QByteArray("\x00\xff\xfe garbage", 11)
                            << u"The data is not valid JSON"_s;
    QTest::newRow("object, not array") << QByteArray("{}") << u"The data is not a JSON array."_s;
    QTest::newRow("missing member")
        << QByteArray("[{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"}]")
        << u"Rule 1 has no member \"sourceAppBundleID\"."_s;
    QTest::newRow("wrong type") << ruleJson(u",\"urlPattern\":42"_s)
                                << u"Rule 1 has a member \"urlPattern\" that is not a string."_s;
    QTest::newRow("id with braces")
        << ruleJson(QString()).replace(Id.toUtf8(), QByteArray('{' + Id.toUtf8() + '}'))
        << u"Rule 1 has a member \"id\" that is not a valid UUID."_s;
    QTest::newRow("id not hex") << ruleJson(QString()).replace("E621", "G621")
                                << u"Rule 1 has a member \"id\" that is not a valid UUID."_s;
    QTest::newRow("element not an object")
        << QByteArray("[1]") << u"Rule 1 is not a JSON object."_s;
    QTest::newRow("second rule bad")
        << QByteArray(ruleJson(QString()).chopped(1) + ",{}]") << u"Rule 2 has no member \"id\"."_s;
}

void TestRecords::ruleDocumentFailsWhole()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, error);
    const auto rules = RoutingRule::listFromJson(json);
    QVERIFY(!rules);
    QVERIFY2(rules.error().description.startsWith(error), qPrintable(rules.error().description));
}

void TestRecords::browserIdentity()
{
    const BrowserInfo one{u"firefox"_s, u"Firefox"_s,
                          QUrl::fromLocalFile(u"/usr/share/applications/firefox.desktop"_s)};
    const BrowserInfo two{
        u"firefox"_s, u"Firefox ESR"_s,
        QUrl::fromLocalFile(u"/home/u/.local/share/applications/firefox.desktop"_s)};
    QCOMPARE(one, two);
    QCOMPARE((QSet<BrowserInfo>{one, two}).size(), 1);
    QCOMPARE(BrowserInfo::fromJson(one.toJson())->path, one.path);
    QVERIFY(!BrowserInfo::fromJson(QJsonObject{{u"bundleID"_s, u"x"_s}}));

    const BrowserProfile profile{u"Profile 1"_s, u"Work"_s, u"google-chrome"_s};
    QCOMPARE(*BrowserProfile::fromJson(profile.toJson()), profile);
}

void TestRecords::historyRecordForm()
{
    ForwardingRecord record;
    record.id = QUuid::createUuid();
    record.timestamp = QDateTime(QDate(2001, 1, 1), QTime(0, 0, 10, 500), Qt::UTC);
    record.originalURL = u"https://e.com/?utm_source=x"_s;
    record.targetBrowserBundleID = u"firefox"_s;
    record.targetBrowserName = u"Firefox"_s;

    const QByteArray json = ForwardingRecord::listToJson({record});
    const QJsonObject object = QJsonDocument::fromJson(json).array().first().toObject();
    QCOMPARE(object.value(u"timestamp"_s).toDouble(), 10.5);
    QVERIFY(!object.contains(u"sourceAppBundleID"_s));
    QVERIFY(!object.contains(u"sourceAppName"_s));
    QVERIFY(!object.contains(u"ruleMatched"_s));

    const auto back = ForwardingRecord::listFromJson(json);
    QVERIFY(back);
    QCOMPARE(back->first().timestamp, record.timestamp);
    QCOMPARE(back->first().sourceAppBundleID, std::nullopt);
    QCOMPARE(back->first().originalURL, record.originalURL);

    QVERIFY(!ForwardingRecord::listFromJson(QByteArray(json).replace("10.5", "\"10.5\"")));
    QVERIFY(!ForwardingRecord::listFromJson(QByteArray(json).replace("10.5", "1e300")));
}

// How scripts see a rule: the source's name, the pattern, the browser.
void TestRecords::ruleSummaries()
{
    const auto summary = [](const QString &id, const QString &name,
                            std::optional<QString> pattern) {
        return Automation::RuleEntity::from(RoutingRule{QUuid::createUuid(), id, name, u"chrome"_s,
                                                        u"Chrome"_s, pattern, std::nullopt})
            .summary;
    };
    QCOMPARE(summary(u"slack"_s, u"Slack"_s, u"example.com"_s), u"Slack + example.com → Chrome"_s);
    QCOMPARE(summary(u"slack"_s, u"Slack"_s, std::nullopt), u"Slack → Chrome"_s);
    QCOMPARE(summary({}, u"Slack"_s, u"example.com"_s), u"example.com → Chrome"_s);
    QCOMPARE(summary({}, {}, std::nullopt), u"→ Chrome"_s);
    QCOMPARE(summary(u"slack"_s, {}, std::nullopt), u" → Chrome"_s);
    QCOMPARE(summary({}, {}, u""_s), u" → Chrome"_s);
}

QTEST_GUILESS_MAIN(TestRecords)
#include "tst_records.moc"
