#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
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
    // Ids are written in upper case and read in either; an empty pattern is
    // present, an absent or null one is omitted; unknown members are ignored.
    void ruleJsonForm()
    {
        const QList<RoutingRule> rules{
            {QUuid::createUuid(), u"org.gnome.Evolution"_s, u"Evolution"_s, u"firefox"_s,
             u"Firefox"_s, u"*.example.com/*"_s, u"work"_s},
            {QUuid::createUuid(), QString(), QString(), u"chromium"_s, u"Chromium"_s, QString(),
             std::nullopt},
            {QUuid::createUuid(), QString(), QString(), u"x"_s, u"X"_s, std::nullopt, std::nullopt},
        };
        const QByteArray json = RoutingRule::listToJson(rules);
        QCOMPARE(*RoutingRule::listFromJson(json), rules);
        const QJsonArray array = QJsonDocument::fromJson(json).array();
        QCOMPARE(array[0][u"id"_s].toString(),
                 rules[0].id.toString(QUuid::WithoutBraces).toUpper());
        QCOMPARE(array[1][u"urlPattern"_s], QJsonValue(u""_s));
        QCOMPARE(array[2].toObject().keys().size(), 5);

        const auto withNull =
            RoutingRule::listFromJson(ruleJson(u",\"urlPattern\":null,\"future\":[1,2]"_s));
        QCOMPARE(withNull->first().urlPattern, std::nullopt);
        QVERIFY(!RoutingRule::listToJson(*withNull).contains("urlPattern"));
        QCOMPARE(RoutingRule::listFromJson(ruleJson({}).replace(Id.toUtf8(), Id.toLower().toUtf8()))
                     ->first()
                     .id,
                 QUuid::fromString(Id));
    }

    void ruleDocumentFailsWhole_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("error");
        const QString notUuid = u"Rule 1 has a member \"id\" that is not a valid UUID."_s;
        QTest::newRow("not JSON") << QByteArray("[{") << u"The data is not valid JSON"_s;
        QTest::newRow("object") << QByteArray("{}") << u"The data is not a JSON array."_s;
        QTest::newRow("missing member") << QByteArray("[{\"id\":\"" + Id.toUtf8() + "\"}]")
                                        << u"Rule 1 has no member \"sourceAppBundleID\"."_s;
        QTest::newRow("wrong type")
            << ruleJson(u",\"urlPattern\":42"_s)
            << u"Rule 1 has a member \"urlPattern\" that is not a string."_s;
        QTest::newRow("id with braces")
            << ruleJson({}).replace(Id.toUtf8(), QByteArray('{' + Id.toUtf8() + '}')) << notUuid;
        QTest::newRow("element not an object")
            << QByteArray("[1]") << u"Rule 1 is not a JSON object."_s;
        QTest::newRow("second rule bad")
            << QByteArray(ruleJson({}).chopped(1) + ",{}]") << u"Rule 2 has no member \"id\"."_s;
    }

    void ruleDocumentFailsWhole()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, error);
        const auto rules = RoutingRule::listFromJson(json);
        QVERIFY2(!rules && rules.error().description.startsWith(error),
                 qPrintable(rules ? u"read"_s : rules.error().description));
    }
};

QTEST_GUILESS_MAIN(TestRecords)
#include "tst_records.moc"
