#include "Services/ConfigDocument.h"

#include "Services/ConfigManager.h"
#include "Services/ExecLine.h"
#include "Services/Handoffs.h"
#include "Services/ProfileDiscovery.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QSettings>
#include <QStandardPaths>
#include <QUrl>

using namespace Qt::Literals::StringLiterals;

namespace ConfigDocument {

namespace {

constexpr QLatin1StringView RulesMember("routing_rules");
constexpr QLatin1StringView FallbackMember("default_browser_bundle_id");
constexpr QLatin1StringView PreferencesMember("browser_preferences");
constexpr QLatin1StringView HandoffsMember("handoffs_enabled");

struct Flag
{
    QLatin1StringView member;
    bool Config::*field;
};
constexpr Flag Flags[] = {
    {QLatin1StringView("rules_enabled"), &Config::rulesEnabled},
    {QLatin1StringView("fallback_asks"), &Config::fallbackAsks},
    {QLatin1StringView("url_cleaning_enabled"), &Config::urlCleaningEnabled},
    {QLatin1StringView("url_expansion_enabled"), &Config::urlExpansionEnabled},
    {QLatin1StringView("url_unwrapping_enabled"), &Config::urlUnwrappingEnabled},
    {QLatin1StringView("prefer_running_browser"), &Config::preferRunningBrowser},
    {QLatin1StringView("links_leave_browsers"), &Config::linksLeaveBrowsers},
    {QLatin1StringView("update_automatic_checks"), &Config::automaticUpdateChecks},
};

// The members of a rule and of a browser's settings, and what each holds.
enum class Type
{
    Text,
    Boolean,
    Id
};
struct Member
{
    QLatin1StringView name;
    Type type;
    bool required;
};
constexpr Member RuleMembers[] = {
    {QLatin1StringView("id"), Type::Id, true},
    {QLatin1StringView("sourceAppBundleID"), Type::Text, true},
    {QLatin1StringView("sourceAppName"), Type::Text, true},
    {QLatin1StringView("targetBrowserBundleID"), Type::Text, true},
    {QLatin1StringView("targetBrowserName"), Type::Text, true},
    {QLatin1StringView("urlPattern"), Type::Text, false},
    {QLatin1StringView("targetProfileID"), Type::Text, false},
    {QLatin1StringView("openInPrivateWindow"), Type::Boolean, false},
    {QLatin1StringView("askWhereToOpen"), Type::Boolean, false},
};
constexpr Member PreferenceMembers[] = {
    {QLatin1StringView("browserBundleID"), Type::Text, true},
    {QLatin1StringView("hidden"), Type::Boolean, false},
    {QLatin1StringView("extraArguments"), Type::Text, false},
};

// A place in the document: members by name, elements by index.
struct Step
{
    QString member;
    qsizetype index = -1;
};
using Path = QList<Step>;

struct Failure
{
    Path path;
    // At the member's name (an unknown member) rather than its value.
    bool atName = false;
    QString what;
};

// Finds where a value (or a member's name) starts in a document already known
// to be valid JSON: only a failure needs it, so it reads the text again.
class Locator
{
public:
    explicit Locator(QByteArrayView text)
        : m_text(text)
    {}

    qsizetype find(const Path &path, bool atName)
    {
        for (qsizetype depth = 0; depth < path.size(); ++depth) {
            const Step &step = path[depth];
            space();
            if (step.index >= 0) {
                if (peek() != '[')
                    return m_at;
                ++m_at;
                for (qsizetype i = 0; i < step.index; ++i) {
                    skipValue();
                    space();
                    ++m_at; // ','
                }
                continue;
            }
            if (peek() != '{')
                return m_at;
            ++m_at;
            qsizetype found = -1;
            for (;;) {
                space();
                if (peek() != '"')
                    break;
                const qsizetype nameAt = m_at;
                const QString name = string();
                space();
                ++m_at; // ':'
                space();
                if (name == step.member) {
                    // The last of equal names is the one read.
                    found = nameAt;
                    if (!hasLater(step.member))
                        break;
                }
                skipValue();
                space();
                if (peek() == ',')
                    ++m_at;
            }
            if (found < 0)
                return m_at;
            if (depth + 1 == path.size() && atName)
                return found;
        }
        space();
        return m_at;
    }

private:
    char peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
    void space()
    {
        while (m_at < m_text.size() && QByteArrayView(" \t\r\n").contains(m_text[m_at]))
            ++m_at;
    }
    QString string()
    {
        const qsizetype start = m_at++;
        while (m_at < m_text.size() && m_text[m_at] != '"')
            m_at += m_text[m_at] == '\\' ? 2 : 1;
        ++m_at;
        const QByteArray quoted = '[' + m_text.sliced(start, m_at - start).toByteArray() + ']';
        return QJsonDocument::fromJson(quoted).array().at(0).toString();
    }
    void skipValue()
    {
        space();
        const char open = peek();
        if (open == '"') {
            string();
            return;
        }
        if (open != '{' && open != '[') {
            while (m_at < m_text.size() && !QByteArrayView(",]} \t\r\n").contains(m_text[m_at]))
                ++m_at;
            return;
        }
        const char close = open == '{' ? '}' : ']';
        ++m_at;
        for (;;) {
            space();
            if (peek() == close || m_at >= m_text.size()) {
                ++m_at;
                return;
            }
            if (open == '{') {
                string();
                space();
                ++m_at; // ':'
            }
            skipValue();
            space();
            if (peek() == ',')
                ++m_at;
        }
    }
    // Whether the object being read names the member again further on.
    bool hasLater(const QString &member)
    {
        Locator ahead(m_text);
        ahead.m_at = m_at;
        ahead.skipValue();
        for (;;) {
            ahead.space();
            if (ahead.peek() != ',')
                return false;
            ++ahead.m_at;
            ahead.space();
            if (ahead.string() == member)
                return true;
            ahead.space();
            ++ahead.m_at;
            ahead.skipValue();
        }
    }

    QByteArrayView m_text;
    qsizetype m_at = 0;
};

Problem problemAt(QByteArrayView text, qsizetype offset, const QString &file, QString what)
{
    offset = qBound(qsizetype(0), offset, text.size());
    const QByteArrayView before = text.first(offset);
    const qsizetype lineStart = before.lastIndexOf('\n') + 1;
    return Problem{file, int(before.count('\n') + 1),
                   int(QString::fromUtf8(before.sliced(lineStart)).size() + 1), std::move(what)};
}

QString typeName(Type type)
{
    switch (type) {
    case Type::Text:
        return u"a text"_s;
    case Type::Boolean:
        return u"true or false"_s;
    case Type::Id:
        return u"an id (8-4-4-4-12 hexadecimal digits)"_s;
    }
    return {};
}

// Checks an object's members against what it may hold; the first failure wins.
template<qsizetype N>
std::optional<Failure> checkMembers(const QJsonValue &value, const Path &at, QStringView kind,
                                    const Member (&members)[N])
{
    if (!value.isObject())
        return Failure{at, false, u"%1 must be an object."_s.arg(kind)};
    const QJsonObject object = value.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const Member *member = std::find_if(std::begin(members), std::end(members),
                                            [&](const Member &m) { return m.name == it.key(); });
        Path here = at;
        here.append(Step{it.key()});
        if (member == std::end(members))
            return Failure{here, true,
                           u"%1 has an unknown member \"%2\"."_s.arg(kind, it.key())};
        const bool fits = member->type == Type::Boolean
                              ? it->isBool()
                              : it->isString()
                                    && (member->type != Type::Id
                                        || JsonFields::parseUuid(it->toString()));
        // An optional member may be null: the same as leaving it out.
        if (!fits && !(it->isNull() && !member->required))
            return Failure{here, false,
                           u"%1's \"%2\" must be %3."_s.arg(kind, it.key(), typeName(member->type))};
    }
    for (const Member &member : members) {
        if (member.required && !object.contains(member.name))
            return Failure{at, false, u"%1 has no \"%2\"."_s.arg(kind, member.name)};
    }
    return std::nullopt;
}

std::optional<Failure> readRules(const QJsonValue &value, QList<RoutingRule> &rules,
                                 const QString &listName = RulesMember)
{
    const Path at{Step{listName}};
    if (!value.isArray())
        return Failure{at, false, u"\"%1\" must be a list of rules."_s.arg(listName)};
    const QJsonArray array = value.toArray();
    if (array.size() > ConfigManager::MaxRules)
        return Failure{at, false,
                       u"it holds %1 rules; Quillvane keeps at most %2."_s.arg(array.size()).arg(
                           ConfigManager::MaxRules)};
    QHash<QUuid, qsizetype> ruleAt;
    for (qsizetype i = 0; i < array.size(); ++i) {
        Path here = at;
        here.append(Step{{}, i});
        const QString kind = u"Rule %1"_s.arg(i + 1);
        if (auto failure = checkMembers(array[i], here, kind, RuleMembers))
            return failure;
        const RoutingRule rule = *RoutingRule::fromJson(array[i], i);
        const std::pair<QLatin1StringView, qsizetype> lengths[] = {
            {RuleMembers[1].name, rule.sourceAppId.size()},
            {RuleMembers[2].name, rule.sourceAppName.size()},
            {RuleMembers[3].name, rule.targetBrowserId.size()},
            {RuleMembers[4].name, rule.targetBrowserName.size()},
            {RuleMembers[5].name, rule.urlPattern.value_or(QString()).size()},
            {RuleMembers[6].name, rule.targetProfileID.value_or(QString()).size()}};
        for (const auto &[name, length] : lengths) {
            if (length > RoutingRule::MaxTextLength)
                return Failure{here + Path{Step{name}}, false,
                               u"%1's \"%2\" is %3 characters long; a rule may have %4."_s.arg(
                                   kind, name, QString::number(length),
                                   QString::number(RoutingRule::MaxTextLength))};
        }
        if (rule.targetProfileID) {
            if (const auto why = ProfileDiscovery::unusableProfileID(*rule.targetProfileID))
                return Failure{here + Path{Step{u"targetProfileID"_s}}, false,
                               u"%1: %2"_s.arg(kind, *why)};
        }
        if (const qsizetype first = ruleAt.value(rule.id, -1); first >= 0)
            return Failure{here + Path{Step{u"id"_s}}, false,
                           u"%1 has the id of rule %2."_s.arg(kind).arg(first + 1)};
        ruleAt.insert(rule.id, i);
        rules.append(rule);
    }
    return std::nullopt;
}

std::optional<Failure> readPreferences(const QJsonValue &value,
                                       QList<BrowserPreference> &preferences,
                                       const QString &listName = PreferencesMember)
{
    const Path at{Step{listName}};
    if (!value.isArray())
        return Failure{at, false, u"\"%1\" must be a list of browsers' settings."_s.arg(listName)};
    const QJsonArray array = value.toArray();
    for (qsizetype i = 0; i < array.size(); ++i) {
        Path here = at;
        here.append(Step{{}, i});
        const QString kind = u"Browser setting %1"_s.arg(i + 1);
        if (auto failure = checkMembers(array[i], here, kind, PreferenceMembers))
            return failure;
        BrowserPreference preference = *BrowserPreference::fromJson(array[i], i);
        if (const auto arguments = ExecLine::splitExtraArguments(preference.extraArguments);
            !arguments)
            return Failure{here + Path{Step{u"extraArguments"_s}}, false,
                           u"%1's extra arguments: %2"_s.arg(kind, arguments.error().description)};
        preferences.append(std::move(preference));
    }
    return std::nullopt;
}

std::optional<Failure> readHandoffs(const QJsonValue &value, QStringList &ids)
{
    const Path at{Step{HandoffsMember}};
    if (!value.isArray())
        return Failure{at, false, u"\"%1\" must be a list of handoffs' names."_s.arg(HandoffsMember)};
    const QJsonArray array = value.toArray();
    for (qsizetype i = 0; i < array.size(); ++i) {
        if (!array[i].isString() || !Handoffs::find(array[i].toString())) {
            QStringList known;
            for (const Handoffs::Handoff &handoff : Handoffs::builtIn())
                known.append(handoff.id);
            return Failure{at + Path{Step{{}, i}}, false,
                           u"no handoff is called %1; the handoffs are %2."_s.arg(
                               QString::fromUtf8(QJsonDocument(QJsonArray{array[i]})
                                                     .toJson(QJsonDocument::Compact)
                                                     .sliced(1)
                                                     .chopped(1)),
                               known.join(u", "_s))};
        }
        if (!ids.contains(array[i].toString()))
            ids.append(array[i].toString());
    }
    return std::nullopt;
}

std::optional<Failure> readInto(const QJsonObject &root, Config &config)
{
    for (auto it = root.begin(); it != root.end(); ++it) {
        const QString &name = it.key();
        const Path at{Step{name}};
        const Flag *flag = std::find_if(std::begin(Flags), std::end(Flags),
                                        [&](const Flag &f) { return f.member == name; });
        std::optional<Failure> failure;
        if (flag != std::end(Flags)) {
            if (!it->isBool())
                return Failure{at, false, u"\"%1\" must be true or false."_s.arg(name)};
            config.*(flag->field) = it->toBool();
        } else if (name == SchemaMember || name == FallbackMember) {
            if (!it->isString())
                return Failure{at, false, u"\"%1\" must be a text."_s.arg(name)};
            (name == SchemaMember ? config.schema : config.fallbackBrowser) = it->toString();
        } else if (name == RulesMember) {
            failure = readRules(*it, config.rules);
        } else if (name == PreferencesMember) {
            failure = readPreferences(*it, config.browserPreferences);
        } else if (name == HandoffsMember) {
            failure = readHandoffs(*it, config.handoffs);
        } else {
            failure = Failure{at, true, u"unknown member \"%1\"."_s.arg(name)};
        }
        if (failure)
            return failure;
    }
    return std::nullopt;
}

} // namespace

Expected<QList<RoutingRule>, QString> rulesFrom(const QJsonValue &value, const QString &member)
{
    QList<RoutingRule> rules;
    if (const auto failure = readRules(value, rules, member))
        return failure->what;
    return rules;
}

Expected<QList<BrowserPreference>, QString> preferencesFrom(const QJsonValue &value,
                                                           const QString &member)
{
    QList<BrowserPreference> preferences;
    if (const auto failure = readPreferences(value, preferences, member))
        return failure->what;
    return preferences;
}

QString Problem::text() const
{
    // Without a place, what is wrong names the file itself.
    if (line <= 0)
        return what;
    return u"%1:%2:%3: %4"_s.arg(file).arg(line).arg(column).arg(what);
}

QString installedSchema()
{
    QString path = QStandardPaths::locate(QStandardPaths::GenericDataLocation,
                                          u"quillvane/config.schema.json"_s);
    if (path.isEmpty())
        path = u"/usr/share/quillvane/config.schema.json"_s;
    return QUrl::fromLocalFile(path).toString();
}

QByteArray encode(const Config &config)
{
    QJsonObject root{
        {RulesMember, QJsonDocument::fromJson(RoutingRule::listToJson(config.rules)).array()},
        {FallbackMember, config.fallbackBrowser},
        {PreferencesMember,
         QJsonDocument::fromJson(BrowserPreference::listToJson(config.browserPreferences))
             .array()},
        {HandoffsMember, QJsonArray::fromStringList(config.handoffs)},
    };
    for (const Flag &flag : Flags)
        root.insert(flag.member, config.*(flag.field));
    // A person who took it out does not want it back.
    if (!config.schema.isEmpty())
        root.insert(SchemaMember, config.schema);
    const QByteArray text = QJsonDocument(root).toJson(QJsonDocument::Indented);
    // Qt opens an empty list on one line and closes it on the next (a raw line
    // break is never inside a JSON string).
    QByteArray out;
    out.reserve(text.size());
    qsizetype from = 0;
    for (qsizetype open = text.indexOf("[\n"); open >= 0; open = text.indexOf("[\n", open + 1)) {
        qsizetype end = open + 1;
        while (end < text.size() && (text[end] == '\n' || text[end] == ' '))
            ++end;
        if (end < text.size() && text[end] == ']') {
            out.append(text.constData() + from, open + 1 - from);
            from = end;
        }
    }
    out.append(text.constData() + from, text.size() - from);
    return out;
}

Expected<Config, Problem> decode(QByteArrayView bytes, const QString &file)
{
    if (bytes.size() > ConfigManager::MaxDocumentBytes)
        return Problem{file, 0, 0,
                       u"%1 is %2 bytes long; a configuration may have at most %3."_s.arg(
                           file, QString::number(bytes.size()),
                           QString::number(ConfigManager::MaxDocumentBytes))};
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes.toByteArray(), &error);
    if (error.error != QJsonParseError::NoError) {
        // The parser stops past what it could not take: point at its start.
        qsizetype at = qBound(qsizetype(0), qsizetype(error.offset), bytes.size());
        while (at > 0 && QByteArrayView(" \t\r\n").contains(bytes[at - 1]))
            --at;
        while (at > 0 && QChar::isLetterOrNumber(uchar(bytes[at - 1])))
            --at;
        return problemAt(bytes, at, file, error.errorString() + u'.');
    }
    if (!document.isObject())
        return problemAt(bytes, 0, file, u"the configuration must be a JSON object ({ … })."_s);
    Config config;
    if (const auto failure = readInto(document.object(), config))
        return problemAt(bytes, Locator(bytes).find(failure->path, failure->atName), file,
                         failure->what);
    return config;
}

Config fromLegacySettings(const QSettings &settings, QStringList *lost)
{
    Config config;
    for (const Flag &flag : Flags) {
        const QVariant value = settings.value(flag.member);
        if (!value.isValid())
            continue;
        const QString text = value.toString().trimmed().toLower();
        if (text == u"true" || text == u"yes" || text == u"1")
            config.*(flag.field) = true;
        else if (text == u"false" || text == u"no" || text == u"0")
            config.*(flag.field) = false;
        else
            lost->append(u"\"%1\" (%2) is neither true nor false."_s.arg(flag.member, text));
    }
    config.fallbackBrowser = settings.value(FallbackMember).toString();
    const auto data = [&settings](QLatin1StringView key) {
        const QVariant value = settings.value(key);
        return value.typeId() == QMetaType::QByteArray ? value.toByteArray()
                                                       : value.toString().toUtf8();
    };
    // What can be read of a list; what cannot is said in lost.
    const auto readList = [&](QLatin1StringView key, auto decode, auto &into) {
        if (!settings.contains(key))
            return;
        QList<DecodeError> skipped;
        auto list = decode(data(key), &skipped);
        if (list)
            into = std::move(list).value();
        else
            skipped.append(list.error());
        for (const DecodeError &error : std::as_const(skipped))
            lost->append(error.description);
    };
    readList(RulesMember, &RoutingRule::listFromJson, config.rules);
    readList(PreferencesMember, &BrowserPreference::listFromJson, config.browserPreferences);
    for (const QJsonValue &id : QJsonDocument::fromJson(data(HandoffsMember)).array()) {
        if (Handoffs::find(id.toString()) && !config.handoffs.contains(id.toString()))
            config.handoffs.append(id.toString());
    }
    return config;
}

} // namespace ConfigDocument
