// The tray as KDE, GNOME's AppIndicator extension and XFCE show it: Quillvane
// publishes a StatusNotifierItem with its menu over com.canonical.dbusmenu.
// The test is the desktop's StatusNotifierWatcher and its panel: it reads the
// installed Quillvane's item and menu over the bus, the way a panel does, and
// clicks menu items through the same interface.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Storage/SettingsKeys.h"
#include "TestSupport.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDateTime>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));
const QString MenuInterface = u"com.canonical.dbusmenu"_s;

struct MenuNode
{
    int id = 0;
    QVariantMap properties;
    QList<MenuNode> children;

    QString label() const { return properties.value(u"label"_s).toString(); }
};

MenuNode readNode(const QDBusArgument &argument)
{
    MenuNode node;
    argument.beginStructure();
    argument >> node.id >> node.properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        node.children.append(readNode(child.variant().value<QDBusArgument>()));
    }
    argument.endArray();
    argument.endStructure();
    return node;
}

} // namespace

// The desktop's side: panels register as hosts, applications register items.
class StatusNotifierWatcher final : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)

public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const { return m_items; }

    QString itemService;
    QString itemPath;

public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString &serviceOrPath, const QDBusMessage &message)
    {
        // Given as a bus name (then the path is the usual one) or as a path.
        if (serviceOrPath.startsWith(u'/')) {
            itemService = message.service();
            itemPath = serviceOrPath;
        } else {
            itemService = serviceOrPath;
            itemPath = u"/StatusNotifierItem"_s;
        }
        m_items.append(itemService + itemPath);
        Q_EMIT StatusNotifierItemRegistered(itemService + itemPath);
    }
    void RegisterStatusNotifierHost(const QString &) {}

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString &item);
    void StatusNotifierItemUnregistered(const QString &item);
    void StatusNotifierHostRegistered();

private:
    QStringList m_items;
};

class TestStatusNotifier final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void itemIsPublished();
    void clickingPauseInThePanel();

private:
    QVariant itemProperty(const QString &name) const;
    QString menuPath() const { return itemProperty(u"Menu"_s).value<QDBusObjectPath>().path(); }
    // What a panel does before it shows the menu, then the menu it shows.
    MenuNode openMenu() const;
    std::unique_ptr<QSettings> stored() const
    {
        return InstalledQuillvane::storedSettings(*m_desktop);
    }

    std::unique_ptr<FakeDesktop> m_desktop;
    StatusNotifierWatcher m_watcher;
};

void TestStatusNotifier::initTestCase()
{
    if (!QDBusConnection::sessionBus().isConnected())
        QSKIP("needs a session bus: run under dbus-run-session");
    m_desktop = std::make_unique<FakeDesktop>();
    QVERIFY(g_installed.setUp(QStringLiteral(QUILLVANE_BUILD_DIR), *m_desktop));
    InstalledQuillvane::seedAlphaAndBeta(
        *m_desktop, {makeRule(u"org.example.Mail"_s, std::nullopt, u"alpha-browser"_s),
                     makeRule({}, u"docs.example"_s, u"beta-browser"_s)});

    QDBusConnection bus = QDBusConnection::sessionBus();
    QVERIFY(bus.registerObject(u"/StatusNotifierWatcher"_s, &m_watcher,
                               QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals
                                   | QDBusConnection::ExportAllProperties));
    QVERIFY(bus.registerService(u"org.kde.StatusNotifierWatcher"_s));

    QDBusMessage call =
        QDBusMessage::createMethodCall(u"work.vorpa.Quillvane"_s, u"/work/vorpa/Quillvane"_s,
                                       u"work.vorpa.Quillvane.Automation"_s, u"ListFeatures"_s);
    // Answering the watcher's questions while Quillvane starts.
    QCOMPARE(bus.call(call, QDBus::BlockWithGui, 30000).type(), QDBusMessage::ReplyMessage);
}

void TestStatusNotifier::cleanupTestCase()
{
    if (m_desktop && InstalledQuillvane::isRunning())
        QVERIFY(InstalledQuillvane::stop());
}

QVariant TestStatusNotifier::itemProperty(const QString &name) const
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        m_watcher.itemService, m_watcher.itemPath, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    get << u"org.kde.StatusNotifierItem"_s << name;
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get);
    if (reply.type() != QDBusMessage::ReplyMessage)
        return {};
    return reply.arguments().value(0).value<QDBusVariant>().variant();
}

MenuNode TestStatusNotifier::openMenu() const
{
    QDBusMessage aboutToShow = QDBusMessage::createMethodCall(m_watcher.itemService, menuPath(),
                                                              MenuInterface, u"AboutToShow"_s);
    aboutToShow << 0;
    QDBusConnection::sessionBus().call(aboutToShow);
    QDBusMessage layout = QDBusMessage::createMethodCall(m_watcher.itemService, menuPath(),
                                                         MenuInterface, u"GetLayout"_s);
    layout << 0 << -1 << QStringList();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(layout);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2)
        return {};
    return readNode(reply.arguments().at(1).value<QDBusArgument>());
}

void TestStatusNotifier::itemIsPublished()
{
    QTRY_VERIFY_WITH_TIMEOUT(!m_watcher.itemService.isEmpty(), 10000);
    QCOMPARE(itemProperty(u"Title"_s).toString(), u"Quillvane"_s);
    QCOMPARE(itemProperty(u"Status"_s).toString(), u"Active"_s);
    QVERIFY2(menuPath().startsWith(u'/'), qPrintable(menuPath()));
}

void TestStatusNotifier::clickingPauseInThePanel()
{
    const auto click = [this](const QString &label) {
        for (const MenuNode &item : openMenu().children) {
            if (item.label() == label) {
                QDBusMessage event = QDBusMessage::createMethodCall(
                    m_watcher.itemService, menuPath(), MenuInterface, u"Event"_s);
                event << item.id << u"clicked"_s << QVariant::fromValue(QDBusVariant(QVariant(0)))
                      << uint(QDateTime::currentSecsSinceEpoch());
                return QDBusConnection::sessionBus().call(event).type()
                       == QDBusMessage::ReplyMessage;
            }
        }
        return false;
    };
    // What the menu holds is the offscreen tests' business; here, that a panel
    // gets it, rebuilt each time it opens, and that its clicks arrive.
    QVERIFY(click(u"\u23F8 Pause Rules"_s));
    QTRY_VERIFY(!SettingsKeys::read(*stored(), SettingsKeys::RulesEnabled));
    QVERIFY(click(u"\u25B6 Resume Rules"_s));
    QTRY_VERIFY(SettingsKeys::read(*stored(), SettingsKeys::RulesEnabled));
}

QTEST_MAIN(TestStatusNotifier)
#include "tst_statusnotifier.moc"
