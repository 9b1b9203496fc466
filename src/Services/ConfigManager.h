#pragma once

#include "Models/BrowserPreference.h"
#include "Models/Config.h"
#include "Models/Expected.h"
#include "Models/RoutingRule.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>

#include <optional>

// The configuration as a self-describing JSON document: rules, fallback
// browser and the cleaning switch, with a format version and the export time;
// and, where the user set any, the per-browser settings.
namespace ConfigManager {

inline constexpr qint64 SupportedVersion = 1;
// Beyond these a document is refused: a configuration a person made never
// comes near them, and a larger one would cost every link and every start.
inline constexpr qint64 MaxDocumentBytes = 4 * 1024 * 1024;
inline constexpr qsizetype MaxRules = 10000;

struct ExportData
{
    qint64 version = SupportedVersion;
    QDateTime exportDate;
    std::optional<QString> fallbackBrowserId;
    QList<RoutingRule> rules;
    bool urlCleaningEnabled = true;
    // Absent from documents of earlier versions (and when nothing is set).
    std::optional<QList<BrowserPreference>> browserPreferences;
    // The fallback is "Ask" (the member is written only then).
    bool fallbackAsks = false;
    // The handoffs switched on, by id (the member is written only when one is;
    // a document without it leaves them as they are).
    std::optional<QStringList> handoffs;

    friend bool operator==(const ExportData &, const ExportData &) = default;
};

struct ConfigError
{
    enum class Kind
    {
        UnsupportedVersion,
        EncodingFailed,
        DecodingFailed
    };

    Kind kind;
    qint64 version = 0;
    QString underlying;

    QString description() const;
};

ExportData exportConfig(const Config &config,
                        const QDateTime &now = QDateTime::currentDateTimeUtc());
Expected<QByteArray, ConfigError>
exportToJSON(const Config &config, const QDateTime &now = QDateTime::currentDateTimeUtc());
// What importing the document makes of a configuration: its rules, fallback
// and cleaning switch replace those there; what it does not hold stays.
void apply(const ExportData &data, Config &config);
// What importing changes, as lines a person reads before saying yes: the rules
// removed and added, the switches, and every browser argument and profile the
// result starts browsers with. Empty when nothing changes.
QStringList describeChanges(const Config &before, const Config &after);
// Only reads the document; applying it is the application state's. Refused:
// beyond the limits above, rules with texts beyond RoutingRule::MaxTextLength,
// two rules with one id, and profiles whose ids a browser would misread.
Expected<ExportData, ConfigError> importFromJSON(QByteArrayView bytes);
// The same, from a file (read on the caller's thread: not the one that routes).
Expected<ExportData, ConfigError> importFromFile(const QString &path);

// The document's rules and settings without what changes how a browser starts:
// the browsers' extra arguments (left as they are), the rules' profiles and
// private windows.
ExportData withoutLaunchSettings(ExportData data);

// The document's bytes: keys sorted, two-space indentation, " : " between key
// and value, slashes escaped, no final line feed.
QByteArray encode(const ExportData &data);

} // namespace ConfigManager
