#include "HarnessSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace HarnessSupport {

void writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(contents);
}

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.isEmpty() ? -1 : values[values.size() / 2];
}

QString installInto(const QString &base)
{
    const QString prefix = base + u"/prefix"_s;
    QProcess::execute(u"cmake"_s,
                      {u"--install"_s, QStringLiteral(QUILLVANE_BUILD_DIR), u"--prefix"_s, prefix});
    QDir().mkpath(base + u"/run"_s);
    QFile::setPermissions(base + u"/run"_s, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("XDG_DATA_HOME", QFile::encodeName(base + u"/data"_s));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(prefix + u"/share"_s));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(base + u"/config"_s));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(base + u"/run"_s));
    qputenv("XDG_STATE_HOME", QFile::encodeName(base + u"/state"_s));
    return prefix;
}

void startSessionBus(QProcess &bus, const QString &base, const QString &prefix)
{
    writeFile(
        base + u"/bus.conf"_s,
        "<busconfig><type>session</type><keep_umask/><listen>unix:tmpdir=/tmp</listen><servicedir>"
            + QFile::encodeName(prefix)
            + "/share/dbus-1/services</servicedir><policy context=\"default\">"
              "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
              "<allow own=\"*\"/></policy></busconfig>\n");
    bus.start(u"dbus-daemon"_s, {u"--config-file="_s + base + u"/bus.conf"_s,
                                 u"--print-address=1"_s, u"--nofork"_s});
    bus.waitForReadyRead(5000);
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.readLine().trimmed());
}

void waitForInstance()
{
    while (
        !QDBusConnection::sessionBus().interface()->isServiceRegistered(u"work.vorpa.Quillvane"_s))
        QThread::usleep(200);
}

} // namespace HarnessSupport
