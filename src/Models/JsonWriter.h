#pragma once

#include <QByteArray>
#include <QList>
#include <QStringView>

#include <optional>
#include <string>

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
    // Written only when true: a member that older readers need not know.
    void trueMember(QLatin1StringView key, bool value);

    // A list of records that write themselves with writeJson(JsonWriter &).
    template<typename Record> static QByteArray array(const QList<Record> &records)
    {
        JsonWriter writer;
        writer.beginArray();
        for (const Record &record : records)
            record.writeJson(writer);
        writer.endArray();
        return writer.take();
    }

    qsizetype size() const { return qsizetype(m_out.size()); }
    QByteArray take() const { return QByteArray(m_out.data(), qsizetype(m_out.size())); }

private:
    void raw(QByteArrayView bytes);
    void separate();
    void key(QLatin1StringView key);
    void string(QStringView text);

    // std::string appends small pieces much faster than QByteArray does.
    std::string m_out;
    bool m_first = true;
};
