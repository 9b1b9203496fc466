#pragma once

#include "Models/ForwardingRecord.h"
#include "Models/RoutingRule.h"
#include "TestSupport.h"

#include <QDBusMessage>
#include <QString>
#include <QStringList>

#include <memory>

class FakeDesktop;

// Whether the call was answered (rather than refused with an error).
inline bool answered(const QDBusMessage &reply)
{
    return reply.type() == QDBusMessage::ReplyMessage;
}

// Quillvane installed into a folder of the build tree and started by the test's
// own session bus (dbus-run-session, told where the installation's D-Bus
// service file is), living in a FakeDesktop.
class InstalledQuillvane final
{
public:
    explicit InstalledQuillvane(const QString &prefix)
        : m_prefix(prefix)
    {}

    // Installs afresh, points XDG_DATA_DIRS at the desktop and the
    // installation, and gives the bus the environment it starts Quillvane with.
    bool setUp(const QString &buildDir, const FakeDesktop &desktop);
    // Gives the bus this process's environment again, for the next start.
    static bool shareEnvironment();

    QString program(const QString &name) const { return m_prefix + u"/bin/" + name; }
    QString prefix() const { return m_prefix; }

    // The configuration file the installed Quillvane reads in that desktop.
    static QString configPath(const FakeDesktop &desktop);
    static void seed(const FakeDesktop &desktop, const Config &config)
    {
        writeConfig(configPath(desktop), config);
    }
    // What that file holds now.
    static Config stored(const FakeDesktop &desktop) { return readConfig(configPath(desktop)); }
    // The history database of the installed Quillvane in that desktop, and
    // what it holds now: the history and today's forward count.
    static QString historyPath(const FakeDesktop &desktop);
    static QList<ForwardingRecord> storedHistory(const FakeDesktop &desktop);
    static qint64 storedForwardCount(const FakeDesktop &desktop);
    // Links accepted and not yet opened (-1 when the file cannot be read).
    static qint64 journalEntries(const FakeDesktop &desktop);
    static qint64 instancePid();
    static bool isRunning();
    // Stops the running instance and waits until its name is free.
    static bool stop();

    // Links handed over as applications do (org.freedesktop.Application.Open),
    // which the bus starts Quillvane for unless told not to.
    static QDBusMessage open(const QStringList &links, const QVariantMap &platformData = {},
                             bool autoStart = true);
    // Whether Quillvane took the links.
    static bool opens(const QStringList &links, const QVariantMap &platformData = {})
    {
        return answered(open(links, platformData));
    }
    // A method of the scripts' interface, which never starts Quillvane.
    static QDBusMessage automation(const QString &method, const QVariantList &arguments = {});

    struct Result
    {
        int exitCode = -1;
        QString out;
        QString err;
    };
    // Runs a program to its end (30 s at most), with input on standard input.
    static Result run(const QString &program, const QStringList &arguments,
                      const QByteArray &input = {});
    // The installed quillvane with these arguments.
    Result quillvane(const QStringList &arguments, const QByteArray &input = {}) const
    {
        return run(program(QStringLiteral("quillvane")), arguments, input);
    }
    // The exit status of quillvane-open handed the link, as an application hands it.
    int forward(const QString &link) const
    {
        return run(program(QStringLiteral("quillvane-open")), {link}).exitCode;
    }

private:
    QString m_prefix;
};
