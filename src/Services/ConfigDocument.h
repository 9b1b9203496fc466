#pragma once

#include "Models/Config.h"
#include "Models/Expected.h"

#include <QByteArray>
#include <QJsonValue>
#include <QString>

class QSettings;

// The configuration file's JSON: written pretty-printed with its members in a
// fixed order, so that a change in a dotfiles repository is a diff of the lines
// that changed; read strictly, so that a mistake made by hand is named with its
// line and column instead of being read as something else.
namespace ConfigDocument {

// Why a document cannot be taken, and where.
struct Problem
{
    QString file;
    int line = 0;
    int column = 0;
    QString what;
    // "file:line:column: what", as compilers say it; without a place, what alone
    // (which then names the file).
    QString text() const;
    friend bool operator==(const Problem &, const Problem &) = default;
};

// Member names of the file.
inline constexpr QLatin1StringView SchemaMember("$schema");

// The schema that Quillvane installs, as a link for a new file's "$schema"
// (encode() writes the config's own, and none when it has none).
QString installedSchema();

QByteArray encode(const Config &config);
// file names the document in the problem; the document's "$schema" is kept.
Expected<Config, Problem> decode(QByteArrayView bytes, const QString &file);

// A list of rules, or of browsers' settings, in the JSON form the file and the
// export document share (member: the list's name in messages); the first
// thing wrong with it when it cannot be taken.
Expected<QList<RoutingRule>, QString> rulesFrom(const QJsonValue &value, const QString &member);
Expected<QList<BrowserPreference>, QString> preferencesFrom(const QJsonValue &value,
                                                           const QString &member);

// What the INI settings file of earlier versions held; what could not be read
// there is described in lost (the file itself is kept).
Config fromLegacySettings(const QSettings &settings, QStringList *lost);

} // namespace ConfigDocument
