#include "Services/URLRouter.h"

#include "Models/DisplayText.h"
#include "Models/HostName.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace URLRouter {

namespace {

// A rule's text as the trail shows it: patterns, ids and names may come from a
// script, and a line break in one would forge a line of the trail.
QString shown(QStringView text)
{
    return DisplayText::escapeControls(text);
}

QString orNil(const std::optional<QString> &text)
{
    return text ? shown(*text) : u"nil"_s;
}

// A link's text and host, both in lower case.
struct Texts
{
    QString text;
    std::optional<QString> host;
};

// The link as the patterns see it: as written, and again with its host in the
// one spelling of HostName when that differs (a final dot, a numeric IPv4 form).
struct Subject
{
    Texts raw;
    std::optional<Texts> canonical;

    explicit Subject(const Link &url)
        : raw{url.toString().toLower(), std::nullopt}
    {
        if (!url.hasHost())
            return;
        raw.host = url.host().toLower();
        QString host = HostName::canonical(url.hostView());
        if (host == *raw.host)
            return;
        const qsizetype at = url.hostView().data() - url.toString().constData();
        QString text = raw.text;
        text.replace(at, raw.host->size(), host);
        canonical = Texts{std::move(text), std::move(host)};
    }
};

char16_t lowerAscii(char16_t c)
{
    return (c >= u'A' && c <= u'Z') ? char16_t(c + (u'a' - u'A')) : c;
}

// The helpers below compare a lower-cased subject with a pattern whose ASCII
// letters are lower-cased on the fly, so that routing allocates nothing per rule.
bool equalsAt(QStringView subject, qsizetype at, QStringView pattern)
{
    for (qsizetype i = 0; i < pattern.size(); ++i) {
        if (subject[at + i].unicode() != lowerAscii(pattern[i].unicode()))
            return false;
    }
    return true;
}

// A plain scan: links are short, and Qt's general search costs more to set up
// than this loop takes.
qsizetype find(QStringView text, char16_t c, qsizetype from)
{
    const char16_t *data = text.utf16();
    for (qsizetype i = from; i < text.size(); ++i) {
        if (data[i] == c)
            return i;
    }
    return -1;
}

qsizetype indexOf(QStringView subject, qsizetype from, QStringView pattern)
{
    const qsizetype last = subject.size() - pattern.size();
    if (pattern.isEmpty())
        return from <= subject.size() ? from : -1;
    const char16_t first = lowerAscii(pattern[0].unicode());
    for (qsizetype i = find(subject, first, from); i >= 0 && i <= last;
         i = find(subject, first, i + 1)) {
        if (equalsAt(subject, i, pattern))
            return i;
    }
    return -1;
}

bool endsWith(QStringView subject, qsizetype from, QStringView pattern)
{
    const qsizetype at = subject.size() - pattern.size();
    return at >= from && equalsAt(subject, at, pattern);
}

bool globMatches(QStringView subject, QStringView pattern)
{
    const bool anchoredStart = !pattern.startsWith(u'*');
    const bool anchoredEnd = !pattern.endsWith(u'*');
    qsizetype cursor = 0;
    qsizetype partStart = 0;
    while (partStart <= pattern.size()) {
        qsizetype partEnd = find(pattern, u'*', partStart);
        if (partEnd < 0)
            partEnd = pattern.size();
        const QStringView part = pattern.sliced(partStart, partEnd - partStart);
        if (!part.isEmpty()) {
            const qsizetype found = indexOf(subject, cursor, part);
            if (found < 0)
                return false;
            if (partStart == 0 && anchoredStart && found != 0)
                return false;
            if (partEnd == pattern.size() && anchoredEnd && !endsWith(subject, cursor, part))
                return false;
            cursor = found + part.size();
        }
        partStart = partEnd + 1;
    }
    return true;
}

// What a pattern is, learnt in one pass over it.
struct Shape
{
    bool ascii = true;
    bool star = false;
    bool slash = false;
    int dots = 0;

    Shape() = default;
    explicit Shape(QStringView pattern)
    {
        for (const QChar c : pattern) {
            const char16_t u = c.unicode();
            if (u >= 0x80)
                ascii = false;
            else if (u == u'*')
                star = true;
            else if (u == u'/')
                slash = true;
            else if (u == u'.')
                ++dots;
        }
    }

    int specificity() const { return (star || slash) ? 0 : dots + 1; }
};

bool matchesLowered(const Texts &subject, QStringView rawPattern, const Shape &shape)
{
    // Only a pattern beyond ASCII pays for a lower-cased copy.
    QString loweredCopy;
    QStringView pattern = rawPattern;
    if (!shape.ascii) {
        loweredCopy = rawPattern.toString().toLower();
        pattern = loweredCopy;
    }

    if (shape.star)
        return globMatches(subject.text, pattern);
    if (shape.slash)
        return indexOf(subject.text, 0, pattern) >= 0;
    if (!subject.host)
        return false;
    const QStringView host = *subject.host;
    if (host.size() == pattern.size())
        return equalsAt(host, 0, pattern);
    const qsizetype dot = host.size() - pattern.size() - 1;
    return dot >= 0 && host[dot] == u'.' && equalsAt(host, dot + 1, pattern);
}

// A pattern with the host it names in the one spelling, when that differs.
struct CanonicalPattern
{
    QString text;
    Shape shape;

    static std::optional<CanonicalPattern> of(const QString &pattern)
    {
        std::optional<QString> canonical = HostName::canonicalPattern(pattern);
        if (!canonical)
            return std::nullopt;
        const Shape shape(*canonical);
        return CanonicalPattern{std::move(*canonical), shape};
    }
};

// What the pattern matches as written, and what it matches once the link's
// host and the pattern's are both spelt one way.
bool matches(const Subject &subject, QStringView pattern, const Shape &shape,
             const std::optional<CanonicalPattern> &canonical)
{
    if (matchesLowered(subject.raw, pattern, shape))
        return true;
    if (!subject.canonical && !canonical)
        return false;
    const Texts &texts = subject.canonical ? *subject.canonical : subject.raw;
    return canonical ? matchesLowered(texts, canonical->text, canonical->shape)
                     : matchesLowered(texts, pattern, shape);
}

bool sameApp(const QString &a, const QString &b)
{
    return a.size() == b.size() && a.compare(b, Qt::CaseInsensitive) == 0;
}

Decision matched(Decision::Kind kind, const RoutingRule &rule, qsizetype index)
{
    return Decision{kind,
                    RouteResult{rule.targetBrowserId, rule.targetProfileID,
                                rule.openInPrivateWindow, rule.askWhereToOpen},
                    index};
}

} // namespace

// The order in which a rule list is tried: its app rules in stored order, and its
// URL rules most specific first (stored order within one rank, by a stable
// counting sort, as ranks are small numbers), each with its pattern's shape.
struct Plan
{
    struct Candidate
    {
        qsizetype index;
        Shape shape;
        std::optional<CanonicalPattern> canonical;
    };

    QList<RoutingRule> rules;
    // Every rule with a source, in stored order; a source-only one has no shape.
    QList<Candidate> appRules;
    QList<Candidate> urlRules;

    // The trail's line for each rule (only explanations ask for it).
    QStringList trailLines() const
    {
        QStringList lines;
        lines.reserve(rules.size());
        for (qsizetype i = 0; i < rules.size(); ++i) {
            const RoutingRule &rule = rules[i];
            lines.append(u"  rule[%1]: src=%2 pattern=%3 → %4"_s.arg(
                QString::number(i), shown(rule.sourceAppId), orNil(rule.urlPattern),
                shown(rule.targetBrowserId)));
        }
        return lines;
    }

    explicit Plan(const QList<RoutingRule> &list)
        : rules(list)
    {
        QList<Candidate> candidates;
        candidates.reserve(list.size());
        appRules.reserve(list.size());
        int maxRank = 0;
        for (qsizetype i = 0; i < list.size(); ++i) {
            switch (list[i].kind()) {
            case RoutingRule::Kind::SourceOnly:
                appRules.append(Candidate{i, Shape(), std::nullopt});
                break;
            case RoutingRule::Kind::Combined:
                appRules.append(Candidate{i, Shape(*list[i].urlPattern),
                                          CanonicalPattern::of(*list[i].urlPattern)});
                break;
            case RoutingRule::Kind::UrlOnly:
                candidates.append(Candidate{i, Shape(*list[i].urlPattern),
                                            CanonicalPattern::of(*list[i].urlPattern)});
                maxRank = std::max(maxRank, candidates.back().shape.specificity());
                break;
            case RoutingRule::Kind::Inert:
                break;
            }
        }
        QList<qsizetype> slots(maxRank + 2, 0);
        for (const Candidate &candidate : std::as_const(candidates))
            ++slots[maxRank - candidate.shape.specificity() + 1];
        for (qsizetype rank = 1; rank < slots.size(); ++rank)
            slots[rank] += slots[rank - 1];
        urlRules.resize(candidates.size());
        for (const Candidate &candidate : std::as_const(candidates))
            urlRules[slots[maxRank - candidate.shape.specificity()]++] = candidate;
    }
};

CompiledRules::CompiledRules(const QList<RoutingRule> &rules)
    : m_plan(std::make_shared<const Plan>(rules))
{}

const QList<RoutingRule> &CompiledRules::rules() const
{
    return m_plan->rules;
}

Decision decide(const Link &url, const std::optional<SourceApp> &source,
                const CompiledRules &compiled, const QString &fallbackBrowserId,
                QStringList *trail)
{
    const Plan &plan = *compiled.m_plan;
    const QList<RoutingRule> &rules = plan.rules;
    if (trail) {
        trail->append(u"route() called — url=%1, source=%2, rules=%3, fallback=%4"_s.arg(
            url.toString(), source ? shown(source->desktopId) : u"nil"_s,
            QString::number(rules.size()), shown(fallbackBrowserId)));
        trail->append(plan.trailLines());
    }

    const Subject subject(url);

    if (source) {
        std::optional<qsizetype> sourceOnly;
        for (const Plan::Candidate &candidate : plan.appRules) {
            const qsizetype i = candidate.index;
            const RoutingRule &rule = rules[i];
            if (!sameApp(rule.sourceAppId, source->desktopId))
                continue;
            if (!rule.urlPattern) {
                if (!sourceOnly)
                    sourceOnly = i;
            } else if (matches(subject, *rule.urlPattern, candidate.shape, candidate.canonical)) {
                if (trail) {
                    trail->append(u"MATCHED combined rule: src=%1 pattern=%2 → %3"_s.arg(
                        shown(rule.sourceAppId), shown(*rule.urlPattern),
                        shown(rule.targetBrowserId)));
                }
                return matched(Decision::Kind::Combined, rule, i);
            }
        }
        if (sourceOnly) {
            const RoutingRule &rule = rules[*sourceOnly];
            if (trail)
                trail->append(u"MATCHED source-only rule: %1 → %2"_s.arg(
                    shown(rule.sourceAppId), shown(rule.targetBrowserId)));
            return matched(Decision::Kind::SourceOnly, rule, *sourceOnly);
        }
    }

    for (const Plan::Candidate &candidate : plan.urlRules) {
        const RoutingRule &rule = rules[candidate.index];
        if (matches(subject, *rule.urlPattern, candidate.shape, candidate.canonical)) {
            if (trail) {
                trail->append(u"MATCHED url-only rule: pattern=%1 → %2"_s.arg(
                    shown(*rule.urlPattern), shown(rule.targetBrowserId)));
            }
            return matched(Decision::Kind::UrlOnly, rule, candidate.index);
        }
    }

    if (trail)
        trail->append(u"No rule matched"_s);
    if (fallbackBrowserId.isEmpty()) {
        if (trail)
            trail->append(u"No route available (no rules matched, no fallback)"_s);
        return Decision{};
    }
    if (trail)
        trail->append(u"Using fallback browser: %1"_s.arg(shown(fallbackBrowserId)));
    return Decision{Decision::Kind::Fallback, RouteResult{fallbackBrowserId, std::nullopt},
                    -1};
}

std::optional<RouteResult> route(const Link &url, const std::optional<SourceApp> &source,
                                 const CompiledRules &rules,
                                 const QString &fallbackBrowserId)
{
    return decide(url, source, rules, fallbackBrowserId).result;
}

bool matchesPattern(const Link &url, QStringView pattern)
{
    const QString text = pattern.toString();
    return matches(Subject(url), pattern, Shape(pattern), CanonicalPattern::of(text));
}

int domainSpecificity(QStringView pattern)
{
    return Shape(pattern).specificity();
}

} // namespace URLRouter
