// The stored rules, the stored history and an imported configuration: what
// reads back, writes and reads back the same.
#include "FuzzSupport.h"
#include "Models/ForwardingRecord.h"
#include "Models/RoutingRule.h"
#include "Services/ConfigManager.h"

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView input = FuzzSupport::bytes(data, size);
    if (const auto rules = RoutingRule::listFromJson(input)) {
        const auto again = RoutingRule::listFromJson(RoutingRule::listToJson(*rules));
        FUZZ_CHECK(again && *again == *rules);
    }
    if (const auto records = ForwardingRecord::listFromJson(input)) {
        const auto again = ForwardingRecord::listFromJson(ForwardingRecord::listToJson(*records));
        FUZZ_CHECK(again && again->size() == records->size());
    }
    if (const auto config = ConfigManager::importFromJSON(input)) {
        const auto again = ConfigManager::importFromJSON(ConfigManager::encode(*config));
        FUZZ_CHECK(again && again->rules == config->rules);
        FUZZ_CHECK(again->fallbackBrowserId == config->fallbackBrowserId);
    }
    return 0;
}
