#include "TestSupport.h"

#include "App/AppState.h"
#include "Storage/Sqlite.h"
#include "Services/ConfigDocument.h"

#include <QDir>
#include <QFileInfo>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <deque>

using namespace Qt::Literals::StringLiterals;

namespace {
const QByteArrayList EnvironmentNames{"XDG_CONFIG_HOME", "XDG_RUNTIME_DIR", "XDG_DATA_HOME",
                                      "XDG_STATE_HOME", "HOME"};
}

TestEnvironment::TestEnvironment()
{
    for (const QByteArray &name : EnvironmentNames) {
        if (qEnvironmentVariableIsSet(name.constData()))
            m_saved.insert(name, qgetenv(name.constData()));
    }
    const QByteArray base = QFile::encodeName(m_dir.path());
    qputenv("XDG_CONFIG_HOME", base + "/config");
    qputenv("XDG_RUNTIME_DIR", base + "/run");
    qputenv("XDG_DATA_HOME", base + "/data");
    qputenv("XDG_STATE_HOME", base + "/state");
    QDir(m_dir.path()).mkpath(u"run"_s);
    QFile::setPermissions(m_dir.path() + u"/run"_s,
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

TestEnvironment::~TestEnvironment()
{
    for (const QByteArray &name : EnvironmentNames) {
        if (m_saved.contains(name))
            qputenv(name.constData(), m_saved.value(name));
        else
            qunsetenv(name.constData());
    }
}

QString TestEnvironment::configPath() const
{
    return m_dir.path() + u"/config/quillvane/config.json"_s;
}

QString TestEnvironment::legacyPath() const
{
    return m_dir.path() + u"/config/Quillvane/Quillvane.conf"_s;
}

void writeConfig(const QString &path, const Config &config)
{
    writeFile(path, ConfigDocument::encode(config));
}

Config readConfig(const QString &path)
{
    const auto config = ConfigFile::peek(path);
    if (!config)
        qFatal("%s", qPrintable(config.error().text()));
    return *config;
}

QString TestEnvironment::historyPath() const
{
    return m_dir.path() + u"/state/Quillvane/history.sqlite3"_s;
}

std::unique_ptr<HistoryDatabase> TestEnvironment::history() const
{
    auto database = std::make_unique<HistoryDatabase>(historyPath());
    database->claimWriter();
    return database;
}

QString TestEnvironment::diagnosticLogPath() const
{
    return m_dir.path() + u"/run/Quillvane.log"_s;
}

qint64 journalEntries(const QString &historyPath)
{
    HistoryDatabase database(historyPath, HistoryDatabase::Access::ReadOnly);
    qint64 entries = -1;
    database.read([&entries](Sqlite::Database &sql) {
        Sqlite::Statement count = sql.statement("SELECT count(*) FROM intakeJournal");
        entries = count.step() ? count.integer(0) : -1;
        count.run();
    });
    return entries;
}

void addRows(const QStringList &columns, QStringView rows)
{
    // QtTest keeps the column's name as given, so it has to outlive the test.
    static std::deque<QByteArray> names;
    for (const QString &column : columns)
        QTest::addColumn<QString>(names.emplace_back(column.toLatin1()).constData());
    for (const QStringView line : rows.split(u'\n', Qt::SkipEmptyParts)) {
        const QList<QStringView> cells = line.split(u'|');
        if (cells.size() != columns.size() + 1)
            qFatal("the row \"%s\" has not %d cells", qPrintable(line.toString()),
                   int(columns.size() + 1));
        QTestData &row = QTest::newRow(qPrintable(cells.first().trimmed().toString()));
        for (const QStringView cell : cells.mid(1))
            row << cell.trimmed().toString();
    }
}

Link link(QStringView text)
{
    auto parsed = Link::parse(text);
    if (!parsed)
        qFatal("test link \"%s\" does not parse: %s", qPrintable(text.toString()),
               qPrintable(parsed.error().description));
    return *parsed;
}

RoutingRule makeRule(const QString &source, std::optional<QString> pattern, const QString &target,
                     std::optional<QString> profile)
{
    return RoutingRule{QUuid::createUuid(), source, source, target, target, std::move(pattern),
                       std::move(profile)};
}

ForwardingRecord makeRecord(const QString &url, std::optional<QString> source,
                            const QString &browser, std::optional<QString> rule, qint64 secondsAgo)
{
    return ForwardingRecord{QUuid::createUuid(),
                            QDateTime::currentDateTimeUtc().addSecs(-secondsAgo),
                            url,
                            source ? std::optional(u"id."_s + *source) : std::nullopt,
                            source,
                            u"com."_s + browser.toLower(),
                            browser,
                            std::move(rule),
                            std::nullopt,
                            std::nullopt,
                            std::nullopt};
}

void writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size())
        qFatal("cannot write %s", qPrintable(path));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void clickBox(QAbstractButton *box)
{
    QTest::mouseClick(box, Qt::LeftButton, {}, QPoint(8, box->height() / 2));
}

QStringList links(const QList<ForwardingRecord> &records)
{
    QStringList result;
    for (const ForwardingRecord &record : records)
        result.append(record.originalURL);
    return result;
}

AppFixture::AppFixture()
    : history(environment.history())
    , entries(safariAndFirefox(environment.path()))
{
    autostart.enabled = false;
}

AppFixture::~AppFixture() = default;

AppState &AppFixture::start()
{
    AppServices services{entries, launcher, autostart};
    services.notify = [this](const QString &summary, const QString &body) {
        notifications.append({summary, body});
    };
    if (!QFileInfo::exists(environment.configPath()))
        writeConfig(environment.configPath(), initial);
    config = std::make_unique<ConfigFile>(environment.configPath());
    config->load();
    state = std::make_unique<AppState>(*config, *history, services);
    return *state;
}

Expected<ProcessLauncher::Verdict, QString>
RecordingLauncher::spawn(const QStringList &argv, const QString &, const QString &)
{
    spawned.append(argv);
    bool fails = !failure;
    if (!failWhenArgumentStartsWith.isEmpty())
        fails = fails && std::any_of(argv.cbegin(), argv.cend(), [this](const QString &argument) {
                    return argument.startsWith(failWhenArgumentStartsWith);
                });
    if (fails)
        return failure.error();
    if (holdVerdicts) {
        auto held = std::make_shared<QPromise<Result>>();
        held->start();
        heldVerdicts.append(held);
        return held->future();
    }
    return QtFuture::makeReadyFuture(verdict);
}

QFuture<ProcessLauncher::Result>
RecordingLauncher::activate(const QString &path, const QString &link, const QString &token)
{
    activated.append({path, link, token});
    return QtFuture::makeReadyFuture(failure);
}

DesktopEntry &FakeDesktopEntries::add(const QString &id, const QString &name, bool handlesLinks)
{
    DesktopEntry added;
    added.id = id;
    added.path = folder + u'/' + id + u".desktop"_s;
    added.name = name.isEmpty() ? id : name;
    added.exec = id + u" %u"_s;
    entries.append(added);
    if (handlesLinks)
        linkHandlers.append(id);
    return entries.last();
}

FakeDesktopEntries safariAndFirefox(const QString &folder)
{
    FakeDesktopEntries entries;
    entries.folder = folder;
    for (const auto &[id, name] :
         {std::pair{u"safari"_s, u"Safari"_s}, std::pair{u"firefox"_s, u"Firefox"_s}}) {
        QFile entry(entries.add(id, name).path);
        if (!entry.open(QIODevice::WriteOnly))
            qFatal("cannot write a desktop entry in %s", qPrintable(folder));
    }
    return entries;
}

QList<DesktopEntry> FakeDesktopEntries::handlersForScheme(const QString &)
{
    QList<DesktopEntry> handlers;
    for (const QString &id : std::as_const(linkHandlers)) {
        if (const auto found = entry(id))
            handlers.append(*found);
    }
    return handlers;
}

std::optional<DesktopEntry> FakeDesktopEntries::entry(const QString &id)
{
    for (const DesktopEntry &candidate : std::as_const(entries)) {
        if (candidate.id == id)
            return candidate;
    }
    return std::nullopt;
}

std::optional<DesktopEntry> FakeDesktopEntries::entryAt(const QString &path)
{
    for (const DesktopEntry &candidate : std::as_const(entries)) {
        if (candidate.path == path)
            return candidate;
    }
    return std::nullopt;
}

std::optional<QString> FakeDesktopEntries::defaultHandler(const QString &scheme)
{
    if (schemeHandlers.contains(scheme))
        return schemeHandlers.value(scheme);
    return scheme == u"https" ? httpsHandler : httpHandler;
}

QList<RoutingRule> workedExampleRules()
{
    return {
        makeRule(u"com.example.chat"_s, std::nullopt, u"com.google.Chrome"_s),
        makeRule(u"com.example.chat"_s, u"*meet.example.org*"_s, u"com.apple.Safari"_s),
        makeRule(QString(), u"example.com"_s, u"org.mozilla.firefox"_s),
        makeRule(QString(), u"docs.example.com"_s, u"com.google.Chrome"_s, u"Profile 1"_s),
        makeRule(QString(), u"*example.com/admin*"_s, u"com.apple.Safari"_s),
        makeRule(QString(), u"example.com/api"_s, u"com.microsoft.edgemac"_s),
    };
}

URLExpander::Network testNetwork(const QHash<QString, QList<QHostAddress>> &names)
{
    URLExpander::Network network;
    network.mayConnect = [](const QHostAddress &address) {
        return address == QHostAddress(QHostAddress::LocalHost)
               || URLExpander::isPublicAddress(address);
    };
    network.lookUp = [names](const QString &host) {
        QHostInfo info;
        if (names.contains(host)) {
            info.setAddresses(names.value(host));
        } else {
            info.setError(QHostInfo::HostNotFound);
            info.setErrorString(u"Host %1 not found"_s.arg(host));
        }
        return QtFuture::makeReadyFuture(info);
    };
    return network;
}

TestHttpServer::TestHttpServer(const QHostAddress &address)
    : m_server(std::make_unique<QTcpServer>())
{
    connect(m_server.get(), &QTcpServer::pendingConnectionAvailable, this,
            &TestHttpServer::onConnection);
    if (!m_server->listen(address))
        qFatal("test HTTP server cannot listen on %s", qPrintable(address.toString()));
}

QString TestHttpServer::baseUrl() const
{
    const QHostAddress address = m_server->serverAddress();
    const QString host = address.protocol() == QAbstractSocket::IPv6Protocol
                             ? u"[%1]"_s.arg(address.toString())
                             : address.toString();
    return u"http://%1:%2"_s.arg(host, QString::number(m_server->serverPort()));
}

void TestHttpServer::on(const QString &path, Response response)
{
    m_responses.insert(path, std::move(response));
}

void TestHttpServer::redirect(const QString &path, int status, const QByteArray &location)
{
    on(path, Response{status, {{"Location", location}}, false, {}});
}

int TestHttpServer::totalRequests() const
{
    int total = 0;
    for (const int count : m_counts)
        total += count;
    return total;
}

void TestHttpServer::onConnection()
{
    while (QTcpSocket *socket = m_server->nextPendingConnection()) {
        auto buffer = std::make_shared<QByteArray>();
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        const auto serve = [this, socket, buffer] {
            buffer->append(socket->readAll());
            while (true) {
                const qsizetype end = buffer->indexOf("\r\n\r\n");
                if (end < 0)
                    return;
                const QByteArray head = buffer->left(end);
                buffer->remove(0, end + 4);
                const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
                const QString path = QString::fromUtf8(requestLine.value(1));
                m_methods.append(requestLine.value(0));
                for (const QByteArray &line : head.split('\n')) {
                    if (line.toLower().startsWith("host:"))
                        m_hosts.append(line.mid(5).trimmed());
                }
                m_counts[path] += 1;
                const Response response = m_responses.value(path, Response{404, {}, false, {}});
                if (response.silent)
                    return;
                if (response.trickle) {
                    socket->write("HTTP/1.1 200 OK\r\nX-Slow: ");
                    auto *drip = new QTimer(socket);
                    connect(drip, &QTimer::timeout, socket, [socket] { socket->write("a"); });
                    drip->start(200);
                    return;
                }
                QByteArray reply =
                    "HTTP/1.1 " + QByteArray::number(response.status) + " Status\r\n";
                for (const auto &[name, value] : response.headers)
                    reply += name + ": " + value + "\r\n";
                reply += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n\r\n";
                if (requestLine.value(0) != "HEAD")
                    reply += response.body;
                if (response.delayMs > 0)
                    QTimer::singleShot(response.delayMs, socket, [=] { socket->write(reply); });
                else
                    socket->write(reply);
            }
        };
        connect(socket, &QTcpSocket::readyRead, this, serve);
        // Over TLS the request may have come with the handshake.
        if (socket->bytesAvailable() > 0)
            serve();
    }
}
