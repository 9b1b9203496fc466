#include "Platform/DesktopSettings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace DesktopSettings {

namespace {

QString configHome()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
}

QString dataHome()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

QStringList readLines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text) || file.size() > 1024 * 1024)
        return {};
    return QString::fromUtf8(file.readAll()).split(u'\n');
}

Result writeFile(const QString &path, const QString &text)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return u"Could not make the folder of %1."_s.arg(path);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit())
        return u"Could not write %1: %2"_s.arg(path, file.errorString());
    return {};
}

// The value of key in group of an INI-like file; none when absent.
std::optional<QString> valueIn(const QString &path, QStringView group, QStringView key)
{
    QStringView current;
    const QStringList lines = readLines(path);
    for (const QString &line : lines) {
        const QStringView trimmed = QStringView(line).trimmed();
        if (trimmed.startsWith(u'[') && trimmed.endsWith(u']')) {
            current = trimmed.sliced(1, trimmed.size() - 2);
            continue;
        }
        if (current != group)
            continue;
        const qsizetype equals = trimmed.indexOf(u'=');
        if (equals > 0 && trimmed.first(equals).trimmed() == key)
            return trimmed.sliced(equals + 1).trimmed().toString();
    }
    return std::nullopt;
}

} // namespace

bool isCurrentDesktop(QStringView name)
{
    const QStringList desktops = qEnvironmentVariable("XDG_CURRENT_DESKTOP").split(u':');
    return std::any_of(desktops.cbegin(), desktops.cend(), [name](const QString &desktop) {
        return desktop.compare(name, Qt::CaseInsensitive) == 0;
    });
}

Result setXfceWebBrowser(const QString &appId, const QString &name, const QString &icon,
                         const QString &command)
{
    // XFCE starts its helpers from a desktop entry of its own kind.
    const QString helper = u"[Desktop Entry]\n"
                           "Version=1.0\n"
                           "Type=X-XFCE-Helper\n"
                           "X-XFCE-Category=WebBrowser\n"
                           "Name=%1\n"
                           "Icon=%2\n"
                           "X-XFCE-Commands=%3\n"
                           "X-XFCE-CommandsWithParameter=%3 \"%s\"\n"_s.arg(name, icon, command);
    if (Result written = writeFile(dataHome() + u"/xfce4/helpers/"_s + appId + u".desktop"_s,
                                   helper);
        !written)
        return written;

    const QString rc = configHome() + u"/xfce4/helpers.rc"_s;
    QStringList lines = readLines(rc);
    lines.removeIf([](const QString &line) {
        return line.startsWith(u"WebBrowser=") || line.trimmed().isEmpty();
    });
    lines.append(u"WebBrowser="_s + appId);
    return writeFile(rc, lines.join(u'\n') + u'\n');
}

std::optional<QString> xfceWebBrowser()
{
    // helpers.rc has no group: its keys stand before any.
    return valueIn(configHome() + u"/xfce4/helpers.rc"_s, {}, u"WebBrowser");
}

std::optional<QString> kdeBrowserApplication()
{
    return valueIn(configHome() + u"/kdeglobals"_s, u"General", u"BrowserApplication");
}

} // namespace DesktopSettings
