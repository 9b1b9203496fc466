// Chromium's "Local State" and Firefox's profiles.ini, as found in a home.
// The Local State scanner accepts only what is JSON.
#include "FuzzSupport.h"
#include "Services/LocalStateReader.h"
#include "Services/ProfileDiscovery.h"

#include <QJsonDocument>

FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView input = FuzzSupport::bytes(data, size);
    // Not stricter than Qt about the bytes inside names, which it decodes with
    // replacement characters; about everything else it is.
    const bool utf8 = QString::fromUtf8(input).toUtf8() == input;
    if (LocalStateReader::read(input) && utf8) {
        QJsonParseError error;
        (void)QJsonDocument::fromJson(input.toByteArray(), &error);
        FUZZ_CHECK(error.error == QJsonParseError::NoError);
    }
    // No profile a browser would read as an option or a path ever comes out.
    for (const BrowserProfile &profile : ProfileDiscovery::parseFirefoxProfilesIni(
             FuzzSupport::text(data, size), QStringLiteral("firefox")))
        FUZZ_CHECK(profile.browserId == QStringLiteral("firefox")
                   && !ProfileDiscovery::unusableProfileID(profile.id));
    return 0;
}
