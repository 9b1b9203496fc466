#pragma once

#include "Models/Expected.h"

#include <QList>
#include <QString>

#include <optional>

// One item of a link's query: its text as it stands in the link and its decoded
// name and value (an item without "=" has no value).
struct QueryItem
{
    QString raw;
    QString name;
    std::optional<QString> value;
};

// A parsed absolute link. It keeps the link's text exactly as it was read (only
// characters that may never stand in a link are percent-encoded, and a host in
// Unicode or percent-encoding is written in its ASCII form, so that Quillvane
// and the browser see the same host) and the positions of its components in that
// text. Every rule is matched against that text, and that text is what a browser
// receives: nothing re-normalises it on the way.
class Link final
{
public:
    // Longer links are refused: no browser opens them, and they would only cost memory.
    static constexpr qsizetype MaxLength = 1 << 20;
    // The longest web link a browser can be given: the kernel takes one
    // argument of at most 128 KiB, and a launcher may glue text to the link.
    // (A link's text is ASCII: characters count as bytes.)
    static constexpr qsizetype MaxLaunchableLength = 130000;

    struct ParseError
    {
        QString description;
    };

    Link() = default;

    static Expected<Link, ParseError> parse(QStringView text);
    static Expected<Link, ParseError> fromUtf8(QByteArrayView bytes);
    // Like parse(), but only an absolute http or https link with a host passes:
    // the only links Quillvane routes.
    static Expected<Link, ParseError> parseWebLink(QStringView text);

    bool isEmpty() const { return m_text.isEmpty(); }
    const QString &toString() const { return m_text; }

    QString scheme() const { return slice(m_scheme); }
    bool isWebLink() const;
    bool hasAuthority() const { return m_authority.isPresent(); }
    QString userInfo() const { return slice(m_userInfo); }
    // The host as written (percent-encoded form), without brackets for IP literals.
    bool hasHost() const { return m_host.isPresent(); }
    QString host() const { return slice(m_host); }
    QStringView hostView() const { return view(m_host); }
    std::optional<int> port() const;
    QString path() const { return slice(m_path); }
    std::optional<QString> query() const;
    std::optional<QString> fragment() const;
    QList<QueryItem> queryItems() const;

    // The same link with its query replaced (no query at all for nullopt).
    Expected<Link, ParseError> withQuery(const std::optional<QString> &encodedQuery) const;
    // A reference (absolute, or relative such as "/next" or "../x") resolved against this link.
    Expected<Link, ParseError> resolved(QStringView reference) const;

    friend bool operator==(const Link &a, const Link &b) { return a.m_text == b.m_text; }

private:
    struct Span
    {
        qsizetype begin = 0;
        qsizetype end = -1;
        bool isPresent() const { return end >= 0; }
    };

    QString slice(Span span) const;
    QStringView view(Span span) const;

    QString m_text;
    Span m_scheme;
    Span m_authority;
    Span m_userInfo;
    Span m_host;
    Span m_port;
    Span m_path;
    Span m_query;
    Span m_fragment;

    friend class LinkParser;
};

size_t qHash(const Link &link, size_t seed = 0);
