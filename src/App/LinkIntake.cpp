#include "App/LinkIntake.h"

#include "App/AppState.h"
#include "App/DesktopActions.h"
#include "Platform/DiagnosticLog.h"
#include "Services/SourceAppResolver.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>

using namespace Qt::Literals::StringLiterals;

namespace {

void debugLog(const QString &message)
{
    DiagnosticLog::write({}, message);
}

QString activationToken(const QVariantMap &platformData)
{
    for (const QString &key : {u"activation-token"_s, u"desktop-startup-id"_s}) {
        const QString token = platformData.value(key).toString();
        if (!token.isEmpty())
            return token;
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
    // The trail keeps its shape, but not megabytes of one request.
    QStringList quoted;
    for (const QString &uri : uris.first(std::min(uris.size(), MaxLinksPerRequest)))
        quoted.append(u'"' + (uri.size() > 2048 ? uri.left(2048) + u"…"_s : uri) + u'"');
    debugLog(u"application(_:open:) called with %1 URL(s): [%2]"_s.arg(QString::number(uris.size()),
                                                                       quoted.join(u", "_s)));
    qint64 pid = -1;
    if (calledFromDBus()) {
        const auto reply = connection().interface()->servicePid(message().service());
        if (reply.isValid())
            pid = qint64(reply.value());
    }
    const QStringList refused = handleURLs(uris, pid, activationToken(platformData));
    if (refused.isEmpty() || !calledFromDBus())
        return;
    if (uris.size() > MaxLinksPerRequest)
        sendErrorReply(u"work.vorpa.Quillvane.Error.TooManyLinks"_s, refused.first());
    else
        sendErrorReply(u"work.vorpa.Quillvane.Error.InvalidLink"_s,
                       u"Quillvane refused these links: "_s + refused.join(u"; "_s));
}

void LinkIntake::ActivateAction(const QString &actionName, const QVariantList &,
                                const QVariantMap &)
{
    debugLog(u"ActivateAction requested: "_s + actionName.left(100));
    if (DesktopActions::isKnown(actionName)) {
        if (onAction)
            onAction(actionName);
        return;
    }
    if (calledFromDBus())
        sendErrorReply(QDBusError::NotSupported,
                       u"Quillvane has no action named \"%1\"."_s.arg(actionName.left(100)));
}

QStringList LinkIntake::handleURLs(const QStringList &uris, qint64 senderPid,
                                   const QString &activationToken)
{
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
        debugLog(u"Refusing link %1: %2"_s.arg(uri.left(200), link.error().description));
        refused.append(u"%1 (%2)"_s.arg(uri.left(200), link.error().description));
    }
    if (links.isEmpty())
        return refused;
    debugLog(u"Sender PID: %1"_s.arg(senderPid));
    std::optional<SourceApp> source;
    if (senderPid < 1) {
        debugLog(u"No valid sender PID"_s);
    } else {
        source = m_resolver.resolve(senderPid);
        debugLog(u"Resolved source app: %1 (%2)"_s.arg(source ? source->name : u"nil"_s,
                                                       source ? source->bundleID : u"nil"_s));
    }
    for (const Link &link : std::as_const(links)) {
        debugLog(u"Routing URL: "_s + link.toString());
        // One task per link, started in order and not awaited.
        QMetaObject::invokeMethod(
            &m_state,
            [state = &m_state, url = link, source, activationToken] {
                state->routeURL(url, source, activationToken);
            },
            Qt::QueuedConnection);
    }
    return refused;
}
