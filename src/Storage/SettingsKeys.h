#pragma once

#include <QSettings>
#include <QString>

// Every key Quillvane keeps in its settings file, declared once with its default.
namespace SettingsKeys {

template<typename T> struct Key
{
    QStringView name;
    T defaultValue;
};

// A data value (UTF-8 JSON); absent when nothing is stored.
struct DataKey
{
    QStringView name;
};

// Rules and switches (the rule store and the application state).
inline constexpr DataKey RoutingRules{u"routing_rules"};
inline constexpr Key<bool> RulesEnabled{u"rules_enabled", true};
inline constexpr Key<QStringView> DefaultBrowserBundleID{u"default_browser_bundle_id", u""};
// The fallback is "Ask": a window asks which browser opens a link no rule
// claims. The fallback browser above stays, listed first there.
inline constexpr Key<bool> FallbackAsks{u"fallback_asks", false};
inline constexpr Key<bool> UrlCleaningEnabled{u"url_cleaning_enabled", true};
inline constexpr Key<bool> UrlExpansionEnabled{u"url_expansion_enabled", false};
// Links inside redirect wrappers (mail "safe links", /url?q=) are taken out first.
inline constexpr Key<bool> UrlUnwrappingEnabled{u"url_unwrapping_enabled", true};
// Per browser: hidden from the lists, extra arguments (a JSON array).
inline constexpr DataKey BrowserPreferences{u"browser_preferences"};
// The handoffs switched on: links of their services open in the services'
// apps (a JSON array of the handoffs' ids).
inline constexpr DataKey EnabledHandoffs{u"handoffs_enabled"};
// The fallback browser gives way to a browser that runs, when it does not itself.
inline constexpr Key<bool> PreferRunningBrowser{u"prefer_running_browser", false};
// Update checks: whether they run by themselves, and when one last started
// (ISO 8601, UTC).
inline constexpr Key<bool> AutomaticUpdateChecks{u"update_automatic_checks", true};
inline constexpr Key<QStringView> LastUpdateCheck{u"update_last_check", u""};
// Kept here by earlier versions, and moved into the history database at the
// first start of this one (HistoryMigration); never written any more.
inline constexpr DataKey ForwardingHistory{u"forwarding_history"};
inline constexpr Key<qint64> TodayForwardCount{u"today_forward_count", 0};
inline constexpr Key<QStringView> TodayDate{u"today_date", u""};

// Values are read with the usual conversions (true/yes/1 and non-zero numbers are
// true); a value that cannot be converted reads as the key's default.
bool read(const QSettings &settings, const Key<bool> &key);
qint64 read(const QSettings &settings, const Key<qint64> &key);
QString read(const QSettings &settings, const Key<QStringView> &key);
// Data values; nullopt when the key is absent.
std::optional<QByteArray> read(const QSettings &settings, const DataKey &key);
// A data value holding a JSON array of texts; what cannot be read is left out.
QStringList readTexts(const QSettings &settings, const DataKey &key);

// The one way a value is written: stored, then the file written at once.
void write(QSettings &settings, QStringView name, const QVariant &value);
inline void write(QSettings &settings, const Key<bool> &key, bool value)
{
    write(settings, key.name, value);
}
inline void write(QSettings &settings, const Key<QStringView> &key, const QString &value)
{
    write(settings, key.name, value);
}
inline void write(QSettings &settings, const DataKey &key, const QByteArray &value)
{
    write(settings, key.name, value);
}
void writeTexts(QSettings &settings, const DataKey &key, const QStringList &texts);

template<typename K> bool contains(const QSettings &settings, const K &key)
{
    return settings.contains(key.name);
}

} // namespace SettingsKeys
