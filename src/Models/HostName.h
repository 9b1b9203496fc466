#pragma once

#include <QString>
#include <QStringView>

#include <optional>

// One spelling for every way of writing the same host, so that a rule written
// one way matches a link written another: the ASCII (IDNA) form of Unicode
// labels, lower case, percent-encoding decoded, the dot-like separators that
// IDNA maps to a dot, IPv4 addresses in dotted decimal (browsers also read
// 127.1, 0x7f.0.0.1, 017700000001 and 2130706433 as 127.0.0.1), IPv6 in its
// shortest form, and no final dots.
namespace HostName {

// A host as a link or a domain pattern names it. Text that cannot be a host
// comes back lower-cased and otherwise as it was.
QString canonical(QStringView host);

// A rule pattern with the host it names in that form: the whole of a domain
// pattern, or the host at the start of a path pattern or after its "://" (each
// piece between stars on its own); the rest of the pattern is kept as written.
// None when the pattern is spelt so already, but for letter case.
std::optional<QString> canonicalPattern(const QString &pattern);

// The part of a host that one owner registered ("example.co.uk" of
// "docs.example.co.uk"), by the Public Suffix List (libpsl's copy); the host
// itself when it has none (an address, "localhost").
QString registrableDomain(const QString &host);

} // namespace HostName
