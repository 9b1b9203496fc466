#include "FakeDesktop.h"

#include "TestSupport.h"

#include <QDir>
#include <QProcess>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

FakeDesktop::FakeDesktop()
{
    // For a look at what a failed test left behind.
    m_dir.setAutoRemove(!qEnvironmentVariableIsSet("QUILLVANE_KEEP_TEST_FILES"));
    const QString base = m_dir.path();
    for (const QString &sub : {u"data/applications"_s, u"system/applications"_s, u"config"_s,
                               u"home"_s, u"run"_s, u"bin"_s, u"records"_s})
        QDir(base).mkpath(sub);
    QFile::setPermissions(base + u"/run"_s, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    for (const auto &[name, folder] : {std::pair{"XDG_DATA_HOME", u"/data"_s},
                                       {"XDG_DATA_DIRS", u"/system"_s},
                                       {"XDG_CONFIG_HOME", u"/config"_s},
                                       {"XDG_STATE_HOME", u"/state"_s},
                                       {"XDG_CONFIG_DIRS", u"/system-config"_s},
                                       {"XDG_RUNTIME_DIR", u"/run"_s},
                                       {"HOME", u"/home"_s}})
        qputenv(name, QFile::encodeName(base + folder));
    for (const char *name : {"CHROME_CONFIG_HOME", "XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"})
        qunsetenv(name);
}

QString FakeDesktop::program(const QString &name, const QByteArray &script)
{
    const QString path = root() + u"/bin/"_s + name;
    writeFile(path, script);
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

QString FakeDesktop::recorder(const QString &name)
{
    // Arguments NUL-separated, so that blanks and line breaks survive; the file
    // appears whole, by rename, from a file of each start's own ($$): starts at
    // the same moment must not take each other's, and Quillvane counts a
    // browser that fails as a link not opened.
    const QByteArray record = QFile::encodeName(root() + u"/records/"_s + name);
    return program(name, "#!/bin/sh\nprintf '%s' \"${XDG_ACTIVATION_TOKEN-}\" > '" + record
                             + ".token'\nprintf '%s\\0' \"$@\" > '" + record + "'.$$.tmp\nmv '"
                             + record + "'.$$.tmp '" + record + ".args'\n");
}

QString FakeDesktop::writeEntry(const QString &id, const QString &contents, bool systemWide)
{
    const QString path =
        (systemWide ? systemApplications() : userApplications()) + u'/' + id + u".desktop";
    writeFile(path, contents.toUtf8());
    refreshDatabase(systemWide);
    return path;
}

QString FakeDesktop::addApplication(const QString &id, const QString &name)
{
    const QString binary = program(id, readFile(u"/bin/sh"_s));
    writeEntry(id, u"[Desktop Entry]\nType=Application\nName=%1\nExec=%2\n"_s.arg(name, binary));
    return binary;
}

void FakeDesktop::refreshDatabase(bool systemWide) const
{
    // GIO finds the handlers of a link type through mimeinfo.cache, as on every
    // desktop, where installing an application updates it.
    const QString directory = systemWide ? systemApplications() : userApplications();
    if (QProcess::execute(u"update-desktop-database"_s, {u"-q"_s, directory}) != 0)
        qFatal("update-desktop-database failed for %s", qPrintable(directory));
}

QString FakeDesktop::addApp(const QString &id, const QString &name, const QString &mimeTypes)
{
    return writeEntry(
        id, u"[Desktop Entry]\nType=Application\nName=%1\nExec=%2 %u\nMimeType=%3\n"_s.arg(
                name, recorder(id), mimeTypes));
}

QString FakeDesktop::addBrowser(const QString &id, const QString &name, const QString &extraKeys,
                                const QString &exec, bool systemWide)
{
    const QString program = recorder(id);
    return writeEntry(id,
                      u"[Desktop Entry]\nType=Application\nName=%1\nExec=%2\n"
                      "MimeType=x-scheme-handler/http;x-scheme-handler/https;text/html;\n%3"_s.arg(
                          name, exec.isEmpty() ? program + u" %u"_s : exec, extraKeys),
                      systemWide);
}

QStringList FakeDesktop::arguments(const QString &program) const
{
    QStringList arguments;
    for (const QByteArray &argument : readFile(record(program, u".args")).split('\0'))
        arguments.append(QString::fromUtf8(argument));
    arguments.removeLast(); // after the last NUL
    return arguments;
}

QString FakeDesktop::activationToken(const QString &program) const
{
    return QString::fromUtf8(readFile(record(program, u".token")));
}

bool FakeDesktop::ran(const QString &program) const
{
    return QFile::exists(record(program, u".args"));
}

void FakeDesktop::forget(const QString &program) const
{
    QFile::remove(record(program, u".args"));
    QFile::remove(record(program, u".token"));
}

bool FakeDesktop::waitForRun(const QString &program, int timeoutMs) const
{
    return QTest::qWaitFor([&] { return ran(program); }, timeoutMs);
}

QStringList FakeDesktop::opened(const QString &program, int timeoutMs) const
{
    return waitForRun(program, timeoutMs) ? arguments(program) : QStringList();
}

QString FakeDesktop::record(const QString &program, QStringView suffix) const
{
    return root() + u"/records/"_s + program + suffix;
}
