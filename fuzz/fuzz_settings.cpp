// The settings file as Quillvane reads it: what it reads, it writes back and
// reads the same.
#include "FuzzSupport.h"
#include "Storage/IniFormat.h"

#include <QBuffer>

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QByteArray bytes = FuzzSupport::bytes(data, size).toByteArray();
    QBuffer input(&bytes);
    input.open(QIODevice::ReadOnly);
    QSettings::SettingsMap map;
    if (!IniFormat::read(input, map))
        return 0;
    QByteArray written;
    QBuffer output(&written);
    output.open(QIODevice::WriteOnly);
    FUZZ_CHECK(IniFormat::write(output, map));
    output.close();
    QBuffer back(&written);
    back.open(QIODevice::ReadOnly);
    QSettings::SettingsMap again;
    FUZZ_CHECK(IniFormat::read(back, again));
    FUZZ_CHECK_SAYING(again.keys() == map.keys(),
                      map.keys().join(u"|") + u" became " + again.keys().join(u"|"));
    return 0;
}
