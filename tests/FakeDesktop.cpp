#include "FakeDesktop.h"

#include <QDir>
#include <QFile>
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
    qputenv("XDG_DATA_HOME", QFile::encodeName(base + u"/data"_s));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(base + u"/system"_s));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(configHome()));
    qputenv("XDG_STATE_HOME", QFile::encodeName(stateHome()));
    qputenv("XDG_CONFIG_DIRS", QFile::encodeName(base + u"/system-config"_s));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(base + u"/run"_s));
    qputenv("HOME", QFile::encodeName(home()));
    qunsetenv("CHROME_CONFIG_HOME");
    qunsetenv("XDG_ACTIVATION_TOKEN");
    qunsetenv("DESKTOP_STARTUP_ID");
}

QString FakeDesktop::recorder(const QString &name)
{
    const QString path = root() + u"/bin/"_s + name;
    const QString record = root() + u"/records/"_s + name;
    QFile script(path);
    if (!script.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    // Arguments NUL-separated, so that blanks and line breaks survive; the file
    // appears whole, by rename, from a file of each start's own ($$): starts at
    // the same moment must not take each other's, and Quillvane counts a
    // browser that fails as a link not opened.
    script.write(("#!/bin/sh\n"
                  "printf '%s' \"${XDG_ACTIVATION_TOKEN-}\" > '"
                  + record.toUtf8()
                  + ".token'\n"
                    "printf '%s\\0' \"$@\" > '"
                  + record.toUtf8()
                  + "'.$$.tmp\n"
                    "mv '"
                  + record.toUtf8() + "'.$$.tmp '" + record.toUtf8() + ".args'\n"));
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

QString FakeDesktop::writeEntry(const QString &id, const QString &contents, bool systemWide)
{
    const QString path =
        (systemWide ? systemApplications() : userApplications()) + u'/' + id + u".desktop";
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    file.write(contents.toUtf8());
    file.close();
    refreshDatabase(systemWide);
    return path;
}

QString FakeDesktop::addApplication(const QString &id, const QString &name)
{
    const QString binary = root() + u"/bin/"_s + id;
    QFile::remove(binary);
    QFile::copy(u"/bin/sh"_s, binary);
    QFile::setPermissions(binary, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
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
    QFile file(root() + u"/records/"_s + program + u".args"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList arguments;
    for (const QByteArray &argument : file.readAll().split('\0'))
        arguments.append(QString::fromUtf8(argument));
    arguments.removeLast(); // after the last NUL
    return arguments;
}

QString FakeDesktop::activationToken(const QString &program) const
{
    QFile file(root() + u"/records/"_s + program + u".token"_s);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool FakeDesktop::ran(const QString &program) const
{
    return QFile::exists(root() + u"/records/"_s + program + u".args"_s);
}

void FakeDesktop::forget(const QString &program) const
{
    QFile::remove(root() + u"/records/"_s + program + u".args"_s);
    QFile::remove(root() + u"/records/"_s + program + u".token"_s);
}

bool FakeDesktop::waitForRun(const QString &program, int timeoutMs) const
{
    return QTest::qWaitFor([&] { return ran(program); }, timeoutMs);
}

QStringList FakeDesktop::opened(const QString &program, int timeoutMs) const
{
    return waitForRun(program, timeoutMs) ? arguments(program) : QStringList();
}
