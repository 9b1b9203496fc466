#pragma once

#include <QByteArray>
#include <QStringView>

#include <optional>

// Writes compact JSON straight into UTF-8 bytes. Rules and history are saved
// after every change and every routed link, so their encoding must be cheap;
// building QJsonObjects first costs ten times as much.
class JsonWriter final
{
public:
    void beginArray();
    void endArray();
    void beginObject();
    void endObject();

    void member(QLatin1StringView key, QStringView value);
    void member(QLatin1StringView key, double value);
    // Omitted when absent.
    void optionalMember(QLatin1StringView key, const std::optional<QString> &value);

    QByteArray take() { return std::move(m_out); }

private:
    void raw(QByteArrayView bytes);
    void separate();
    void key(QLatin1StringView key);
    void string(QStringView text);

    QByteArray m_out;
    bool m_first = true;
};
