#include "Services/UpdateFeed.h"

#include <QList>
#include <QXmlStreamReader>

#include <sodium.h>

using namespace Qt::Literals::StringLiterals;

namespace UpdateFeed {

namespace {

struct Item
{
    QString version;
    QString releaseNotesLink;
    QByteArray signature; // as written, base64
};

bool verify(const Item &item, const QByteArray &publicKey)
{
    const auto decoded = QByteArray::fromBase64Encoding(item.signature.trimmed(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != SignatureBytes || publicKey.size() != PublicKeyBytes)
        return false;
    if (sodium_init() < 0)
        return false;
    const QByteArray text = signedText(item.version, item.releaseNotesLink);
    return crypto_sign_verify_detached(
               reinterpret_cast<const unsigned char *>(decoded.decoded.constData()),
               reinterpret_cast<const unsigned char *>(text.constData()),
               static_cast<unsigned long long>(text.size()),
               reinterpret_cast<const unsigned char *>(publicKey.constData()))
           == 0;
}

// The element names, with whatever namespace prefix the publisher's tool uses.
Expected<QList<Item>, QString> readItems(const QByteArray &feed)
{
    QList<Item> items;
    QXmlStreamReader xml(feed);
    std::optional<Item> current;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement()) {
            const QStringView name = xml.name();
            if (name == u"item") {
                current = Item{};
            } else if (current && name == u"version") {
                current->version = xml.readElementText().trimmed();
            } else if (current && name == u"releaseNotesLink") {
                current->releaseNotesLink = xml.readElementText().trimmed();
            } else if (current && name == u"edSignature") {
                current->signature = xml.readElementText().toLatin1();
            } else if (current && name == u"enclosure") {
                for (const QXmlStreamAttribute &attribute : xml.attributes()) {
                    if (attribute.name() == u"edSignature")
                        current->signature = attribute.value().toLatin1();
                }
            }
        } else if (xml.isEndElement() && xml.name() == u"item" && current) {
            items.append(*current);
            current.reset();
        }
    }
    if (xml.hasError())
        return u"The update feed is not a valid document (line %1: %2)."_s.arg(xml.lineNumber())
            .arg(xml.errorString());
    return items;
}

} // namespace

QByteArray signedText(const QString &version, const QString &releaseNotesLink)
{
    return "quillvane-update\n" + version.toUtf8() + '\n' + releaseNotesLink.toUtf8() + '\n';
}

Expected<std::optional<UpdateOffer>, QString>
newestOffer(const QByteArray &feed, const QByteArray &publicKey, const QString &currentVersion)
{
    auto items = readItems(feed);
    if (!items)
        return items.error();
    std::optional<UpdateOffer> newest;
    for (const Item &item : *items) {
        if (item.signature.isEmpty() || !verify(item, publicKey))
            return u"The update feed's signature is not valid, so nothing in it is trusted."_s;
        if (item.version.isEmpty())
            continue;
        if (compareVersions(item.version, currentVersion) <= 0)
            continue;
        if (newest && compareVersions(item.version, newest->version) <= 0)
            continue;
        const QUrl notes(item.releaseNotesLink, QUrl::StrictMode);
        const bool web =
            notes.isValid() && (notes.scheme() == u"https" || notes.scheme() == u"http");
        newest = UpdateOffer{item.version, web ? notes : QUrl()};
    }
    return newest;
}

int compareVersions(const QString &a, const QString &b)
{
    const QStringList left = a.split(u'.');
    const QStringList right = b.split(u'.');
    for (qsizetype i = 0; i < std::max(left.size(), right.size()); ++i) {
        const QString x = left.value(i, u"0"_s);
        const QString y = right.value(i, u"0"_s);
        bool xNumber = false;
        bool yNumber = false;
        const qulonglong xValue = x.toULongLong(&xNumber);
        const qulonglong yValue = y.toULongLong(&yNumber);
        if (xNumber && yNumber) {
            if (xValue != yValue)
                return xValue < yValue ? -1 : 1;
        } else if (const int text = x.compare(y); text != 0) {
            return text < 0 ? -1 : 1;
        }
    }
    return 0;
}

} // namespace UpdateFeed
