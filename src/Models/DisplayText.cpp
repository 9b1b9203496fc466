#include "Models/DisplayText.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace DisplayText {

namespace {

// Bidirectional marks, embeddings, overrides and isolates count as controls:
// a right-to-left override makes "moc.evil//:sptth" read as another link.
bool isControl(char16_t c)
{
    return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x2028 || c == 0x2029 || c == 0x061c
           || c == 0x200e || c == 0x200f || (c >= 0x202a && c <= 0x202e)
           || (c >= 0x2066 && c <= 0x2069);
}

bool isControlButLayout(char16_t c)
{
    return c != u'\n' && c != u'\t' && isControl(c);
}

QString hex(char16_t c, int digits)
{
    return QString::number(c, 16).toUpper().rightJustified(digits, u'0');
}

QString escape(QStringView text, bool (*escaped)(char16_t))
{
    if (std::none_of(text.cbegin(), text.cend(),
                     [escaped](QChar c) { return escaped(c.unicode()); }))
        return text.toString();
    QString result;
    result.reserve(text.size() + 16);
    for (const QChar c : text) {
        if (!escaped(c.unicode()))
            result += c;
        else if (c.unicode() <= 0xff)
            result += u"\\x"_s + hex(c.unicode(), 2);
        else
            result += u"\\u{"_s + hex(c.unicode(), 4) + u'}';
    }
    return result;
}

} // namespace

QString escapeControls(QStringView text)
{
    return escape(text, isControl);
}

QString forTerminal(QStringView text)
{
    return escape(text, isControlButLayout);
}

QString forMenu(QStringView text)
{
    return escapeControls(text).replace(u'&', u"&&"_s);
}

} // namespace DisplayText
