// The router over rules made from the input: the first line is the link, each
// further line a rule ("app-id|pattern|browser", parts optional). A decision
// names a browser of a rule or the fallback, and is the same when asked again.
// Hosts and patterns spelt one way stay so when spelt again, and a link's
// host, so spelt, is a pattern that matches the link.
#include "FuzzSupport.h"
#include "Models/HostName.h"
#include "Models/Link.h"
#include "Services/URLRouter.h"

#include <QUuid>

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QStringList lines = FuzzSupport::text(data, size).split(QChar(u'\n'));
    const auto url = Link::parse(lines.value(0));
    if (!url)
        return 0;
    QList<RoutingRule> rules;
    QStringList targets{QStringLiteral("fallback")};
    for (qsizetype i = 1; i < lines.size() && i < 64; ++i) {
        const QStringList parts = lines[i].split(QChar(u'|'));
        RoutingRule rule{QUuid(),        parts.value(0),
                         parts.value(0), parts.value(2, QStringLiteral("b%1").arg(i)),
                         QString(),      parts.size() > 1 ? std::optional(parts[1]) : std::nullopt,
                         std::nullopt};
        rules.append(rule);
        targets.append(rule.targetBrowserId);
        if (rule.urlPattern) {
            (void)URLRouter::matchesPattern(*url, *rule.urlPattern);
            if (const auto canonical = HostName::canonicalPattern(*rule.urlPattern))
                FUZZ_CHECK(!HostName::canonicalPattern(*canonical));
        }
    }
    if (url->hasHost()) {
        const QString host = HostName::canonical(url->hostView());
        FUZZ_CHECK(HostName::canonical(host) == host);
        const bool plainHost = !host.isEmpty() && !host.contains(QChar(u'*'))
                               && !host.contains(QChar(u':')) && !host.contains(QChar(u'/'));
        if (plainHost)
            FUZZ_CHECK(URLRouter::matchesPattern(*url, host));
    }
    const std::optional<SourceApp> source =
        lines.size() > 1 ? std::optional(SourceApp{lines[1].section(QChar(u'|'), 0, 0), {}})
                         : std::nullopt;
    const auto first = URLRouter::route(*url, source, rules, QStringLiteral("fallback"));
    const auto second = URLRouter::route(*url, source, rules, QStringLiteral("fallback"));
    FUZZ_CHECK(first.has_value() == second.has_value());
    if (first) {
        FUZZ_CHECK(first->browserId == second->browserId);
        FUZZ_CHECK(targets.contains(first->browserId));
    }
    return 0;
}
