// Tracking-parameter removal: never breaks a link, and cleaning twice changes
// nothing more. Redirect unwrapping: what comes out of a wrapper is always a
// web link, and one that is no wrapper is kept as it is.
#include "FuzzSupport.h"
#include "Models/Link.h"
#include "Services/URLCleaner.h"
#include "Services/URLUnwrapper.h"

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto parsed = Link::parse(FuzzSupport::text(data, size));
    if (!parsed)
        return 0;
    const Link cleaned = URLCleaner::clean(*parsed);
    FUZZ_CHECK(Link::parse(cleaned.toString()));
    FUZZ_CHECK(URLCleaner::clean(cleaned) == cleaned);
    FUZZ_CHECK(cleaned.toString().size() <= parsed->toString().size());

    const Link unwrapped = URLUnwrapper::unwrap(*parsed);
    if (!(unwrapped == *parsed))
        FUZZ_CHECK(Link::parseWebLink(unwrapped.toString()));
    return 0;
}
