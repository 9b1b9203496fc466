#include "Services/Handoffs.h"

#include "Models/BuildInfo.h"
#include "Platform/DesktopEntries.h"
#include "Services/BrowserCatalog.h"

#include <QRegularExpression>
#include <QStringList>

#include <functional>

using namespace Qt::Literals::StringLiterals;

namespace Handoffs {

namespace {

// The parts of a web link the rewrites look at, read once.
struct WebLink
{
    const Link &link;
    // Lower case, without the final dot a host may be written with.
    QString host;
    QStringList segments;

    bool hostIs(QStringView name) const { return host == name; }
    bool hostIsOrUnder(QStringView domain) const
    {
        return host == domain
               || (host.endsWith(domain) && host.at(host.size() - domain.size() - 1) == u'.');
    }
    // A query item's value as it stands in the link (still percent-encoded).
    std::optional<QString> rawValue(QStringView name) const
    {
        for (const QueryItem &item : link.queryItems()) {
            if (item.name == name && item.value)
                return item.raw.sliced(item.raw.indexOf(u'=') + 1);
        }
        return std::nullopt;
    }
    QString pathQueryAndFragment() const
    {
        return link.path() + (link.query() ? u'?' + *link.query() : QString())
               + (link.fragment() ? u'#' + *link.fragment() : QString());
    }
};

bool isToken(const QString &text)
{
    static const QRegularExpression token(u"^[A-Za-z0-9]+$"_s);
    return token.match(text).hasMatch();
}

using Rewrite = std::function<std::optional<QString>(const WebLink &)>;

// https://<any>.zoom.us/j/<id>?pwd=<p> → zoommtg://zoom.us/join?confno=<id>&pwd=<p>
std::optional<QString> zoom(const WebLink &web)
{
    static const QRegularExpression meetingId(u"^[0-9]{6,}$"_s);
    if (!web.hostIsOrUnder(u"zoom.us") || web.segments.size() != 2 || web.segments[0] != u"j"
        || !meetingId.match(web.segments[1]).hasMatch())
        return std::nullopt;
    const std::optional<QString> password = web.rawValue(u"pwd");
    return u"zoommtg://zoom.us/join?confno="_s + web.segments[1]
           + (password ? u"&pwd="_s + *password : QString());
}

// https://teams.microsoft.com/l/… → msteams:/l/…
std::optional<QString> teams(const WebLink &web)
{
    if (!web.hostIs(u"teams.microsoft.com") || !web.link.path().startsWith(u"/l/"))
        return std::nullopt;
    return u"msteams:"_s + web.pathQueryAndFragment();
}

// https://open.spotify.com/[intl-xx/]<kind>/<id> → spotify:<kind>:<id>
std::optional<QString> spotify(const WebLink &web)
{
    static const QStringList kinds{u"track"_s,    u"album"_s,   u"artist"_s,
                                   u"playlist"_s, u"episode"_s, u"show"_s};
    QStringList segments = web.segments;
    if (!segments.isEmpty() && segments.first().startsWith(u"intl-"))
        segments.removeFirst();
    if (!web.hostIs(u"open.spotify.com") || segments.size() != 2 || !kinds.contains(segments[0])
        || !isToken(segments[1]))
        return std::nullopt;
    return u"spotify:"_s + segments[0] + u':' + segments[1];
}

// https://app.slack.com/client/<team>/<channel>[/…] → slack://channel?team=<team>&id=<channel>
std::optional<QString> slack(const WebLink &web)
{
    if (!web.hostIs(u"app.slack.com") || web.segments.size() < 3 || web.segments[0] != u"client"
        || !isToken(web.segments[1]) || !isToken(web.segments[2]))
        return std::nullopt;
    return u"slack://channel?team=%1&id=%2"_s.arg(web.segments[1], web.segments[2]);
}

// https://discord.com/channels/… → discord://-/channels/…
std::optional<QString> discord(const WebLink &web)
{
    if (!web.hostIsOrUnder(u"discord.com") || web.segments.size() < 2
        || web.segments[0] != u"channels")
        return std::nullopt;
    return u"discord://-"_s + web.pathQueryAndFragment();
}

// https://t.me/<name> → tg://resolve?domain=<name> (a public name; the paths
// of invitations, sticker sets and the like are no names)
std::optional<QString> telegram(const WebLink &web)
{
    static const QRegularExpression name(u"^[A-Za-z][A-Za-z0-9_]{3,31}$"_s);
    static const QStringList reserved{
        u"joinchat"_s, u"addstickers"_s, u"addemoji"_s, u"addtheme"_s, u"share"_s,       u"proxy"_s,
        u"socks"_s,    u"setlanguage"_s, u"login"_s,    u"iv"_s,       u"confirmphone"_s};
    if ((!web.hostIs(u"t.me") && !web.hostIs(u"telegram.me")) || web.segments.size() != 1
        || !name.match(web.segments[0]).hasMatch()
        || reserved.contains(web.segments[0], Qt::CaseInsensitive))
        return std::nullopt;
    return u"tg://resolve?domain="_s + web.segments[0];
}

// https://matrix.to/#/<id> → element://vector/webapp/#/<id>
std::optional<QString> element(const WebLink &web)
{
    const std::optional<QString> fragment = web.link.fragment();
    if (!web.hostIs(u"matrix.to") || !web.segments.isEmpty() || !fragment
        || !fragment->startsWith(u'/') || fragment->size() < 2)
        return std::nullopt;
    return u"element://vector/webapp/#"_s + *fragment;
}

// https://store.steampowered.com/… and https://steamcommunity.com/… → steam://openurl/<link>
std::optional<QString> steam(const WebLink &web)
{
    if (!web.hostIs(u"store.steampowered.com") && !web.hostIs(u"steamcommunity.com"))
        return std::nullopt;
    return u"steam://openurl/"_s + web.link.toString();
}

struct BuiltIn
{
    Handoff handoff;
    Rewrite rewrite;
};

const QList<BuiltIn> &all()
{
    static const QList<BuiltIn> handoffs{
        {{u"zoom"_s, u"Zoom"_s, u"zoommtg"_s}, zoom},
        {{u"teams"_s, u"Microsoft Teams"_s, u"msteams"_s}, teams},
        {{u"spotify"_s, u"Spotify"_s, u"spotify"_s}, spotify},
        {{u"slack"_s, u"Slack"_s, u"slack"_s}, slack},
        {{u"discord"_s, u"Discord"_s, u"discord"_s}, discord},
        {{u"telegram"_s, u"Telegram"_s, u"tg"_s}, telegram},
        {{u"element"_s, u"Element"_s, u"element"_s}, element},
        {{u"steam"_s, u"Steam"_s, u"steam"_s}, steam},
    };
    return handoffs;
}

} // namespace

const QList<Handoff> &builtIn()
{
    static const QList<Handoff> handoffs = [] {
        QList<Handoff> list;
        for (const BuiltIn &builtIn : all())
            list.append(builtIn.handoff);
        return list;
    }();
    return handoffs;
}

QStringList known(const QStringList &ids)
{
    QStringList result;
    for (const Handoff &handoff : builtIn()) {
        if (ids.contains(handoff.id))
            result.append(handoff.id);
    }
    return result;
}

QStringList switched(const QStringList &ids, const QString &id, bool on)
{
    QStringList result = ids;
    result.removeAll(id);
    if (on)
        result.append(id);
    return known(result);
}

const Handoff *find(QStringView id)
{
    for (const Handoff &handoff : builtIn()) {
        if (handoff.id == id)
            return &handoff;
    }
    return nullptr;
}

std::optional<Match> match(const Link &link)
{
    if (!link.isWebLink())
        return std::nullopt;
    QString host = link.host().toLower();
    if (host.endsWith(u'.'))
        host.chop(1);
    const WebLink web{link, host, link.path().split(u'/', Qt::SkipEmptyParts)};
    for (qsizetype i = 0; i < all().size(); ++i) {
        const std::optional<QString> rewritten = all()[i].rewrite(web);
        if (!rewritten)
            continue;
        const auto parsed = Link::parse(*rewritten);
        if (parsed)
            return Match{&builtIn()[i], *parsed};
    }
    return std::nullopt;
}

std::optional<SchemeHandler> handler(DesktopEntries &entries, const QString &scheme)
{
    const std::optional<QString> id = entries.defaultHandler(scheme);
    if (!id || id->compare(QStringView(BuildInfo::AppId), Qt::CaseInsensitive) == 0)
        return std::nullopt;
    const std::optional<DesktopEntry> entry = entries.entry(*id);
    if (!entry || BrowserCatalog::isQuillvane(*entry))
        return std::nullopt;
    return SchemeHandler{entry->id, entry->name.value_or(entry->id)};
}

} // namespace Handoffs
