#include "Services/URLCleaner.h"

#include "Platform/SystemLog.h"


using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcUrlCleaner, "URLCleaner")

namespace URLCleaner {

const QSet<QString> &trackingParameters()
{
    static const QSet<QString> parameters{
        u"utm_source"_s, u"utm_medium"_s, u"utm_campaign"_s,  u"utm_content"_s,     u"utm_term"_s,
        u"utm_id"_s,     u"fbclid"_s,     u"fb_action_ids"_s, u"fb_action_types"_s, u"fb_ref"_s,
        u"fb_source"_s,  u"gclid"_s,      u"gclsrc"_s,        u"dclid"_s,           u"gbraid"_s,
        u"wbraid"_s,     u"msclkid"_s,    u"_hsenc"_s,        u"_hsmi"_s,           u"__hstc"_s,
        u"__hsfp"_s,     u"__hssc"_s,     u"mc_cid"_s,        u"mc_eid"_s,
    };
    return parameters;
}

Link clean(const Link &url)
{
    const QList<QueryItem> items = url.queryItems();
    if (items.isEmpty()) {
        qCDebug(lcUrlCleaner).noquote()
            << u"No query params to clean for %1"_s.arg(SystemLog::link(url));
        return url;
    }

    const QSet<QString> &tracking = trackingParameters();
    QStringList kept;
    QStringList removedNames;
    kept.reserve(items.size());
    for (const QueryItem &item : items) {
        if (!tracking.contains(item.name.toLower()))
            kept.append(item.raw);
        else if (!removedNames.contains(item.name))
            removedNames.append(item.name);
    }

    const qsizetype removed = items.size() - kept.size();
    if (removed == 0) {
        qCDebug(lcUrlCleaner).noquote()
            << u"No tracking params found in %1"_s.arg(SystemLog::link(url));
        return url;
    }

    auto cleaned =
        url.withQuery(kept.isEmpty() ? std::nullopt : std::optional<QString>(kept.join(u'&')));
    if (!cleaned) {
        qCCritical(lcUrlCleaner).noquote()
            << u"Failed to reconstruct URL after cleaning: %1"_s.arg(SystemLog::link(url));
        return url;
    }
    // The names tell what was removed where the log does not show the query.
    qCInfo(lcUrlCleaner).noquote() << u"Removed %1 tracking param(s) (%2): %3 → %4"_s.arg(
        QString::number(removed), removedNames.join(u", "_s), SystemLog::link(url),
        SystemLog::link(*cleaned));
    return *cleaned;
}

} // namespace URLCleaner
