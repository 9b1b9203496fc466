#pragma once

#include "Models/Config.h"
#include "Models/ForwardingRecord.h"
#include "Models/Link.h"
#include "Models/RoutingRule.h"
#include "Platform/Autostart.h"
#include "Platform/DesktopEntries.h"
#include "Platform/ProcessLauncher.h"
#include "Services/URLExpander.h"
#include "Services/ConfigFile.h"
#include "Storage/HistoryDatabase.h"

#include <QAbstractButton>
#include <QHash>
#include <QPromise>
#include <QHostAddress>
#include <QTcpServer>
#include <QTemporaryDir>

#include <memory>

class AppState;

// Points every per-user location (configuration, state, runtime directory) at a
// fresh temporary directory for the life of the object.
class TestEnvironment final
{
public:
    TestEnvironment();
    ~TestEnvironment();

    QString path() const { return m_dir.path(); }
    QString configPath() const;
    // Where earlier versions kept their settings.
    QString legacyPath() const;
    QString historyPath() const;
    // The history database there, with this process as its writer.
    std::unique_ptr<HistoryDatabase> history() const;
    QString diagnosticLogPath() const;

private:
    QTemporaryDir m_dir;
    QHash<QByteArray, QByteArray> m_saved;
};

// Links accepted and not yet opened in the history database at that path, as
// another process reads them (-1 when the file cannot be read).
qint64 journalEntries(const QString &historyPath);

// Writes a configuration file as Quillvane writes it, making its folders.
void writeConfig(const QString &path, const Config &config);
// What a configuration file holds; the test stops when it cannot be read.
Config readConfig(const QString &path);

// Writes a file, making its folders; the test stops when it cannot.
void writeFile(const QString &path, const QByteArray &contents);
// What the file holds; nothing when it cannot be read.
QByteArray readFile(const QString &path);

// Declares the columns (all text) of the current _data function and adds a
// row per line of rows: the row's name, then a cell per column, separated by
// "|" and trimmed.
void addRows(const QStringList &columns, QStringView rows);

// Parses a link that the test knows to be valid.
Link link(QStringView text);

// The widget of that name under parent; the test stops when there is none.
template<typename T> T *child(const QObject *parent, const QString &name)
{
    T *found = parent->findChild<T *>(name);
    if (!found)
        qFatal("no %s", qPrintable(name));
    return found;
}
// Clicks a check box on its box (its row is wider than box and text).
void clickBox(QAbstractButton *box);

// Records what would have been started, and fails when told to (all starts,
// or only those whose arguments contain failWhenArgument).
class RecordingLauncher final : public ProcessLauncher
{
public:
    Expected<Verdict, QString> spawn(const QStringList &argv, const QString &workingDirectory,
                                     const QString &token) override;
    QFuture<Result> activate(const QString &path, const QString &link,
                             const QString &token) override;

    QList<QStringList> spawned;
    QList<QStringList> activated;
    Result failure;
    QString failWhenArgumentStartsWith;
    // What the started programs did in their first moments; with
    // holdVerdicts, each verdict waits in heldVerdicts for the test to give it.
    Result verdict;
    bool holdVerdicts = false;
    QList<std::shared_ptr<QPromise<Result>>> heldVerdicts;
};

// A desktop registry held in memory: its applications are entries (the
// https handlers among them, in order), found by id or by path.
class FakeDesktopEntries final : public DesktopEntries
{
public:
    // Adds an application named after its id, whose entry lives at folder/<id>.desktop.
    DesktopEntry &add(const QString &id, const QString &name = {}, bool handlesLinks = true);

    QList<DesktopEntry> handlersForScheme(const QString &scheme) override;
    std::optional<DesktopEntry> entry(const QString &id) override;
    std::optional<DesktopEntry> entryAt(const QString &path) override;
    std::optional<QString> defaultHandler(const QString &scheme) override;
    QList<DesktopEntry> allEntries() override { return entries; }
    Result setDefaultForType(const QString &, const QString &) override { return {}; }

    QString folder = QStringLiteral("/apps");
    QList<DesktopEntry> entries;
    QStringList linkHandlers;
    std::optional<QString> httpsHandler;
    std::optional<QString> httpHandler;
    // The handlers of other schemes (handoffs' apps), by scheme.
    QHash<QString, QString> schemeHandlers;
};

// A registry of two installed browsers, Safari ("safari") and Firefox
// ("firefox"), whose entries are empty files in folder; discovery has seen them.
FakeDesktopEntries safariAndFirefox(const QString &folder);

// Launch at login as a flag, failing when told to.
class FakeAutostart final : public Autostart
{
public:
    Status status() const override { return enabled ? Status::Enabled : Status::NotRegistered; }
    Result enable() override { return set(true); }
    Result disable() override { return set(false); }

    bool enabled = false;
    Result failure;

private:
    Result set(bool value)
    {
        if (failure.hasValue())
            enabled = value;
        return failure;
    }
};

// The router's worked example, rules R1 to R6 in stored order (with the fallback
// com.apple.Safari): two app rules for com.example.chat, four URL rules.
QList<RoutingRule> workedExampleRules();

// A rule whose names are its ids.
RoutingRule makeRule(const QString &source, std::optional<QString> pattern, const QString &target,
                     std::optional<QString> profile = std::nullopt);

// A forwarding record whose ids derive from the names, made secondsAgo.
ForwardingRecord makeRecord(const QString &url, std::optional<QString> source,
                            const QString &browser, std::optional<QString> rule = std::nullopt,
                            qint64 secondsAgo = 0);
// The links of records, in their order.
QStringList links(const QList<ForwardingRecord> &records);

// An application state over a configuration file of its own, with Safari and
// Firefox installed and nothing started for real: what the view and automation
// tests drive. start() writes initial to the file and makes the state.
class AppFixture final
{
public:
    AppFixture();
    ~AppFixture();
    AppState &start();

    // What another process reading the file now would see.
    Config stored() const { return readConfig(environment.configPath()); }

    TestEnvironment environment;
    Config initial;
    std::unique_ptr<ConfigFile> config;
    std::unique_ptr<HistoryDatabase> history;
    FakeDesktopEntries entries;
    FakeAutostart autostart;
    RecordingLauncher launcher;
    // What the state told the user in notifications: summary, then body.
    QList<QStringList> notifications;
    std::unique_ptr<AppState> state;
};

// The expander's network as the tests see it: 127.0.0.1 stands for the public
// internet, and the names given resolve to the addresses given, without asking DNS.
URLExpander::Network testNetwork(const QHash<QString, QList<QHostAddress>> &names = {});

// A real HTTP/1.1 server (on 127.0.0.1 unless told otherwise) that answers
// each path with a scripted response, or not at all. It counts the requests it received per path.
class TestHttpServer final : public QObject
{
public:
    struct Response
    {
        int status = 200;
        QList<std::pair<QByteArray, QByteArray>> headers;
        bool silent = false; // accept the request and never answer
        QByteArray body;
        // Start answering, then send one more byte every 200 ms, never ending.
        bool trickle = false;
        int delayMs = 0; // answered this much later, as a site across the network
    };

    explicit TestHttpServer(const QHostAddress &address = QHostAddress::LocalHost);

    QString baseUrl() const;
    quint16 port() const { return m_server->serverPort(); }
    void on(const QString &path, Response response);
    void redirect(const QString &path, int status, const QByteArray &location);
    void serve(const QString &path, const QByteArray &body)
    {
        on(path, Response{200, {}, false, body});
    }
    int requestCount(const QString &path) const { return m_counts.value(path); }
    int totalRequests() const;
    QList<QByteArray> methods() const { return m_methods; }
    QList<QByteArray> hostHeaders() const { return m_hosts; }

private:
    void onConnection();

    std::unique_ptr<QTcpServer> m_server;
    QList<QByteArray> m_hosts;
    QHash<QString, Response> m_responses;
    QHash<QString, int> m_counts;
    QList<QByteArray> m_methods;
};
