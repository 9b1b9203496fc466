// Links as applications hand them over, and references resolved against them.
#include "FuzzSupport.h"
#include "Models/Link.h"

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString input = FuzzSupport::text(data, size);
    const qsizetype split = input.indexOf(QChar(u'\n'));
    const QString first = split < 0 ? input : input.left(split);
    const auto parsed = Link::parse(first);
    if (!parsed)
        return 0;
    // What a link prints, parses back to the same link.
    const auto again = Link::parse(parsed->toString());
    FUZZ_CHECK(again);
    FUZZ_CHECK(*again == *parsed);
    FUZZ_CHECK(again->isWebLink() == parsed->isWebLink());
    if (split >= 0) {
        const auto resolved = parsed->resolved(QStringView(input).mid(split + 1));
        if (resolved) {
            const auto reparsed = Link::parse(resolved->toString());
            FUZZ_CHECK(reparsed && *reparsed == *resolved);
        }
    }
    return 0;
}
