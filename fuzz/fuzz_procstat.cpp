// What /proc says about a process: stat, cgroup and environ texts.
#include "FuzzSupport.h"
#include "Platform/ProcessApps.h"

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView input = FuzzSupport::bytes(data, size);
    if (const auto parent = ProcStat::parentPid(input))
        FUZZ_CHECK(*parent >= 0);
    (void)ProcStat::startTime(input);
    for (const QString &id : ProcStat::unitAppIds(input))
        FUZZ_CHECK(!id.isEmpty());
    if (const auto snap = ProcStat::snapAppId(input))
        FUZZ_CHECK(snap->contains(QChar(u'_')));
    (void)ProcStat::environmentValue(input, "GIO_LAUNCHED_DESKTOP_FILE");
    return 0;
}
