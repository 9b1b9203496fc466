#pragma once

#include "Models/Expected.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <optional>

// A newer Quillvane that the update feed announces.
struct UpdateOffer
{
    QString version;
    QUrl releaseNotes;

    bool operator==(const UpdateOffer &) const = default;
};

// The update feed: an RSS document whose items each announce a version with its
// release notes, signed with Ed25519 by whoever publishes Quillvane. Only the
// announcement is signed (packages come from the distribution), over
// signedText(version, releaseNotesLink).
namespace UpdateFeed {

inline constexpr int PublicKeyBytes = 32;
inline constexpr int SignatureBytes = 64;

QByteArray signedText(const QString &version, const QString &releaseNotesLink);

// The newest item above currentVersion, none when there is none. Any item
// whose signature is missing or does not verify makes the whole feed an
// error: a feed that someone has tampered with offers nothing.
Expected<std::optional<UpdateOffer>, QString>
newestOffer(const QByteArray &feed, const QByteArray &publicKey, const QString &currentVersion);

// Dotted versions, number by number ("1.10" after "1.9"; "1.4" equals
// "1.4.0"); parts that are not numbers compare as text. <0, 0 or >0.
int compareVersions(const QString &a, const QString &b);

} // namespace UpdateFeed
