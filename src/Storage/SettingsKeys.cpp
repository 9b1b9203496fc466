#include "Storage/SettingsKeys.h"

#include "Storage/UserSettings.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace SettingsKeys {

namespace {

std::optional<bool> toBool(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return value.toDouble() != 0.0;
    case QMetaType::QString: {
        const QString text = value.toString().trimmed().toLower();
        if (text == u"true" || text == u"yes")
            return true;
        if (text == u"false" || text == u"no")
            return false;
        bool ok = false;
        const double number = text.toDouble(&ok);
        if (ok)
            return number != 0.0;
        return std::nullopt;
    }
    default:
        return std::nullopt;
    }
}

} // namespace

bool read(const QSettings &settings, const Key<bool> &key)
{
    return toBool(settings.value(key.name)).value_or(key.defaultValue);
}

qint64 read(const QSettings &settings, const Key<qint64> &key)
{
    const QVariant value = settings.value(key.name);
    if (value.typeId() == QMetaType::QString || value.typeId() == QMetaType::Int
        || value.typeId() == QMetaType::LongLong) {
        bool ok = false;
        const qint64 number = value.toString().trimmed().toLongLong(&ok);
        if (ok)
            return number;
    }
    return key.defaultValue;
}

QString read(const QSettings &settings, const Key<QStringView> &key)
{
    const QVariant value = settings.value(key.name);
    if (value.typeId() == QMetaType::QString)
        return value.toString();
    return key.defaultValue.toString();
}

std::optional<QByteArray> read(const QSettings &settings, const DataKey &key)
{
    const QVariant value = settings.value(key.name);
    if (!value.isValid())
        return std::nullopt;
    if (value.typeId() == QMetaType::QByteArray)
        return value.toByteArray();
    // Anything else stored under a data key (text written by hand, a list) is not
    // what Quillvane wrote: hand it on so that decoding reports it as damaged.
    return value.toString().toUtf8();
}

QStringList readTexts(const QSettings &settings, const DataKey &key)
{
    QStringList texts;
    for (const QJsonValue &value :
         QJsonDocument::fromJson(read(settings, key).value_or("[]")).array()) {
        if (value.isString())
            texts.append(value.toString());
    }
    return texts;
}

void writeTexts(QSettings &settings, const DataKey &key, const QStringList &texts)
{
    write(settings, key,
          QJsonDocument(QJsonArray::fromStringList(texts)).toJson(QJsonDocument::Compact));
}

void write(QSettings &settings, QStringView name, const QVariant &value)
{
    settings.setValue(name, value);
    UserSettings::commit(settings);
}

} // namespace SettingsKeys
