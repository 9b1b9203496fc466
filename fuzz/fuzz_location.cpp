// A short-link server's Location header, resolved against the link asked.
#include "FuzzSupport.h"
#include "Services/URLExpander.h"

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Link asked = *Link::parse(QStringLiteral("https://bit.ly/a/b?c=d#e"));
    const auto next = URLExpander::resolveLocation(asked, FuzzSupport::bytes(data, size));
    if (next) {
        const auto again = Link::parse(next->toString());
        FUZZ_CHECK(again && *again == *next);
    }
    return 0;
}
