#include "InstalledQuillvane.h"

#include "FakeDesktop.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryStore.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDir>
#include <QProcess>
#include <QTemporaryFile>
#include <QTest>

#include <signal.h>

using namespace Qt::Literals::StringLiterals;

namespace {
const QString AppId = u"work.vorpa.Quillvane"_s;
} // namespace

bool InstalledQuillvane::setUp(const QString &buildDir, const FakeDesktop &desktop)
{
    qputenv("XDG_DATA_DIRS",
            QFile::encodeName(desktop.root() + u"/system:"_s + m_prefix + u"/share"_s));
    QDir(m_prefix).removeRecursively();
    if (QProcess::execute(u"cmake"_s, {u"--install"_s, buildDir, u"--prefix"_s, m_prefix}) != 0)
        return false;
    return shareEnvironment();
}

bool InstalledQuillvane::shareEnvironment()
{
    qDBusRegisterMetaType<QMap<QString, QString>>();
    QMap<QString, QString> variables;
    for (const char *name :
         {"HOME", "XDG_DATA_HOME", "XDG_DATA_DIRS", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS",
          "XDG_STATE_HOME", "XDG_RUNTIME_DIR", "QT_QPA_PLATFORM", "PATH", "DISPLAY",
          "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_CURRENT_DESKTOP", "DBUS_SYSTEM_BUS_ADDRESS",
          "GSETTINGS_SCHEMA_DIR", "NO_AT_BRIDGE", "ASAN_OPTIONS", "UBSAN_OPTIONS",
          "LLVM_PROFILE_FILE", "QT_LOGGING_RULES"}) {
        if (qEnvironmentVariableIsSet(name))
            variables.insert(QString::fromLatin1(name), qEnvironmentVariable(name));
    }
    QDBusMessage update =
        QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                       u"org.freedesktop.DBus"_s, u"UpdateActivationEnvironment"_s);
    update << QVariant::fromValue(variables);
    return QDBusConnection::sessionBus().call(update).type() == QDBusMessage::ReplyMessage;
}

QString InstalledQuillvane::configPath(const FakeDesktop &desktop)
{
    return desktop.configHome() + u"/quillvane/config.json"_s;
}

QString InstalledQuillvane::historyPath(const FakeDesktop &desktop)
{
    return desktop.stateHome() + u"/Quillvane/history.sqlite3"_s;
}

QList<ForwardingRecord> InstalledQuillvane::storedHistory(const FakeDesktop &desktop)
{
    HistoryDatabase database(historyPath(desktop), HistoryDatabase::Access::ReadOnly);
    auto records = HistoryStore::readHistory(database);
    return records ? std::move(records).value() : QList<ForwardingRecord>();
}

qint64 InstalledQuillvane::storedForwardCount(const FakeDesktop &desktop)
{
    HistoryDatabase database(historyPath(desktop), HistoryDatabase::Access::ReadOnly);
    return HistoryStore::loadForwardCount(database,
                                          HistoryStore::dayString(QDateTime::currentDateTime()));
}

qint64 InstalledQuillvane::journalEntries(const FakeDesktop &desktop)
{
    return ::journalEntries(historyPath(desktop));
}

qint64 InstalledQuillvane::instancePid()
{
    const auto reply = QDBusConnection::sessionBus().interface()->servicePid(AppId);
    return reply.isValid() ? qint64(reply.value()) : -1;
}

bool InstalledQuillvane::isRunning()
{
    return QDBusConnection::sessionBus().interface()->isServiceRegistered(AppId);
}

bool InstalledQuillvane::stop()
{
    const qint64 pid = instancePid();
    if (pid > 0)
        ::kill(pid_t(pid), SIGTERM);
    return QTest::qWaitFor([] { return !isRunning(); }, 10000);
}

QDBusMessage InstalledQuillvane::open(const QStringList &links, const QVariantMap &platformData,
                                      bool autoStart)
{
    QDBusMessage call = QDBusMessage::createMethodCall(AppId, u"/work/vorpa/Quillvane"_s,
                                                       u"org.freedesktop.Application"_s, u"Open"_s);
    call << links << platformData;
    call.setAutoStartService(autoStart);
    return QDBusConnection::sessionBus().call(call, QDBus::Block, 30000);
}

QDBusMessage InstalledQuillvane::automation(const QString &method, const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        AppId, u"/work/vorpa/Quillvane"_s, u"work.vorpa.Quillvane.Automation"_s, method);
    call.setArguments(arguments);
    call.setAutoStartService(false);
    return QDBusConnection::sessionBus().call(call);
}

InstalledQuillvane::Result InstalledQuillvane::run(const QString &program,
                                                   const QStringList &arguments,
                                                   const QByteArray &input)
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    Result result;
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit)
        return result;
    result.exitCode = process.exitCode();
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}
