#include "Models/HostName.h"

#include <libpsl.h>

#include <QHostAddress>
#include <QStringDecoder>
#include <QStringList>
#include <QUrl>

#include <algorithm>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace HostName {

namespace {

bool isPlainLabelChar(char16_t c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'-' || c == u'.'
           || c == u'_';
}

bool isDigit(char16_t c)
{
    return c >= u'0' && c <= u'9';
}

// Already in the one spelling (but for letter case, where that does not
// matter): ASCII labels, no final dot, and not something a browser would read
// as a number.
bool isAlreadyCanonical(QStringView host, bool caseMatters = true)
{
    for (const QChar c : host) {
        const char16_t u = c.unicode();
        if (!isPlainLabelChar(u) && (caseMatters || u < u'A' || u > u'Z'))
            return false;
    }
    if (host.endsWith(u'.'))
        return false;
    const qsizetype lastDot = host.lastIndexOf(u'.');
    return host.size() <= lastDot + 1 || !isDigit(host[lastDot + 1].unicode());
}

// One IPv4 part as inet_aton and browsers read it: decimal, 0x hexadecimal,
// or 0-led octal.
std::optional<quint64> ipv4Part(QStringView part)
{
    if (part.isEmpty())
        return std::nullopt;
    int base = 10;
    if (part.size() > 1 && part[0] == u'0' && (part[1] == u'x' || part[1] == u'X')) {
        base = 16;
        part = part.sliced(2);
        if (part.isEmpty())
            return 0;
    } else if (part.size() > 1 && part[0] == u'0') {
        base = 8;
        part = part.sliced(1);
    }
    if (part.size() > 12)
        return std::nullopt;
    bool ok = false;
    const quint64 value = part.toULongLong(&ok, base);
    return ok ? std::optional(value) : std::nullopt;
}

// The dotted decimal form, when the text is an IPv4 address in any of the
// forms a browser accepts (one to four parts, the last filling what is left).
std::optional<QString> dottedIPv4(QStringView host)
{
    const QList<QStringView> parts = host.split(u'.');
    if (parts.size() > 4)
        return std::nullopt;
    quint64 address = 0;
    for (qsizetype i = 0; i < parts.size(); ++i) {
        const auto value = ipv4Part(parts[i]);
        if (!value)
            return std::nullopt;
        const bool last = i == parts.size() - 1;
        const int bits = last ? 8 * int(4 - i) : 8;
        if (*value >= (quint64(1) << bits))
            return std::nullopt;
        address = last ? (address << bits) | *value : (address << 8) | *value;
    }
    return QHostAddress(quint32(address)).toString();
}

// Labels in their ASCII form; a label IDNA refuses stays as it was.
QString asciiLabelsOnce(QStringView text)
{
    QString decoded = text.toString();
    if (text.contains(u'%')) {
        // Decoded once, as a browser does; text that would decode into more
        // escapes, into what is not UTF-8 or into the punctuation that shapes
        // a pattern is not a host and stays as it is.
        QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString attempt = utf8.decode(QByteArray::fromPercentEncoding(text.toUtf8()));
        const bool shapesAPattern = std::any_of(attempt.cbegin(), attempt.cend(), [](QChar c) {
            return c.unicode() < 0x20 || u"%/\\:*?#@[] "_s.contains(c);
        });
        if (!utf8.hasError() && !shapesAPattern)
            decoded = attempt;
    }
    // The full stops of other scripts that IDNA maps to ".".
    for (const char16_t dot : {u'\u3002', u'\uFF0E', u'\uFF61'})
        decoded.replace(QChar(dot), u'.');
    QStringList labels = decoded.split(u'.');
    for (QString &label : labels) {
        bool ascii = true;
        for (const QChar c : std::as_const(label))
            ascii = ascii && c.unicode() < 0x80;
        if (!ascii) {
            const QByteArray ace = QUrl::toAce(label);
            if (!ace.isEmpty())
                label = QString::fromLatin1(ace);
        }
        label = label.toLower();
    }
    return labels.join(u'.');
}

// IDNA may map one character to several, dots among them (⒈ is "1."): what
// it makes is spelt again until nothing changes.
QString asciiLabels(QStringView text)
{
    QString result = asciiLabelsOnce(text);
    for (int pass = 0; pass < 3; ++pass) {
        QString again = asciiLabelsOnce(result);
        if (again == result)
            break;
        result = std::move(again);
    }
    return result;
}

// Where the host of a path pattern ends: at its first slash, query, fragment or port.
qsizetype hostEnd(QStringView pattern, qsizetype from)
{
    for (qsizetype i = from; i < pattern.size(); ++i) {
        const char16_t c = pattern[i].unicode();
        if (c == u'/' || c == u'?' || c == u'#' || c == u':')
            return i;
    }
    return pattern.size();
}

// Each piece between stars in its ASCII form; the stars stay where they were.
QString canonicalPieces(QStringView text)
{
    QString result;
    qsizetype start = 0;
    while (start <= text.size()) {
        qsizetype star = text.indexOf(u'*', start);
        if (star < 0)
            star = text.size();
        result += asciiLabels(text.sliced(start, star - start));
        if (star < text.size())
            result += u'*';
        start = star + 1;
    }
    return result;
}

} // namespace

QString canonical(QStringView host)
{
    if (isAlreadyCanonical(host))
        return host.toString();
    if (host.contains(u':') || host.startsWith(u'[')) {
        const bool bracketed = host.size() > 1 && host.startsWith(u'[') && host.endsWith(u']');
        const QHostAddress address((bracketed ? host.sliced(1, host.size() - 2) : host).toString());
        return address.protocol() == QAbstractSocket::IPv6Protocol ? address.toString()
                                                                   : host.toString().toLower();
    }
    QString result = asciiLabels(host);
    while (result.size() > 1 && result.endsWith(u'.'))
        result.chop(1);
    if (const auto ipv4 = dottedIPv4(result))
        return *ipv4;
    return result;
}

std::optional<QString> canonicalPattern(const QString &pattern)
{
    // One pass, as the router asks this of every rule whenever the rules change.
    bool plain = true; // ASCII without escapes
    bool path = false;
    bool colon = false;
    for (const QChar c : pattern) {
        const char16_t u = c.unicode();
        if (u >= 0x80 || u == u'%')
            plain = false;
        else if (u == u'*' || u == u'/')
            path = true;
        else if (u == u':')
            colon = true;
    }
    if (!path) {
        // A domain pattern; one with a port never matches a host, so it stays as it is.
        if (colon || isAlreadyCanonical(pattern, false))
            return std::nullopt;
        QString result = canonical(pattern);
        if (result.compare(pattern, Qt::CaseInsensitive) == 0)
            return std::nullopt;
        return result;
    }
    if (plain)
        return std::nullopt;
    const qsizetype scheme = pattern.indexOf(u"://");
    const qsizetype begin = scheme >= 0 ? scheme + 3 : 0;
    const qsizetype end = hostEnd(pattern, begin);
    QString result = pattern.first(begin)
                     + canonicalPieces(QStringView(pattern).sliced(begin, end - begin))
                     + pattern.sliced(end);
    if (result.compare(pattern, Qt::CaseInsensitive) == 0)
        return std::nullopt;
    return result;
}

QString registrableDomain(const QString &host)
{
    const QByteArray name = host.toLower().toUtf8();
    const char *registrable = psl_registrable_domain(psl_builtin(), name.constData());
    return registrable ? QString::fromUtf8(registrable) : host.toLower();
}

} // namespace HostName
