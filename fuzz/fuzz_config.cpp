// The configuration file as Quillvane reads it: what it takes, it writes and
// takes back the same; what it refuses, it names by a line and column that are
// in the text.
#include "FuzzSupport.h"
#include "Services/ConfigDocument.h"

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView bytes = FuzzSupport::bytes(data, size);
    const auto config = ConfigDocument::decode(bytes, QStringLiteral("config.json"));
    if (!config) {
        const ConfigDocument::Problem &problem = config.error();
        FUZZ_CHECK_SAYING(problem.line == 0 || (problem.line >= 1 && problem.column >= 1
                                                && problem.line <= bytes.count('\n') + 1),
                          problem.text());
        return 0;
    }
    const auto again = ConfigDocument::decode(ConfigDocument::encode(*config), QString());
    FUZZ_CHECK_SAYING(again && *again == *config, QString::fromUtf8(ConfigDocument::encode(*config)));
    return 0;
}
