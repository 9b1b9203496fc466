#include "Models/DisplayText.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace DisplayText {

namespace {

bool isControl(char16_t c)
{
    return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x2028 || c == 0x2029;
}

QString hex(char16_t c, int digits)
{
    return QString::number(c, 16).toUpper().rightJustified(digits, u'0');
}

} // namespace

QString escapeControls(QStringView text)
{
    if (std::none_of(text.cbegin(), text.cend(), [](QChar c) { return isControl(c.unicode()); }))
        return text.toString();
    QString escaped;
    escaped.reserve(text.size() + 16);
    for (const QChar c : text) {
        if (!isControl(c.unicode()))
            escaped += c;
        else if (c.unicode() <= 0xff)
            escaped += u"\\x"_s + hex(c.unicode(), 2);
        else
            escaped += u"\\u{"_s + hex(c.unicode(), 4) + u'}';
    }
    return escaped;
}

QString forMenu(QStringView text)
{
    return escapeControls(text).replace(u'&', u"&&"_s);
}

} // namespace DisplayText
