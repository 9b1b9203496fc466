#pragma once

#include "Models/Link.h"

#include <QList>
#include <QString>

#include <optional>

class DesktopEntries;

// An app the desktop opens a scheme with.
struct SchemeHandler
{
    QString id;
    QString name;
};

// Links of services that have a desktop app of their own (meetings, music,
// chat), rewritten to the app's own scheme, so that the app opens them where
// the user switched that on. The app is whatever the desktop opens the
// scheme with.
namespace Handoffs {

struct Handoff
{
    // What the switch, the history ("handoff:zoom") and the configuration call it.
    QString id;
    // The service, as the Apps pane and explanations name it.
    QString name;
    // The app's link scheme: the desktop's handler for it is the app.
    QString scheme;
};

// Every built-in handoff, in the order the Apps pane lists them.
const QList<Handoff> &builtIn();
// The built-in handoff with this id; none for an id no handoff has.
const Handoff *find(QStringView id);
// Of these ids, those of built-in handoffs, once each, in the order they are listed.
QStringList known(const QStringList &ids);
// The handoffs switched on once the one with this id is switched on or off.
QStringList switched(const QStringList &ids, const QString &id, bool on);

struct Match
{
    const Handoff *handoff = nullptr;
    // The link as the app takes it.
    Link link;
};

// The handoff whose service the web link belongs to, with the link rewritten;
// none when the link is none of the services' forms (hosts compared ignoring
// case, as browsers compare them).
std::optional<Match> match(const Link &link);

// The app the desktop opens the scheme with (its default handler), named as
// its entry names it; none without one, or when it is Quillvane itself.
std::optional<SchemeHandler> handler(DesktopEntries &entries, const QString &scheme);

} // namespace Handoffs
