#include "Models/Link.h"

#include <QHash>
#include <QStringDecoder>
#include <QUrl>

using namespace Qt::Literals::StringLiterals;

namespace {

enum class Component
{
    UserInfo,
    Path,
    Query,
    Fragment
};

bool isAsciiAlpha(char16_t c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

bool isAsciiDigit(char16_t c)
{
    return c >= u'0' && c <= u'9';
}

bool isHexDigit(char16_t c)
{
    return isAsciiDigit(c) || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}

bool isUnreserved(char16_t c)
{
    return isAsciiAlpha(c) || isAsciiDigit(c) || c == u'-' || c == u'.' || c == u'_' || c == u'~';
}

bool isSubDelim(char16_t c)
{
    switch (c) {
    case u'!':
    case u'$':
    case u'&':
    case u'\'':
    case u'(':
    case u')':
    case u'*':
    case u'+':
    case u',':
    case u';':
    case u'=':
        return true;
    default:
        return false;
    }
}

bool isControl(char16_t c)
{
    return c < 0x20 || c == 0x7f;
}

bool isAsciiWhitespace(char16_t c)
{
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f';
}

bool allowedIn(Component component, char16_t c)
{
    if (isUnreserved(c) || isSubDelim(c))
        return true;
    switch (component) {
    case Component::UserInfo:
        return c == u':';
    case Component::Path:
        return c == u':' || c == u'@' || c == u'/';
    case Component::Query:
    case Component::Fragment:
        return c == u':' || c == u'@' || c == u'/' || c == u'?';
    }
    return false;
}

bool isRegNameChar(char16_t c)
{
    return isUnreserved(c) || isSubDelim(c);
}

QStringView trimmed(QStringView text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isAsciiWhitespace(text[begin].unicode()))
        ++begin;
    while (end > begin && isAsciiWhitespace(text[end - 1].unicode()))
        --end;
    return text.sliced(begin, end - begin);
}

// Length of a valid scheme at the start of text (followed by ':'), or 0.
qsizetype schemeLength(QStringView text)
{
    if (text.isEmpty() || !isAsciiAlpha(text[0].unicode()))
        return 0;
    qsizetype i = 1;
    while (i < text.size()) {
        const char16_t c = text[i].unicode();
        if (isAsciiAlpha(c) || isAsciiDigit(c) || c == u'+' || c == u'-' || c == u'.')
            ++i;
        else
            break;
    }
    return (i < text.size() && text[i] == u':') ? i : 0;
}

bool isSpecialScheme(QStringView scheme)
{
    return scheme.compare(u"http", Qt::CaseInsensitive) == 0
           || scheme.compare(u"https", Qt::CaseInsensitive) == 0;
}

void appendPercentEncoded(QString &out, char32_t codePoint)
{
    static constexpr char16_t hex[] = u"0123456789ABCDEF";
    const char32_t buffer[1] = {codePoint};
    const QByteArray utf8 = QString::fromUcs4(buffer, 1).toUtf8();
    for (const char byte : utf8) {
        const auto b = static_cast<unsigned char>(byte);
        out += u'%';
        out += QChar(hex[b >> 4]);
        out += QChar(hex[b & 0xf]);
    }
}

Link::ParseError error(QString text)
{
    return Link::ParseError{std::move(text)};
}

const Link::ParseError &invalidHost()
{
    static const Link::ParseError e{u"The link's host name is not valid."_s};
    return e;
}

// "." and ".." segments removed as RFC 3986 section 5.2.4 describes.
QString removeDotSegments(QStringView path)
{
    if (!path.contains(u'.'))
        return path.toString();
    QList<QStringView> output;
    const bool absolute = path.startsWith(u'/');
    const QList<QStringView> segments = path.split(u'/');
    for (qsizetype i = absolute ? 1 : 0; i < segments.size(); ++i) {
        const QStringView segment = segments[i];
        const bool last = i == segments.size() - 1;
        if (segment == u".") {
            if (last)
                output.append(QStringView());
        } else if (segment == u"..") {
            if (!output.isEmpty())
                output.removeLast();
            if (last)
                output.append(QStringView());
        } else {
            output.append(segment);
        }
    }
    QString result = absolute ? u"/"_s : QString();
    for (qsizetype i = 0; i < output.size(); ++i) {
        if (i > 0)
            result += u'/';
        result += output[i];
    }
    return result;
}

QString percentDecoded(QStringView text)
{
    if (!text.contains(u'%'))
        return text.toString();
    return QString::fromUtf8(QByteArray::fromPercentEncoding(text.toUtf8()));
}

} // namespace

class LinkParser final
{
public:
    explicit LinkParser(QStringView input)
        : m_in(input)
    {
        m_link.m_text.reserve(input.size());
    }

    Expected<Link, Link::ParseError> run()
    {
        if (m_in.isEmpty())
            return error(u"The link is empty."_s);
        if (m_in.size() > Link::MaxLength)
            return error(u"The link is longer than %1 characters."_s.arg(Link::MaxLength));
        for (const QChar c : m_in) {
            if (isControl(c.unicode()))
                return error(
                    u"The link contains a control character (such as a line break or NUL)."_s);
        }

        const qsizetype schemeLen = schemeLength(m_in);
        if (schemeLen == 0)
            return error(
                u"The link is not an absolute URL: it has no scheme such as \"https:\"."_s);
        m_special = isSpecialScheme(m_in.first(schemeLen));
        append(m_link.m_scheme, m_in.first(schemeLen));
        out() += u':';
        m_pos = schemeLen + 1;

        if (isSlash(at(m_pos)) && isSlash(at(m_pos + 1))) {
            out() += u"//";
            m_pos += 2;
            if (auto failed = parseAuthority())
                return *failed;
        }

        const qsizetype pathEnd = findFirst(m_pos, u"?#");
        if (auto failed =
                encode(Component::Path, m_in.sliced(m_pos, pathEnd - m_pos), m_link.m_path))
            return *failed;
        m_pos = pathEnd;

        if (at(m_pos) == u'?') {
            out() += u'?';
            const qsizetype queryEnd = findFirst(m_pos + 1, u"#");
            if (auto failed = encode(Component::Query, m_in.sliced(m_pos + 1, queryEnd - m_pos - 1),
                                     m_link.m_query))
                return *failed;
            m_pos = queryEnd;
        }
        if (at(m_pos) == u'#') {
            out() += u'#';
            if (auto failed =
                    encode(Component::Fragment, m_in.sliced(m_pos + 1), m_link.m_fragment))
                return *failed;
        }

        return std::move(m_link);
    }

private:
    QString &out() { return m_link.m_text; }

    char16_t at(qsizetype i) const { return i < m_in.size() ? m_in[i].unicode() : 0; }

    // Browsers read a backslash as a slash in the structure of http(s) links; so
    // must Quillvane, or a link could open a host other than the one its rules saw.
    bool isSlash(char16_t c) const { return c == u'/' || (m_special && c == u'\\'); }

    qsizetype findFirst(qsizetype from, QStringView stops) const
    {
        for (qsizetype i = from; i < m_in.size(); ++i) {
            if (stops.contains(m_in[i]))
                return i;
        }
        return m_in.size();
    }

    void append(Link::Span &span, QStringView text)
    {
        span.begin = out().size();
        out() += text;
        span.end = out().size();
    }

    std::optional<Link::ParseError> parseAuthority()
    {
        qsizetype end = m_pos;
        while (end < m_in.size()) {
            const char16_t c = m_in[end].unicode();
            if (c == u'?' || c == u'#' || isSlash(c))
                break;
            ++end;
        }
        const QStringView authority = m_in.sliced(m_pos, end - m_pos);
        m_link.m_authority.begin = out().size();

        QStringView hostPort = authority;
        const qsizetype at = authority.lastIndexOf(u'@');
        if (at >= 0) {
            if (auto failed = encode(Component::UserInfo, authority.first(at), m_link.m_userInfo))
                return failed;
            out() += u'@';
            hostPort = authority.sliced(at + 1);
        }

        std::optional<QStringView> portText;
        if (hostPort.startsWith(u'[')) {
            const qsizetype close = hostPort.indexOf(u']');
            if (close < 0)
                return invalidHost();
            const QStringView literal = hostPort.sliced(1, close - 1);
            if (!isValidIpLiteral(literal))
                return invalidHost();
            out() += u'[';
            append(m_link.m_host, literal);
            out() += u']';
            const QStringView rest = hostPort.sliced(close + 1);
            if (!rest.isEmpty()) {
                if (rest[0] != u':')
                    return invalidHost();
                portText = rest.sliced(1);
            }
        } else {
            const qsizetype colon = hostPort.indexOf(u':');
            const QStringView hostText = colon < 0 ? hostPort : hostPort.first(colon);
            if (colon >= 0)
                portText = hostPort.sliced(colon + 1);
            auto host = canonicalHost(hostText);
            if (!host)
                return host.error();
            append(m_link.m_host, *host);
        }

        if (portText) {
            if (portText->size() > 5)
                return portError();
            for (const QChar c : *portText) {
                if (!isAsciiDigit(c.unicode()))
                    return portError();
            }
            if (!portText->isEmpty() && portText->toInt() > 65535)
                return portError();
            out() += u':';
            append(m_link.m_port, *portText);
        }
        m_link.m_authority.end = out().size();
        m_pos = end;
        return std::nullopt;
    }

    static Link::ParseError portError()
    {
        return error(u"The link's port is not a number from 0 to 65535."_s);
    }

    static bool isValidIpLiteral(QStringView literal)
    {
        if (literal.isEmpty())
            return false;
        if (literal[0] == u'v' || literal[0] == u'V') {
            for (const QChar c : literal) {
                if (!isUnreserved(c.unicode()) && !isSubDelim(c.unicode()) && c != u':')
                    return false;
            }
            return true;
        }
        for (const QChar c : literal) {
            if (!isHexDigit(c.unicode()) && c != u':' && c != u'.')
                return false;
        }
        return literal.contains(u':');
    }

    // A host in Unicode or percent-encoding is turned into the ASCII form that a
    // browser would connect to, so that domain rules and the browser agree.
    static Expected<QString, Link::ParseError> canonicalHost(QStringView host)
    {
        bool plain = true;
        for (const QChar c : host) {
            if (!isRegNameChar(c.unicode())) {
                plain = false;
                break;
            }
        }
        if (plain)
            return host.toString();

        QString decoded = host.toString();
        if (host.contains(u'%')) {
            const QByteArray bytes = QByteArray::fromPercentEncoding(host.toUtf8());
            QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
            decoded = decoder.decode(bytes);
            if (decoder.hasError())
                return invalidHost();
        }
        bool ascii = true;
        for (const QChar c : std::as_const(decoded)) {
            if (c.unicode() >= 0x80) {
                ascii = false;
                break;
            }
        }
        QString result = ascii ? decoded.toLower() : QString::fromLatin1(QUrl::toAce(decoded));
        if (result.isEmpty() && !decoded.isEmpty())
            return invalidHost();
        for (const QChar c : std::as_const(result)) {
            if (!isRegNameChar(c.unicode()))
                return invalidHost();
        }
        return result;
    }

    std::optional<Link::ParseError> encode(Component component, QStringView text, Link::Span &span)
    {
        span.begin = out().size();
        for (qsizetype i = 0; i < text.size(); ++i) {
            const char16_t c = text[i].unicode();
            if (c == u'%') {
                if (i + 2 < text.size() && isHexDigit(text[i + 1].unicode())
                    && isHexDigit(text[i + 2].unicode())) {
                    out() += text.sliced(i, 3);
                    i += 2;
                } else {
                    out() += u"%25";
                }
            } else if (component == Component::Path && m_special && c == u'\\') {
                out() += u'/';
            } else if (allowedIn(component, c)) {
                out() += QChar(c);
            } else if (QChar::isHighSurrogate(c)) {
                if (i + 1 >= text.size() || !QChar::isLowSurrogate(text[i + 1].unicode()))
                    return error(u"The link contains invalid characters."_s);
                appendPercentEncoded(out(), QChar::surrogateToUcs4(c, text[i + 1].unicode()));
                ++i;
            } else if (QChar::isLowSurrogate(c)) {
                return error(u"The link contains invalid characters."_s);
            } else {
                appendPercentEncoded(out(), c);
            }
        }
        span.end = out().size();
        return std::nullopt;
    }

    QStringView m_in;
    qsizetype m_pos = 0;
    bool m_special = false;
    Link m_link;
};

Expected<Link, Link::ParseError> Link::parse(QStringView text)
{
    return LinkParser(trimmed(text)).run();
}

Expected<Link, Link::ParseError> Link::fromUtf8(QByteArrayView bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return error(u"The link is not valid UTF-8 text."_s);
    return parse(text);
}

Expected<Link, Link::ParseError> Link::parseWebLink(QStringView text)
{
    auto parsed = parse(text);
    if (!parsed)
        return parsed;
    const QString scheme = parsed->scheme();
    if (!isSpecialScheme(scheme)) {
        return error(
            u"Only http and https links can be routed; this link's scheme is \"%1\"."_s.arg(
                scheme.left(40)));
    }
    if (!parsed->hasHost() || parsed->hostView().isEmpty())
        return error(u"The link has no host name."_s);
    if (parsed->toString().size() > MaxLaunchableLength)
        return error(
            u"The link is too long to hand to a browser: %1 characters, where a browser takes at most %2."_s
                .arg(QString::number(parsed->toString().size()),
                     QString::number(MaxLaunchableLength)));
    return parsed;
}

bool Link::isWebLink() const
{
    return isSpecialScheme(view(m_scheme)) && !view(m_host).isEmpty();
}

QString Link::slice(Span span) const
{
    return span.isPresent() ? m_text.sliced(span.begin, span.end - span.begin) : QString();
}

QStringView Link::view(Span span) const
{
    return span.isPresent() ? QStringView(m_text).sliced(span.begin, span.end - span.begin)
                            : QStringView();
}

std::optional<int> Link::port() const
{
    const QStringView text = view(m_port);
    if (text.isEmpty())
        return std::nullopt;
    return text.toInt();
}

std::optional<QString> Link::query() const
{
    if (!m_query.isPresent())
        return std::nullopt;
    return slice(m_query);
}

std::optional<QString> Link::fragment() const
{
    if (!m_fragment.isPresent())
        return std::nullopt;
    return slice(m_fragment);
}

QList<QueryItem> Link::queryItems() const
{
    QList<QueryItem> items;
    const QStringView query = view(m_query);
    if (query.isEmpty())
        return items;
    for (const QStringView raw : query.split(u'&')) {
        const qsizetype eq = raw.indexOf(u'=');
        QueryItem item;
        item.raw = raw.toString();
        item.name = percentDecoded(eq < 0 ? raw : raw.first(eq));
        if (eq >= 0)
            item.value = percentDecoded(raw.sliced(eq + 1));
        items.append(std::move(item));
    }
    return items;
}

Expected<Link, Link::ParseError> Link::withQuery(const std::optional<QString> &encodedQuery) const
{
    const qsizetype queryStart = m_query.isPresent() ? m_query.begin - 1 : m_path.end;
    const qsizetype queryEnd = m_query.isPresent() ? m_query.end : m_path.end;
    QString text = m_text.first(queryStart);
    if (encodedQuery)
        text += u'?' + *encodedQuery;
    text += QStringView(m_text).sliced(queryEnd);
    return parse(text);
}

Expected<Link, Link::ParseError> Link::resolved(QStringView reference) const
{
    QString ref = trimmed(reference).toString();
    const bool special = isSpecialScheme(view(m_scheme));
    if (special) {
        const qsizetype structureEnd = [&] {
            const qsizetype q = ref.indexOf(u'?');
            const qsizetype h = ref.indexOf(u'#');
            if (q < 0)
                return h < 0 ? ref.size() : h;
            return h < 0 ? q : std::min(q, h);
        }();
        for (qsizetype i = 0; i < structureEnd; ++i) {
            if (ref[i] == u'\\')
                ref[i] = u'/';
        }
    }
    if (schemeLength(ref) > 0)
        return parse(ref);

    QStringView rest = ref;
    std::optional<QStringView> refFragment;
    if (const qsizetype hash = rest.indexOf(u'#'); hash >= 0) {
        refFragment = rest.sliced(hash + 1);
        rest = rest.first(hash);
    }
    std::optional<QStringView> refQuery;
    if (const qsizetype q = rest.indexOf(u'?'); q >= 0) {
        refQuery = rest.sliced(q + 1);
        rest = rest.first(q);
    }

    QString text = scheme() + u':';
    if (rest.startsWith(u"//")) {
        const qsizetype pathStart = rest.indexOf(u'/', 2);
        const QStringView authority = pathStart < 0 ? rest : rest.first(pathStart);
        text += authority;
        if (pathStart >= 0)
            text += removeDotSegments(rest.sliced(pathStart));
        if (refQuery)
            text += u'?' + *refQuery;
    } else {
        if (m_authority.isPresent())
            text += u"//" + view(m_authority);
        if (rest.isEmpty()) {
            text += view(m_path);
            if (refQuery)
                text += u'?' + *refQuery;
            else if (m_query.isPresent())
                text += u'?' + view(m_query);
        } else {
            if (rest.startsWith(u'/')) {
                text += removeDotSegments(rest);
            } else {
                const QStringView basePath = view(m_path);
                QString merged;
                if (m_authority.isPresent() && basePath.isEmpty())
                    merged = u'/' + rest;
                else
                    merged = basePath.first(basePath.lastIndexOf(u'/') + 1) + rest;
                text += removeDotSegments(merged);
            }
            if (refQuery)
                text += u'?' + *refQuery;
        }
    }
    if (refFragment)
        text += u'#' + *refFragment;
    return parse(text);
}

size_t qHash(const Link &link, size_t seed)
{
    return qHash(link.toString(), seed);
}
