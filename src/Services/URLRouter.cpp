#include "Services/URLRouter.h"

#include "Platform/DiagnosticLog.h"

#include <QVarLengthArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace URLRouter {

namespace {

void debugLog(const QString &message)
{
    DiagnosticLog::write(u"URLRouter", message);
}

QString orNil(const std::optional<QString> &text)
{
    return text.value_or(u"nil"_s);
}

// The link as the patterns see it: its text and host, both in lower case.
struct Subject
{
    QString text;
    std::optional<QString> host;

    explicit Subject(const Link &url)
        : text(url.toString().toLower())
    {
        if (url.hasHost())
            host = url.host().toLower();
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
    for (qsizetype i = find(subject, first, from); i >= 0 && i <= last; i = find(subject, first, i + 1)) {
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

bool matchesLowered(const Subject &subject, QStringView rawPattern, const Shape &shape)
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

bool matchesLowered(const Subject &subject, QStringView pattern)
{
    return matchesLowered(subject, pattern, Shape(pattern));
}

bool sameApp(const QString &a, const QString &b)
{
    return a.size() == b.size() && a.compare(b, Qt::CaseInsensitive) == 0;
}

Decision matched(Decision::Kind kind, const RoutingRule &rule, qsizetype index)
{
    return Decision{kind, RouteResult{rule.targetBrowserBundleID, rule.targetProfileID}, index};
}

} // namespace

Decision decide(const Link &url, const std::optional<SourceApp> &source, const QList<RoutingRule> &rules,
                const QString &defaultBrowserBundleID)
{
    const bool trail = DiagnosticLog::isEnabled();
    if (trail) {
        QStringList lines;
        lines.reserve(rules.size() + 1);
        lines.append(u"route() called — url=%1, source=%2, rules=%3, fallback=%4"_s.arg(
            url.toString(), source ? source->bundleID : u"nil"_s, QString::number(rules.size()),
            defaultBrowserBundleID));
        for (qsizetype i = 0; i < rules.size(); ++i) {
            const RoutingRule &rule = rules[i];
            lines.append(u"  rule[%1]: src=%2 pattern=%3 → %4"_s.arg(QString::number(i), rule.sourceAppBundleID,
                                                                     orNil(rule.urlPattern),
                                                                     rule.targetBrowserBundleID));
        }
        DiagnosticLog::writeLines(u"URLRouter", lines);
    }

    const Subject subject(url);

    if (source) {
        for (qsizetype i = 0; i < rules.size(); ++i) {
            const RoutingRule &rule = rules[i];
            if (rule.kind() == RoutingRule::Kind::Combined && sameApp(rule.sourceAppBundleID, source->bundleID)
                && matchesLowered(subject, *rule.urlPattern)) {
                if (trail) {
                    debugLog(u"MATCHED combined rule: src=%1 pattern=%2 → %3"_s.arg(
                        rule.sourceAppBundleID, *rule.urlPattern, rule.targetBrowserBundleID));
                }
                return matched(Decision::Kind::Combined, rule, i);
            }
        }
        for (qsizetype i = 0; i < rules.size(); ++i) {
            const RoutingRule &rule = rules[i];
            if (rule.kind() == RoutingRule::Kind::SourceOnly && sameApp(rule.sourceAppBundleID, source->bundleID)) {
                if (trail) {
                    debugLog(u"MATCHED source-only rule: %1 → %2"_s.arg(rule.sourceAppBundleID,
                                                                          rule.targetBrowserBundleID));
                }
                return matched(Decision::Kind::SourceOnly, rule, i);
            }
        }
    }

    // URL-only rules, most specific first and in stored order within one rank: a
    // stable counting sort, as ranks are small numbers.
    struct Candidate
    {
        qsizetype index;
        Shape shape;
    };
    QVarLengthArray<Candidate, 64> candidates;
    int maxRank = 0;
    for (qsizetype i = 0; i < rules.size(); ++i) {
        if (rules[i].kind() == RoutingRule::Kind::UrlOnly) {
            candidates.append(Candidate{i, Shape(*rules[i].urlPattern)});
            maxRank = std::max(maxRank, candidates.back().shape.specificity());
        }
    }
    QVarLengthArray<qsizetype, 32> slots(maxRank + 2, 0);
    for (const Candidate &candidate : std::as_const(candidates))
        ++slots[maxRank - candidate.shape.specificity() + 1];
    for (qsizetype rank = 1; rank < slots.size(); ++rank)
        slots[rank] += slots[rank - 1];
    QVarLengthArray<const Candidate *, 64> ordered(candidates.size());
    for (const Candidate &candidate : std::as_const(candidates))
        ordered[slots[maxRank - candidate.shape.specificity()]++] = &candidate;

    for (const Candidate *candidate : std::as_const(ordered)) {
        const RoutingRule &rule = rules[candidate->index];
        if (matchesLowered(subject, *rule.urlPattern, candidate->shape)) {
            if (trail) {
                debugLog(u"MATCHED url-only rule: pattern=%1 → %2"_s.arg(*rule.urlPattern,
                                                                          rule.targetBrowserBundleID));
            }
            return matched(Decision::Kind::UrlOnly, rule, candidate->index);
        }
    }

    if (trail)
        debugLog(u"No rule matched"_s);
    if (defaultBrowserBundleID.isEmpty()) {
        if (trail)
            debugLog(u"No route available (no rules matched, no fallback)"_s);
        return Decision{};
    }
    if (trail)
        debugLog(u"Using fallback browser: %1"_s.arg(defaultBrowserBundleID));
    return Decision{Decision::Kind::Fallback, RouteResult{defaultBrowserBundleID, std::nullopt}, -1};
}

std::optional<RouteResult> route(const Link &url, const std::optional<SourceApp> &source,
                                 const QList<RoutingRule> &rules, const QString &defaultBrowserBundleID)
{
    return decide(url, source, rules, defaultBrowserBundleID).result;
}

bool matchesPattern(const Link &url, QStringView pattern)
{
    return matchesLowered(Subject(url), pattern);
}

int domainSpecificity(QStringView pattern)
{
    return Shape(pattern).specificity();
}

} // namespace URLRouter
