// Tracking-parameter removal: never breaks a link, and cleaning twice changes
// nothing more.
#include "FuzzSupport.h"
#include "Models/Link.h"
#include "Services/URLCleaner.h"

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
    return 0;
}
