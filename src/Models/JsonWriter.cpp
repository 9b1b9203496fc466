#include "Models/JsonWriter.h"

#include <QString>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

void JsonWriter::beginArray()
{
    separate();
    raw("[");
    m_first = true;
}

void JsonWriter::endArray()
{
    raw("]");
    m_first = false;
}

void JsonWriter::beginObject()
{
    separate();
    raw("{");
    m_first = true;
}

void JsonWriter::endObject()
{
    raw("}");
    m_first = false;
}

void JsonWriter::raw(QByteArrayView bytes)
{
    m_out.append(bytes.data(), size_t(bytes.size()));
}

void JsonWriter::member(QLatin1StringView name, QStringView value)
{
    key(name);
    string(value);
}

void JsonWriter::trueMember(QLatin1StringView name, bool value)
{
    if (!value)
        return;
    key(name);
    raw("true");
}

void JsonWriter::member(QLatin1StringView name, double value)
{
    key(name);
    if (!std::isfinite(value)) {
        raw("null");
        return;
    }
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    raw(QByteArrayView(buffer, result.ptr - buffer));
}

void JsonWriter::optionalMember(QLatin1StringView name, const std::optional<QString> &value)
{
    if (value)
        member(name, QStringView(*value));
}

void JsonWriter::separate()
{
    if (!m_first)
        raw(",");
    m_first = false;
}

void JsonWriter::key(QLatin1StringView name)
{
    separate();
    raw("\"");
    raw(QByteArrayView(name.data(), name.size()));
    raw("\":");
}

void JsonWriter::string(QStringView text)
{
    static constexpr char hex[] = "0123456789abcdef";
    // At most six bytes per UTF-16 unit (a control character as \u00XX), plus quotes.
    const size_t start = m_out.size();
    const size_t needed = start + size_t(text.size()) * 6 + 2;
    if (m_out.capacity() < needed)
        m_out.reserve(std::max(2 * m_out.capacity(), needed + 256));
    m_out.resize(needed);
    char *cursor = m_out.data() + start;
    *cursor++ = '"';
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (c < 0x80) {
            if (c >= 0x20 && c != u'"' && c != u'\\') {
                *cursor++ = char(c);
                continue;
            }
            *cursor++ = '\\';
            switch (c) {
            case u'"':
                *cursor++ = '"';
                break;
            case u'\\':
                *cursor++ = '\\';
                break;
            case u'\n':
                *cursor++ = 'n';
                break;
            case u'\r':
                *cursor++ = 'r';
                break;
            case u'\t':
                *cursor++ = 't';
                break;
            default:
                *cursor++ = 'u';
                *cursor++ = '0';
                *cursor++ = '0';
                *cursor++ = hex[c >> 4];
                *cursor++ = hex[c & 0xf];
            }
        } else if (c < 0x800) {
            *cursor++ = char(0xc0 | (c >> 6));
            *cursor++ = char(0x80 | (c & 0x3f));
        } else if (QChar::isHighSurrogate(c) && i + 1 < text.size()
                   && QChar::isLowSurrogate(text[i + 1].unicode())) {
            const char32_t u = QChar::surrogateToUcs4(c, text[++i].unicode());
            *cursor++ = char(0xf0 | (u >> 18));
            *cursor++ = char(0x80 | ((u >> 12) & 0x3f));
            *cursor++ = char(0x80 | ((u >> 6) & 0x3f));
            *cursor++ = char(0x80 | (u & 0x3f));
        } else {
            // A lone surrogate cannot be written as UTF-8: U+FFFD takes its place.
            const char32_t u = QChar::isSurrogate(c) ? 0xfffd : c;
            *cursor++ = char(0xe0 | (u >> 12));
            *cursor++ = char(0x80 | ((u >> 6) & 0x3f));
            *cursor++ = char(0x80 | (u & 0x3f));
        }
    }
    *cursor++ = '"';
    m_out.resize(size_t(cursor - m_out.data()));
}
