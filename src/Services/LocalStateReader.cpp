#include "Services/LocalStateReader.h"

#include <QStringDecoder>

#include <array>
#include <cstring>

using namespace Qt::Literals::StringLiterals;

namespace LocalStateReader {

namespace {

// Deeper nesting is refused rather than followed (no real file comes close).
constexpr int MaxDepth = 256;

// Where in the document a value stands, as far as the profile list goes.
enum class Place
{
    Elsewhere,
    Top,
    Profile,
    InfoCache,
    ProfileEntry
};

class Parser
{
public:
    explicit Parser(QByteArrayView json)
        : m_at(json.data())
        , m_end(json.data() + json.size())
        , m_begin(json.data())
    {}

    Expected<QList<Entry>, Error> run()
    {
        skipBlanks();
        const bool topIsObject = m_at < m_end && *m_at == '{';
        if (!value(topIsObject ? Place::Top : Place::Elsewhere, 0))
            return notJson();
        skipBlanks();
        if (m_at != m_end) {
            fail(u"unexpected text after the document"_s);
            return notJson();
        }
        if (!topIsObject || !m_profileWasObject || !m_infoCacheWasObject)
            return Error{Error::Kind::UnexpectedStructure, u"unexpected structure"_s};
        return m_entries;
    }

private:
    Error notJson() const { return Error{Error::Kind::NotJson, m_error}; }

    bool fail(const QString &what)
    {
        if (m_error.isEmpty())
            m_error = u"%1 at offset %2"_s.arg(what).arg(m_at - m_begin);
        return false;
    }

    void skipBlanks()
    {
        while (m_at < m_end && (*m_at == ' ' || *m_at == '\t' || *m_at == '\n' || *m_at == '\r'))
            ++m_at;
    }

    bool literal(const char *word)
    {
        const size_t length = std::strlen(word);
        if (size_t(m_end - m_at) < length || std::memcmp(m_at, word, length) != 0)
            return fail(u"invalid value"_s);
        m_at += length;
        return true;
    }

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    bool number()
    {
        if (m_at < m_end && *m_at == '-')
            ++m_at;
        if (m_at >= m_end || !isDigit(*m_at))
            return fail(u"invalid number"_s);
        if (*m_at == '0')
            ++m_at;
        else
            while (m_at < m_end && isDigit(*m_at))
                ++m_at;
        if (m_at < m_end && *m_at == '.') {
            ++m_at;
            if (m_at >= m_end || !isDigit(*m_at))
                return fail(u"invalid number"_s);
            while (m_at < m_end && isDigit(*m_at))
                ++m_at;
        }
        if (m_at < m_end && (*m_at == 'e' || *m_at == 'E')) {
            ++m_at;
            if (m_at < m_end && (*m_at == '+' || *m_at == '-'))
                ++m_at;
            if (m_at >= m_end || !isDigit(*m_at))
                return fail(u"invalid number"_s);
            while (m_at < m_end && isDigit(*m_at))
                ++m_at;
        }
        return true;
    }

    static int hexValue(char c)
    {
        if (isDigit(c))
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    }

    struct RawString
    {
        QByteArrayView bytes;
        bool escaped = false;
    };

    // Bytes that end a run of plain string content.
    static constexpr std::array<bool, 256> stringStops()
    {
        std::array<bool, 256> stops{};
        for (int c = 0; c < 0x20; ++c)
            stops[c] = true;
        stops['"'] = true;
        stops['\\'] = true;
        return stops;
    }

    // A string, checked and left undecoded: only a few are ever needed as text.
    bool string(RawString *raw = nullptr)
    {
        static constexpr std::array<bool, 256> stops = stringStops();
        ++m_at; // the opening quote
        const char *start = m_at;
        bool escaped = false;
        while (true) {
            while (m_at < m_end && !stops[uchar(*m_at)])
                ++m_at;
            if (m_at >= m_end)
                return fail(u"unterminated string"_s);
            if (*m_at == '"')
                break;
            if (*m_at != '\\')
                return fail(u"control character in a string"_s);
            escaped = true;
            if (++m_at >= m_end)
                return fail(u"unterminated string"_s);
            if (*m_at == 'u') {
                for (int i = 1; i <= 4; ++i) {
                    if (m_at + i >= m_end || hexValue(m_at[i]) < 0)
                        return fail(u"invalid escape"_s);
                }
                m_at += 5;
            } else if (*m_at && std::strchr("\"\\/bfnrt", *m_at)) {
                ++m_at;
            } else {
                return fail(u"invalid escape"_s);
            }
        }
        if (raw)
            *raw = RawString{QByteArrayView(start, m_at - start), escaped};
        ++m_at; // the closing quote
        return true;
    }

    // Whether a member name is the given ASCII word (escaped names are rare).
    bool is(const RawString &raw, QByteArrayView word)
    {
        if (!raw.escaped)
            return raw.bytes == word;
        QString decoded;
        return decode(raw, &decoded) && decoded == QLatin1StringView(word);
    }

    bool decode(const RawString &string, QString *out)
    {
        const QByteArrayView raw = string.bytes;
        // Runs of UTF-8 are decoded as such; a \u escape is a UTF-16 unit, so
        // that a pair of them (a character beyond the first 65,536, an emoji)
        // becomes one character instead of two that UTF-8 cannot hold.
        QString text;
        QByteArray run;
        bool invalid = false;
        const auto flush = [&] {
            QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
            text += decoder.decode(run);
            invalid = invalid || decoder.hasError();
            run.clear();
        };
        if (!string.escaped) {
            run = raw.toByteArray();
        } else {
            for (qsizetype i = 0; i < raw.size(); ++i) {
                if (raw[i] != '\\') {
                    run += raw[i];
                    continue;
                }
                const char e = raw[++i];
                if (e != 'u') {
                    static constexpr char from[] = "\"\\/bfnrt";
                    static constexpr char to[] = "\"\\/\b\f\n\r\t";
                    run += to[std::strchr(from, e) - from];
                    continue;
                }
                char16_t unit = 0;
                for (int k = 1; k <= 4; ++k)
                    unit = char16_t((unit << 4) | hexValue(raw[i + k]));
                i += 4;
                flush();
                text += QChar(unit);
            }
        }
        flush();
        *out = text;
        return !invalid || fail(u"invalid UTF-8 in a string"_s);
    }

    bool value(Place place, int depth)
    {
        skipBlanks();
        if (m_at >= m_end)
            return fail(u"unexpected end of the document"_s);
        switch (*m_at) {
        case '{':
            return object(place, depth + 1);
        case '[':
            return array(depth + 1);
        case '"':
            return string();
        case 't':
            return literal("true");
        case 'f':
            return literal("false");
        case 'n':
            return literal("null");
        default:
            return number();
        }
    }

    bool array(int depth)
    {
        if (depth > MaxDepth)
            return fail(u"nesting too deep"_s);
        ++m_at;
        skipBlanks();
        if (m_at < m_end && *m_at == ']') {
            ++m_at;
            return true;
        }
        while (true) {
            if (!value(Place::Elsewhere, depth))
                return false;
            skipBlanks();
            if (m_at >= m_end)
                return fail(u"unterminated array"_s);
            if (*m_at == ']') {
                ++m_at;
                return true;
            }
            if (*m_at != ',')
                return fail(u"missing comma in an array"_s);
            ++m_at;
        }
    }

    // The place of a member's value, from the place of its object and its key.
    Place childPlace(Place parent, const RawString &key)
    {
        switch (parent) {
        case Place::Top:
            return is(key, "profile") ? Place::Profile : Place::Elsewhere;
        case Place::Profile:
            return is(key, "info_cache") ? Place::InfoCache : Place::Elsewhere;
        case Place::InfoCache:
            return Place::ProfileEntry;
        default:
            return Place::Elsewhere;
        }
    }

    bool object(Place place, int depth)
    {
        if (depth > MaxDepth)
            return fail(u"nesting too deep"_s);
        if (place == Place::Profile)
            m_profileWasObject = true;
        if (place == Place::InfoCache)
            m_infoCacheWasObject = true;
        ++m_at;
        skipBlanks();
        if (m_at < m_end && *m_at == '}') {
            ++m_at;
            return true;
        }
        while (true) {
            skipBlanks();
            if (m_at >= m_end || *m_at != '"')
                return fail(u"missing member name"_s);
            RawString key;
            if (!string(&key))
                return false;
            skipBlanks();
            if (m_at >= m_end || *m_at != ':')
                return fail(u"missing colon"_s);
            ++m_at;
            if (!memberValue(place, key, depth))
                return false;
            skipBlanks();
            if (m_at >= m_end)
                return fail(u"unterminated object"_s);
            if (*m_at == '}') {
                ++m_at;
                return true;
            }
            if (*m_at != ',')
                return fail(u"missing comma in an object"_s);
            ++m_at;
        }
    }

    bool memberValue(Place place, const RawString &key, int depth)
    {
        const Place child = childPlace(place, key);
        if (child == Place::ProfileEntry) {
            QString directory;
            if (!decode(key, &directory))
                return false;
            skipBlanks();
            m_entries.append(Entry{directory, std::nullopt});
            if (m_at < m_end && *m_at == '{')
                return object(Place::ProfileEntry, depth + 1);
            return value(Place::Elsewhere, depth);
        }
        if (place == Place::ProfileEntry && is(key, "name")) {
            skipBlanks();
            if (m_at < m_end && *m_at == '"') {
                RawString raw;
                QString name;
                if (!string(&raw) || !decode(raw, &name))
                    return false;
                m_entries.last().name = name;
                return true;
            }
            m_entries.last().name.reset();
        }
        // A member that is not an object where one is expected is left as Elsewhere,
        // and the structure check then fails.
        skipBlanks();
        if ((child == Place::Profile || child == Place::InfoCache)
            && (m_at >= m_end || *m_at != '{'))
            return value(Place::Elsewhere, depth);
        return value(child, depth);
    }

    const char *m_at;
    const char *m_end;
    const char *m_begin;
    QString m_error;
    bool m_profileWasObject = false;
    bool m_infoCacheWasObject = false;
    QList<Entry> m_entries;
};

} // namespace

Expected<QList<Entry>, Error> read(QByteArrayView json)
{
    return Parser(json).run();
}

} // namespace LocalStateReader
