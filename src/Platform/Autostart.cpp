#include "Platform/Autostart.h"

#include "Models/BuildInfo.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

using namespace Qt::Literals::StringLiterals;

namespace {

// An Exec value that survives the Desktop Entry quoting rules whatever the path holds.
QString quotedForExec(const QString &program)
{
    QString escaped;
    for (const QChar c : program) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
            escaped += u'\\';
        escaped += c;
    }
    // The desktop file's own escaping of backslashes comes on top.
    escaped.replace(u"\\"_s, u"\\\\"_s);
    return u'"' + escaped + u'"';
}

bool isFalse(QStringView value)
{
    return value.trimmed().compare(u"false", Qt::CaseInsensitive) == 0;
}

bool isTrue(QStringView value)
{
    return value.trimmed().compare(u"true", Qt::CaseInsensitive) == 0;
}

} // namespace

XdgAutostart::XdgAutostart(QString program)
    : m_program(std::move(program))
{}

QString XdgAutostart::entryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + u"/autostart/"
           + QStringView(BuildInfo::AppId) + u".desktop";
}

Autostart::Status XdgAutostart::status() const
{
    QFile file(entryPath());
    if (!file.open(QIODevice::ReadOnly))
        return Status::NotRegistered;
    bool inMainGroup = false;
    for (const QByteArray &rawLine : file.read(1024 * 1024).split('\n')) {
        const QString line = QString::fromUtf8(rawLine).trimmed();
        if (line.startsWith(u'[')) {
            inMainGroup = line == u"[Desktop Entry]";
            continue;
        }
        const qsizetype equals = line.indexOf(u'=');
        if (!inMainGroup || equals <= 0)
            continue;
        const QStringView key = QStringView(line).first(equals).trimmed();
        const QStringView value = QStringView(line).sliced(equals + 1);
        if ((key == u"Hidden" && isTrue(value))
            || (key == u"X-GNOME-Autostart-enabled" && isFalse(value)))
            return Status::NotRegistered;
    }
    return Status::Enabled;
}

Autostart::Result XdgAutostart::enable()
{
    const QString path = entryPath();
    if (!QDir().mkpath(QFileInfo(path).path()))
        return u"Could not create the folder %1."_s.arg(QFileInfo(path).path());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return u"Could not write %1: %2"_s.arg(path, file.errorString());
    const QString entry = u"[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Quillvane\n"
                          "Comment=Routes every link to the browser your rules choose\n"
                          "Exec=%1\n"
                          "Icon=%2\n"
                          "Terminal=false\n"
                          "NoDisplay=true\n"
                          "X-GNOME-Autostart-enabled=true\n"_s.arg(quotedForExec(m_program),
                                                                   QStringView(BuildInfo::AppId));
    file.write(entry.toUtf8());
    if (!file.commit())
        return u"Could not write %1: %2"_s.arg(path, file.errorString());
    return {};
}

Autostart::Result XdgAutostart::disable()
{
    QFile file(entryPath());
    if (file.exists() && !file.remove())
        return u"Could not remove %1: %2"_s.arg(file.fileName(), file.errorString());
    return {};
}
