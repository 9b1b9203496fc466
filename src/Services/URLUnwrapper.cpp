#include "Services/URLUnwrapper.h"

#include "Platform/SystemLog.h"

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcURLUnwrapper, "URLUnwrapper")

namespace URLUnwrapper {

namespace {

enum class HostMatch
{
    Exact,
    // The host, or a subdomain of it (nam12.safelinks.protection.outlook.com).
    WithSubdomains,
    // google.com, google.de, google.co.uk, with or without "www."
    GoogleCountry,
};

struct Wrapper
{
    QStringView host;
    HostMatch match;
    // The path the wrapper answers on; empty: any.
    QStringView path;
    // Query members that carry the destination, tried in order.
    QStringView members[2];
};

// The hosts are compared in lower case, as links carry them in their ASCII form.
constexpr Wrapper Wrappers[] = {
    {u"safelinks.protection.outlook.com", HostMatch::WithSubdomains, u"", {u"url"}},
    {u"google", HostMatch::GoogleCountry, u"/url", {u"q", u"url"}},
    {u"l.facebook.com", HostMatch::Exact, u"/l.php", {u"u"}},
    {u"lm.facebook.com", HostMatch::Exact, u"/l.php", {u"u"}},
    {u"l.messenger.com", HostMatch::Exact, u"/l.php", {u"u"}},
    {u"l.instagram.com", HostMatch::Exact, u"", {u"u"}},
    {u"www.linkedin.com", HostMatch::Exact, u"/redir/redirect", {u"url"}},
    {u"slack-redir.net", HostMatch::Exact, u"/link", {u"url"}},
    {u"www.youtube.com", HostMatch::Exact, u"/redirect", {u"q"}},
    {u"steamcommunity.com", HostMatch::Exact, u"/linkfilter/", {u"url", u"u"}},
};

bool isGoogle(QStringView host)
{
    if (host.startsWith(u"www."))
        host = host.sliced(4);
    if (!host.startsWith(u"google."))
        return false;
    const QStringView country = host.sliced(7);
    // google.com, google.de, google.co.uk, google.com.au
    static const QStringList seconds{u"com"_s, u"co"_s};
    const QList<QStringView> labels = country.split(u'.');
    if (labels.size() == 1)
        return !labels[0].isEmpty();
    return labels.size() == 2 && seconds.contains(labels[0]) && labels[1].size() == 2;
}

bool hostMatches(const Wrapper &wrapper, QStringView host)
{
    switch (wrapper.match) {
    case HostMatch::Exact:
        return host == wrapper.host;
    case HostMatch::WithSubdomains:
        return host == wrapper.host
               || (host.endsWith(wrapper.host) && host[host.size() - wrapper.host.size() - 1] == u'.');
    case HostMatch::GoogleCountry:
        return isGoogle(host);
    }
    return false;
}

// The link one wrapper carries; none when url is no wrapper or carries no web link.
std::optional<Link> opened(const Link &url)
{
    const QString host = url.host().toLower();
    const QString path = url.path();
    for (const Wrapper &wrapper : Wrappers) {
        if (!hostMatches(wrapper, host)
            || (!wrapper.path.isEmpty() && path != wrapper.path
                && !(wrapper.path.endsWith(u'/') && path == wrapper.path.chopped(1))))
            continue;
        const QList<QueryItem> items = url.queryItems();
        for (const QStringView member : wrapper.members) {
            if (member.isEmpty())
                continue;
            for (const QueryItem &item : items) {
                if (item.name != member || !item.value)
                    continue;
                auto inner = Link::parseWebLink(*item.value);
                if (inner)
                    return std::move(inner).value();
            }
        }
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

Link unwrap(const Link &url)
{
    Link current = url;
    for (int depth = 0; depth < MaxDepth; ++depth) {
        std::optional<Link> inner = opened(current);
        if (!inner)
            break;
        current = std::move(*inner);
    }
    if (!(current == url))
        qCInfo(lcURLUnwrapper).noquote() << u"Unwrapped %1 → %2"_s.arg(
            SystemLog::priv(url.toString()), SystemLog::priv(current.toString()));
    return current;
}

QStringList knownWrappers()
{
    QStringList lines;
    for (const Wrapper &wrapper : Wrappers) {
        QString host = wrapper.host.toString();
        if (wrapper.match == HostMatch::WithSubdomains)
            host = u"*."_s + host;
        else if (wrapper.match == HostMatch::GoogleCountry)
            host = u"www.google.<country>"_s;
        QStringList members;
        for (const QStringView member : wrapper.members) {
            if (!member.isEmpty())
                members.append(member.toString());
        }
        lines.append(u"%1%2?%3="_s.arg(host, wrapper.path.isEmpty() ? u"/"_s : wrapper.path.toString(),
                                       members.join(u"= or "_s)));
    }
    return lines;
}

} // namespace URLUnwrapper
