#include "App/LinkIntake.h"

#include "App/AppState.h"
#include "App/DesktopActions.h"
#include "Automation/BusNames.h"
#include "Models/DisplayText.h"
#include "Platform/BusPeers.h"
#include "Platform/DiagnosticLog.h"
#include "Services/NativeMessaging.h"
#include "Services/OpenRequestSources.h"
#include "Services/SourceAppResolver.h"
#include "Storage/LinkJournal.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace {

void debugLog(const QString &message)
{
    DiagnosticLog::write({}, message);
}

// Tokens are short printable ASCII; anything else would only make the
// browser's launch fail (a token travels in its environment), so it is left out.
constexpr qsizetype MaxTokenLength = 512;

QString activationToken(const QVariantMap &platformData)
{
    for (const QString &key : {u"activation-token"_s, u"desktop-startup-id"_s}) {
        const QString token = platformData.value(key).toString();
        if (token.isEmpty())
            continue;
        const bool printable = std::all_of(token.cbegin(), token.cend(), [](QChar c) {
            return c.unicode() > 0x20 && c.unicode() < 0x7f;
        });
        if (token.size() <= MaxTokenLength && printable)
            return token;
        debugLog(u"Ignoring a %1 of %2 characters that is not short printable text"_s.arg(
            key, QString::number(token.size())));
    }
    return {};
}

} // namespace

LinkIntake::LinkIntake(AppState &state, SourceAppResolver &resolver, QObject *parent)
    : QObject(parent)
    , m_state(state)
    , m_resolver(resolver)
{}

void LinkIntake::Activate(const QVariantMap &)
{
    debugLog(u"Activate requested"_s);
    if (onActivate)
        onActivate();
}

void LinkIntake::Open(const QStringList &uris, const QVariantMap &platformData)
{
    const qint64 arrived = LinkTiming::nowNs();
    traceRequest(uris);
    const QString token = activationToken(platformData);
    if (!calledFromDBus()) {
        handleURLs(uris, -1, token, {}, arrived);
        return;
    }
    // The bus says who called. Our forwarder says which process it is: its
    // application is looked up while the bus answers, and used only if the bus
    // names the same process. The caller waits for the reply, so it is still
    // there to be resolved.
    setDelayedReply(true);
    const QDBusMessage call = message();
    QDBusConnection bus = connection();
    const qint64 claimed = platformData.value(u"sender-pid"_s).toLongLong();
    std::optional<SourceApp> guessed;
    const auto guess = [&] {
        if (claimed > 0)
            guessed = sourceOf(uris, claimed);
    };
    // Our forwarder proves its claim with a socket it made: no question to the bus.
    const auto proof = platformData.value(u"sender-socket"_s).value<QDBusUnixFileDescriptor>();
    if (const auto proven = BusPeers::socketCreator(proof.fileDescriptor());
        proven && *proven == claimed) {
        guess();
        opened(bus, call, uris, token, arrived, claimed, claimed, guessed);
        return;
    }
    // Asked and answered on this thread, past Qt's bus thread: a click's
    // answer is a round trip to the bus. A bus that is slow to answer is asked
    // again without waiting, so that links already here keep opening.
    if (const auto sender = BusPeers::processOf(call.service().toUtf8(), guess, QuickAnswerMs)) {
        opened(bus, call, uris, token, arrived, *sender, claimed, guessed);
        return;
    }
    QDBusMessage whoCalled =
        QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                       u"org.freedesktop.DBus"_s, u"GetConnectionUnixProcessID"_s);
    whoCalled << call.service();
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(whoCalled), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, bus, call, uris, token, arrived, claimed,
             guessed](QDBusPendingCallWatcher *answered) mutable {
                answered->deleteLater();
                const QDBusPendingReply<uint> pid = *answered;
                opened(bus, call, uris, token, arrived, pid.isValid() ? qint64(pid.value()) : -1,
                       claimed, guessed);
            });
}

void LinkIntake::opened(QDBusConnection bus, const QDBusMessage &call, const QStringList &uris,
                        const QString &token, qint64 arrived, qint64 sender, qint64 claimed,
                        const std::optional<SourceApp> &guessed)
{
    std::optional<std::optional<SourceApp>> resolved;
    if (claimed > 0 && sender == claimed)
        resolved = guessed;
    else if (claimed > 0)
        debugLog(u"The sender claimed process %1, the bus says %2"_s.arg(
            QString::number(claimed), QString::number(sender)));
    const QStringList refused = handleURLs(
        uris, sender, token, [bus, call]() mutable { bus.send(call.createReply()); }, arrived,
        resolved);
    if (refused.isEmpty())
        return;
    bus.send(call.createErrorReply(uris.size() > MaxLinksPerRequest
                                       ? BusNames::Error::TooManyLinks
                                       : BusNames::Error::InvalidLink,
                                   refusalText(uris, refused)));
}

void LinkIntake::openFrom(qint64 senderPid, const QStringList &uris,
                          const QVariantMap &platformData,
                          std::function<void(const QString &refusal)> answer)
{
    const qint64 arrived = LinkTiming::nowNs();
    traceRequest(uris);
    const QStringList refused = handleURLs(
        uris, senderPid, activationToken(platformData), [answer] { answer({}); }, arrived);
    if (!refused.isEmpty())
        answer(refusalText(uris, refused));
}

void LinkIntake::traceRequest(const QStringList &uris)
{
    // The trail keeps its shape, but not megabytes of one request.
    QStringList quoted;
    for (const QString &uri : uris.first(std::min(uris.size(), MaxLinksPerRequest)))
        quoted.append(u'"' + (uri.size() > 2048 ? uri.left(2048) + u"…"_s : uri) + u'"');
    debugLog(u"application(_:open:) called with %1 URL(s): [%2]"_s.arg(QString::number(uris.size()),
                                                                       quoted.join(u", "_s)));
}

QString LinkIntake::refusalText(const QStringList &uris, const QStringList &refused)
{
    return uris.size() > MaxLinksPerRequest ? refused.first()
                                            : u"Quillvane refused these links: "_s
                                                  + refused.join(u"; "_s);
}

std::optional<SourceApp> LinkIntake::sourceOf(const QStringList &uris, qint64 pid)
{
    std::optional<SourceApp> source;
    if (m_openRequests)
        source = m_openRequests->sourceOf(uris, pid);
    if (!source)
        source = m_resolver.resolve(pid);
    debugLog(DisplayText::escapeControls(u"Resolved source app: %1 (%2)"_s.arg(
        source ? source->name : u"nil"_s, source ? source->desktopId : u"nil"_s)));
    return source;
}

void LinkIntake::ActivateAction(const QString &actionName, const QVariantList &,
                                const QVariantMap &)
{
    const QString shownName = DisplayText::escapeControls(actionName.left(100));
    debugLog(u"ActivateAction requested: "_s + shownName);
    if (DesktopActions::isKnown(actionName)) {
        if (onAction)
            onAction(actionName);
        return;
    }
    if (calledFromDBus())
        sendErrorReply(QDBusError::NotSupported,
                       u"Quillvane has no action named \"%1\"."_s.arg(shownName));
}

bool LinkIntake::Leaves(const QString &url)
{
    const auto link = Link::parseWebLink(url);
    if (!link) {
        sendErrorReply(BusNames::Error::InvalidLink, link.error().description);
        return false;
    }
    if (!m_state.config().linksLeaveBrowsers)
        return false;
    // Asked before a page loads: the browser, the rules and the link as it
    // stands, without waiting for the network to expand it. A browser that
    // cannot be named keeps its links.
    const std::optional<AskingBrowser> browser = askingBrowser();
    if (!browser)
        return false;
    const RouteSettings settings = m_state.routeSettings();
    const RoutePolicy policy = RoutePolicy::linkTest();
    RoutePlan plan = RoutePlanner::prepare(*link, browser->app, settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    return RoutePlanner::leavesBrowser(plan, browser->app.desktopId, browser->profile);
}

bool LinkIntake::Hello()
{
    if (const auto browser = askingBrowser())
        NativeMessaging::noteConnection(browser->app.desktopId);
    return m_state.config().linksLeaveBrowsers;
}

std::optional<LinkIntake::AskingBrowser> LinkIntake::askingBrowser()
{
    const QString caller = message().service();
    if (const auto known = m_askingBrowsers.constFind(caller); known != m_askingBrowsers.cend())
        return *known;
    // Once per host: the page waits for the answer (the extension bounds it),
    // not a click, so a busy bus may take its time.
    const auto host = BusPeers::processOf(caller.toUtf8(), {}, HostAnswerMs);
    const auto app = host ? m_resolver.resolveProcess(*host) : std::nullopt;
    if (!app)
        return std::nullopt;
    // A few browsers' hosts at a time; hosts that ended leave their entries.
    if (m_askingBrowsers.size() >= 64)
        m_askingBrowsers.clear();
    return *m_askingBrowsers.insert(caller, {*app, m_resolver.parentsProfile(*host)});
}

QStringList LinkIntake::handleURLs(const QStringList &uris, qint64 senderPid,
                                   const QString &activationToken, std::function<void()> safe,
                                   qint64 arrivedNs,
                                   std::optional<std::optional<SourceApp>> resolved)
{
    LinkTiming timing{arrivedNs, {}};
    if (timing.known())
        timing.mark(LinkTiming::SenderKnown);
    // A stray script or a paste gone wrong must not start a browser thousands of times.
    if (uris.size() > MaxLinksPerRequest) {
        const QString refusal =
            u"Too many links at once: %1. Quillvane opens at most %2 links per request."_s.arg(
                QString::number(uris.size()), QString::number(MaxLinksPerRequest));
        debugLog(refusal);
        return {refusal};
    }
    QList<Link> links;
    QStringList refused;
    for (const QString &uri : uris) {
        auto link = Link::parseWebLink(uri);
        if (link) {
            links.append(std::move(link).value());
            continue;
        }
        // What was refused is shown as text: it may hold the line break that refused it.
        const QString shownLink = DisplayText::escapeControls(QStringView(uri).left(200));
        debugLog(u"Refusing link %1: %2"_s.arg(shownLink, link.error().description));
        refused.append(u"%1 (%2)"_s.arg(shownLink, link.error().description));
    }
    // Only a process Quillvane started (or Quillvane itself, through a browser
    // entry that names its bus name) can bounce a link back to it. The parent
    // chain is read only for a link that was just handed out.
    std::optional<bool> fromOwnLaunch;
    const auto cameFromOwnLaunch = [&] {
        if (!fromOwnLaunch)
            fromOwnLaunch =
                senderPid > 0
                && m_resolver.descendsFrom(senderPid, QCoreApplication::applicationPid());
        return *fromOwnLaunch;
    };
    links.removeIf([&](const Link &link) {
        const auto loop = m_state.refuseLoop(link, cameFromOwnLaunch);
        if (loop)
            refused.append(u"%1 (%2)"_s.arg(link.toString().left(200), *loop));
        return loop.has_value();
    });
    if (links.isEmpty()) {
        if (refused.isEmpty() && safe)
            safe();
        return refused;
    }
    debugLog(u"Sender PID: %1"_s.arg(senderPid));
    std::optional<SourceApp> source;
    if (senderPid < 1) {
        debugLog(u"No valid sender PID"_s);
    } else {
        source = resolved ? *resolved : sourceOf(uris, senderPid);
        if (timing.known())
            timing.mark(LinkTiming::SourceFound);
    }
    QList<LinkJournal::Entry> entries;
    for (const Link &link : std::as_const(links))
        entries.append({0, LinkJournal::Kind::Open, {}, link.toString(), source, activationToken,
                        QString(), false});
    // Links whose browsers start at once are safe when the browsers have them:
    // nothing is written before, and their sender hears so after the start.
    // Links that would wait behind others are written to the journal first, as
    // is a link that waits later (for its expansion, or for the user's choice).
    const bool atOnce = m_state.routesStartAtOnce(links.size());
    if (!atOnce) {
        m_state.history().journal(entries);
        if (timing.known())
            timing.mark(LinkTiming::Journalled);
    }
    // A link the journal did not take (a full or read-only disk) is safe only
    // once its browser has it: until then its sender waits, and hears of a
    // Quillvane that dies in between.
    auto unsafe = std::make_shared<qsizetype>(std::count_if(
        entries.cbegin(), entries.cend(), [](const LinkJournal::Entry &e) { return e.id == 0; }));
    if (refused.isEmpty() && safe && *unsafe == 0)
        safe();
    if (!refused.isEmpty())
        safe = {};
    for (qsizetype i = 0; i < links.size(); ++i) {
        debugLog(u"Routing URL: "_s + links[i].toString());
        LinkJournal::Ticket ticket{entries[i].id, entries[i].counted, {}, timing};
        if (ticket.entry == 0)
            ticket.released = [unsafe, safe] {
                if (--*unsafe == 0 && safe)
                    safe();
            };
        if (atOnce)
            ticket.journal = [&state = m_state, entry = entries[i]]() mutable {
                QList<LinkJournal::Entry> one{entry};
                one.first().counted = true; // when it was routed
                state.history().journal(one);
                return one.first().id;
            };
        // One task per link, started in order and not awaited.
        m_state.routeURL(links[i], source, activationToken, ticket);
    }
    return refused;
}

void LinkIntake::resumeUnfinished()
{
    const QList<LinkJournal::Entry> entries = m_state.history().takeOverJournal();
    for (const LinkJournal::Entry &entry : entries) {
        const auto link = Link::parseWebLink(entry.url);
        if (!link) {
            LinkJournal::finish(m_state.history().database(), entry.id);
            continue;
        }
        debugLog(u"Routing URL accepted before a restart: "_s + entry.url);
        if (entry.kind == LinkJournal::Kind::Route) {
            std::optional<Automation::BrowserEntity> browser;
            if (!entry.browser.isEmpty())
                browser = Automation::BrowserEntity{entry.browser, entry.browser};
            QMetaObject::invokeMethod(
                &m_state,
                [this, url = *link, browser, id = entry.id] {
                    m_scripts.routeURL(url, browser, id);
                },
                Qt::QueuedConnection);
            continue;
        }
        m_state.routeURL(*link, entry.source, entry.activationToken,
                         {entry.id, entry.counted, {}});
    }
}
