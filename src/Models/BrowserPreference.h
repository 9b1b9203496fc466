#pragma once

#include "Models/Expected.h"
#include "Models/JsonFields.h"

#include <QList>
#include <QString>

class JsonWriter;

// What the user set for one installed browser: whether the lists show it, and
// arguments of their own that every start of it gets before the link (as
// typed: split by the Desktop Entry quoting rules when it starts).
struct BrowserPreference
{
    QString browserId;
    bool hidden = false;
    QString extraArguments;

    // Nothing set: the browser is as it was installed.
    bool isDefault() const { return !hidden && extraArguments.trimmed().isEmpty(); }
    // The browser's preference in the list (ids compared ignoring case); the
    // default one when it has none.
    static BrowserPreference of(const QList<BrowserPreference> &preferences,
                                const QString &desktopId);

    void writeJson(JsonWriter &writer) const;
    static Expected<BrowserPreference, DecodeError> fromJson(const QJsonValue &value,
                                                             qsizetype index = 0);
    static QByteArray listToJson(const QList<BrowserPreference> &preferences);
    // skipped: as JsonFields::decodeArray (keep the readable ones).
    static Expected<QList<BrowserPreference>, DecodeError>
    listFromJson(QByteArrayView utf8, QList<DecodeError> *skipped = nullptr);

    friend bool operator==(const BrowserPreference &, const BrowserPreference &) = default;
};
