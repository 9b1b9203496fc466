#pragma once

#include "Models/Link.h"
#include "Models/RoutingRule.h"
#include "Platform/ProcessLauncher.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QSettings>
#include <QString>
#include <QTcpServer>
#include <QTemporaryDir>

#include <memory>

// Points every per-user location (settings, runtime directory) at a fresh
// temporary directory for the life of the object.
class TestEnvironment final
{
public:
    TestEnvironment();
    ~TestEnvironment();

    QString path() const { return m_dir.path(); }
    QString settingsPath() const;
    std::unique_ptr<QSettings> settings() const;
    QString diagnosticLogPath() const;

private:
    QTemporaryDir m_dir;
    QHash<QByteArray, QByteArray> m_saved;
};

// Parses a link that the test knows to be valid.
Link link(QStringView text);

// Records what would have been started, and fails when told to (all starts,
// or only those whose arguments contain failWhenArgument).
class RecordingLauncher final : public ProcessLauncher
{
public:
    Failure spawn(const QStringList &argv, const QString &workingDirectory,
                  const QString &token) override;
    QFuture<Failure> activate(const QString &path, const QString &link,
                              const QString &token) override;

    QList<QStringList> spawned;
    QList<QStringList> activated;
    Failure failure;
    QString failWhenArgumentStartsWith;
};

// The router's worked example, rules R1 to R6 in stored order (with the fallback
// com.apple.Safari): two app rules for com.example.chat, four URL rules.
QList<RoutingRule> workedExampleRules();

// A rule whose names are its ids.
RoutingRule makeRule(const QString &source, std::optional<QString> pattern, const QString &target,
                     std::optional<QString> profile = std::nullopt);

// A real HTTP/1.1 server on 127.0.0.1 that answers each path with a scripted
// response, or not at all. It counts the requests it received per path.
class TestHttpServer final : public QObject
{
public:
    struct Response
    {
        int status = 200;
        QList<std::pair<QByteArray, QByteArray>> headers;
        bool silent = false; // accept the request and never answer
    };

    TestHttpServer();

    QString baseUrl() const;
    void on(const QString &path, Response response);
    void redirect(const QString &path, int status, const QByteArray &location);
    int requestCount(const QString &path) const { return m_counts.value(path); }
    int totalRequests() const;
    QList<QByteArray> methods() const { return m_methods; }

private:
    void onConnection();

    QTcpServer m_server;
    QHash<QString, Response> m_responses;
    QHash<QString, int> m_counts;
    QList<QByteArray> m_methods;
};
