#include "Storage/IniFormat.h"

#include <QFileDevice>
#include <QIODevice>
#include <QStringList>

#include <array>
#include <cstring>

using namespace Qt::Literals::StringLiterals;

namespace IniFormat {

namespace {

constexpr char HexDigits[] = "0123456789abcdef";

int hexValue(char16_t c)
{
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    return -1;
}

bool isHexDigit(char16_t c)
{
    return hexValue(c) >= 0;
}

bool isKeyChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'
           || c == '-' || c == '.';
}

enum ByteClass : uchar
{
    Plain,
    PlainHexDigit,
    Backslashed,
    HexEscaped,
    High
};

constexpr std::array<uchar, 256> byteClasses()
{
    std::array<uchar, 256> classes{};
    for (int c = 0; c < 256; ++c) {
        if (c < 0x20 || c == 0x7f)
            classes[c] = HexEscaped;
        else if (c == '"' || c == '\\')
            classes[c] = Backslashed;
        else if (c >= 0x80)
            classes[c] = High;
        else if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))
            classes[c] = PlainHexDigit;
        else
            classes[c] = Plain;
    }
    return classes;
}

// Appends bytes inside a quoted value. A hex digit right after an escape is
// escaped as well, because escapes are read greedily. This runs over every
// stored byte at every save, so plain runs are copied whole.
void appendEscaped(QByteArray &out, QByteArrayView bytes, bool escapeHighBytes)
{
    static constexpr std::array<uchar, 256> classes = byteClasses();
    const qsizetype start = out.size();
    out.resize(start + bytes.size() * 4);
    char *cursor = out.data() + start;
    const auto *in = reinterpret_cast<const uchar *>(bytes.data());
    const qsizetype size = bytes.size();
    bool afterEscape = false;
    qsizetype i = 0;
    while (i < size) {
        const uchar first = classes[in[i]];
        if (first == Plain || (first == PlainHexDigit && !afterEscape)
            || (first == High && !escapeHighBytes)) {
            const qsizetype runStart = i++;
            while (i < size) {
                const uchar c = classes[in[i]];
                if (c != Plain && c != PlainHexDigit && (c != High || escapeHighBytes))
                    break;
                ++i;
            }
            std::memcpy(cursor, in + runStart, size_t(i - runStart));
            cursor += i - runStart;
            afterEscape = false;
            continue;
        }
        const uchar c = in[i++];
        *cursor++ = '\\';
        if (first == Backslashed) {
            *cursor++ = char(c);
            afterEscape = false;
        } else {
            *cursor++ = 'x';
            *cursor++ = HexDigits[c >> 4];
            *cursor++ = HexDigits[c & 0xf];
            afterEscape = true;
        }
    }
    out.resize(cursor - out.constData());
}

void appendKey(QByteArray &out, QStringView key)
{
    for (const char c : key.toUtf8()) {
        if (isKeyChar(c)) {
            out += c;
        } else {
            out += '%';
            out += HexDigits[uchar(c) >> 4];
            out += HexDigits[uchar(c) & 0xf];
        }
    }
}

void appendValue(QByteArray &out, const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::UnknownType:
        out += "@Invalid()";
        return;
    case QMetaType::Bool:
        out += value.toBool() ? "true" : "false";
        return;
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        out += value.toString().toLatin1();
        return;
    case QMetaType::QByteArray:
        out += "\"@ByteArray(";
        appendEscaped(out, value.toByteArray(), true);
        out += ")\"";
        return;
    default: {
        const QString text = value.toString();
        if (text.isEmpty())
            return;
        out += '"';
        if (text.startsWith(u'@'))
            out += '@';
        appendEscaped(out, text.toUtf8(), false);
        out += '"';
    }
    }
}

// One value's text split into its items: quoted parts, escapes, commas between
// list items, and a ";" comment after the value.
QStringList unescapedItems(QStringView text, bool *isList)
{
    QStringList items;
    QString current;
    bool inQuotes = false;
    bool sawComma = false;
    qsizetype trailingPlainSpaces = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (c == u'"') {
            inQuotes = !inQuotes;
            trailingPlainSpaces = 0;
        } else if (c == u'\\' && i + 1 < text.size()) {
            const char16_t e = text[++i].unicode();
            trailingPlainSpaces = 0;
            switch (e) {
            case u'a':
                current += u'\a';
                break;
            case u'b':
                current += u'\b';
                break;
            case u'f':
                current += u'\f';
                break;
            case u'n':
                current += u'\n';
                break;
            case u'r':
                current += u'\r';
                break;
            case u't':
                current += u'\t';
                break;
            case u'v':
                current += u'\v';
                break;
            case u'x': {
                uint value = 0;
                while (i + 1 < text.size() && isHexDigit(text[i + 1].unicode()))
                    value = (value << 4) + uint(hexValue(text[++i].unicode()));
                current += QChar(char16_t(value & 0xffff));
                break;
            }
            default:
                if (e >= u'0' && e <= u'7') {
                    uint value = e - u'0';
                    while (i + 1 < text.size() && text[i + 1] >= u'0' && text[i + 1] <= u'7')
                        value = (value << 3) + (text[++i].unicode() - u'0');
                    current += QChar(char16_t(value & 0xffff));
                } else {
                    current += QChar(e);
                }
            }
        } else if (!inQuotes && c == u',') {
            current.chop(trailingPlainSpaces);
            items.append(current);
            current.clear();
            sawComma = true;
            trailingPlainSpaces = 0;
            while (i + 1 < text.size() && (text[i + 1] == u' ' || text[i + 1] == u'\t'))
                ++i;
        } else if (!inQuotes && c == u';') {
            break;
        } else {
            current += QChar(c);
            trailingPlainSpaces =
                (!inQuotes && (c == u' ' || c == u'\t')) ? trailingPlainSpaces + 1 : 0;
        }
    }
    current.chop(trailingPlainSpaces);
    items.append(current);
    *isList = sawComma;
    return items;
}

QVariant toVariant(const QString &item)
{
    if (!item.startsWith(u'@'))
        return item;
    if (item.startsWith(u"@@"))
        return item.sliced(1);
    if (item.endsWith(u')')) {
        if (item.startsWith(u"@ByteArray("))
            return item.sliced(11, item.size() - 12).toLatin1();
        if (item.startsWith(u"@String("))
            return item.sliced(8, item.size() - 9);
        if (item == u"@Invalid()")
            return QVariant();
    }
    return item;
}

QString unescapedKey(QStringView key)
{
    const QByteArray utf8 = key.trimmed().toUtf8();
    return QString::fromUtf8(QByteArray::fromPercentEncoding(utf8));
}

// As QSettings spells keys: no empty parts between, before or after slashes.
// A damaged file's "/x" or "x/" would otherwise be unreachable, and not survive
// the next save.
QString normalizedKey(const QString &key)
{
    return key.split(u'/', Qt::SkipEmptyParts).join(u'/');
}

} // namespace

QSettings::Format format()
{
    static const QSettings::Format registered = QSettings::registerFormat(u"conf"_s, &read, &write);
    return registered;
}

bool read(QIODevice &device, QSettings::SettingsMap &map)
{
    const QString text = QString::fromUtf8(device.readAll());
    QString section;
    qsizetype lineStart = 0;
    while (lineStart < text.size()) {
        qsizetype lineEnd = text.indexOf(u'\n', lineStart);
        if (lineEnd < 0)
            lineEnd = text.size();
        const QStringView line = QStringView(text).sliced(lineStart, lineEnd - lineStart).trimmed();
        lineStart = lineEnd + 1;
        if (line.isEmpty() || line.startsWith(u';') || line.startsWith(u'#'))
            continue;
        if (line.startsWith(u'[')) {
            const qsizetype close = line.indexOf(u']');
            const QStringView raw = line.sliced(1, (close < 0 ? line.size() : close) - 1).trimmed();
            // [General] holds the keys without a section; a section of that
            // name is written [%General], as Qt does, and is recognised before
            // unescaping, which would read "%Ge" as a byte.
            if (raw.compare(u"%General", Qt::CaseInsensitive) == 0) {
                section = raw.sliced(1).toString();
                continue;
            }
            section = normalizedKey(unescapedKey(raw));
            if (section.compare(u"General", Qt::CaseInsensitive) == 0)
                section.clear();
            continue;
        }
        const qsizetype equals = line.indexOf(u'=');
        if (equals <= 0)
            continue;
        const QString key = unescapedKey(line.first(equals));
        bool isList = false;
        const QStringList items = unescapedItems(line.sliced(equals + 1).trimmed(), &isList);
        QVariant value;
        if (isList) {
            QVariantList list;
            for (const QString &item : items)
                list.append(toVariant(item));
            value = list;
        } else {
            value = toVariant(items.first());
        }
        const QString path = normalizedKey(section.isEmpty() ? key : section + u'/' + key);
        if (!path.isEmpty())
            map.insert(path, value);
    }
    return true;
}

bool write(QIODevice &device, const QSettings::SettingsMap &map)
{
    QByteArray out;
    qsizetype size = 64;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        size += it.key().size()
                + (it.value().typeId() == QMetaType::QByteArray
                       ? it.value().toByteArray().size() * 11 / 10
                       : 32);
    out.reserve(size);

    // [General] first, then every other section with its keys together.
    QMap<QString, QList<QSettings::SettingsMap::const_iterator>> sections;
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        const qsizetype slash = it.key().lastIndexOf(u'/');
        sections[slash < 0 ? QString() : it.key().first(slash)].append(it);
    }
    bool first = true;
    for (auto section = sections.cbegin(); section != sections.cend(); ++section) {
        if (!first)
            out += '\n';
        first = false;
        out += '[';
        if (section.key().isEmpty())
            out += "General";
        else if (section.key().compare(u"General", Qt::CaseInsensitive) == 0)
            out += '%' + section.key().toUtf8();
        else
            appendKey(out, section.key());
        out += "]\n";
        for (const auto &it : section.value()) {
            const qsizetype slash = it.key().lastIndexOf(u'/');
            appendKey(out, QStringView(it.key()).sliced(slash + 1));
            out += '=';
            appendValue(out, it.value());
            out += '\n';
        }
    }
    if (device.write(out) != out.size())
        return false;
    // A file keeps a write this small in its buffer, and QSaveFile does not see
    // that emptying the buffer at commit failed (a full disk, a file size limit):
    // a truncated file would replace the good one.
    if (auto *file = qobject_cast<QFileDevice *>(&device))
        return file->flush();
    return true;
}

} // namespace IniFormat
