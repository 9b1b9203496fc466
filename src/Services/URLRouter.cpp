#include "Services/URLRouter.h"

#include "Platform/DiagnosticLog.h"

#include <algorithm>
#include <numeric>

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

bool globMatches(QStringView subject, QStringView pattern)
{
    const QList<QStringView> parts = pattern.split(u'*');
    const qsizetype lastIndex = parts.size() - 1;
    qsizetype cursor = 0;
    for (qsizetype i = 0; i < parts.size(); ++i) {
        const QStringView part = parts[i];
        if (part.isEmpty())
            continue;
        const qsizetype found = subject.indexOf(part, cursor);
        if (found < 0)
            return false;
        if (i == 0 && found != 0)
            return false;
        if (i == lastIndex && !subject.sliced(cursor).endsWith(part))
            return false;
        cursor = found + part.size();
    }
    return true;
}

bool matchesLowered(const Subject &subject, const QString &rawPattern)
{
    const QString pattern = rawPattern.toLower();
    if (pattern.contains(u'*'))
        return globMatches(subject.text, pattern);
    if (pattern.contains(u'/'))
        return subject.text.contains(pattern);
    if (!subject.host)
        return false;
    const QString &host = *subject.host;
    if (host == pattern)
        return true;
    return host.size() > pattern.size() && host.endsWith(pattern) && host[host.size() - pattern.size() - 1] == u'.';
}

bool sameApp(const QString &a, const QString &b)
{
    return a.compare(b, Qt::CaseInsensitive) == 0;
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

    struct Candidate
    {
        int rank;
        qsizetype index;
    };
    QList<Candidate> urlOnly;
    for (qsizetype i = 0; i < rules.size(); ++i) {
        if (rules[i].kind() == RoutingRule::Kind::UrlOnly)
            urlOnly.append(Candidate{domainSpecificity(*rules[i].urlPattern), i});
    }
    std::stable_sort(urlOnly.begin(), urlOnly.end(),
                     [](const Candidate &a, const Candidate &b) { return a.rank > b.rank; });
    for (const Candidate &candidate : std::as_const(urlOnly)) {
        const RoutingRule &rule = rules[candidate.index];
        if (matchesLowered(subject, *rule.urlPattern)) {
            if (trail) {
                debugLog(u"MATCHED url-only rule: pattern=%1 → %2"_s.arg(*rule.urlPattern,
                                                                          rule.targetBrowserBundleID));
            }
            return matched(Decision::Kind::UrlOnly, rule, candidate.index);
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
    return matchesLowered(Subject(url), pattern.toString());
}

int domainSpecificity(QStringView pattern)
{
    if (pattern.contains(u'*') || pattern.contains(u'/'))
        return 0;
    return int(pattern.count(u'.')) + 1;
}

} // namespace URLRouter
