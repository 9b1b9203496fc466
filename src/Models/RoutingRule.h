#pragma once

#include "Models/Expected.h"
#include "Models/JsonFields.h"

#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

class JsonWriter;

// One routing rule as the user edits it. Its kind follows from which of the
// source application and the pattern are set.
struct RoutingRule
{
    enum class Kind
    {
        SourceOnly,
        Combined,
        UrlOnly,
        Inert
    };

    QUuid id;
    QString sourceAppId;
    QString sourceAppName;
    QString targetBrowserId;
    QString targetBrowserName;
    std::optional<QString> urlPattern;
    std::optional<QString> targetProfileID;
    // Opens the browser's private window (where the browser family has one).
    bool openInPrivateWindow = false;
    // Asks which browser opens the link instead of naming one (the target
    // browser is then empty).
    bool askWhereToOpen = false;

    // The target browser's name in a rule that asks.
    static constexpr QStringView AskName = u"Ask Every Time";
    // Far beyond any real application id, name, pattern or profile: a longer
    // text is a mistake, not a rule (and a pattern of megabytes costs every link).
    static constexpr qsizetype MaxTextLength = 4096;

    Kind kind() const;
    // How lists and the history name the rule: "Mail + *.example.org → Firefox",
    // "docs.example.com → Chrome", "Mail → Firefox".
    QString description() const;

    void writeJson(JsonWriter &writer) const;
    static Expected<RoutingRule, DecodeError> fromJson(const QJsonValue &value,
                                                       qsizetype index = 0);

    // The stored form: a compact UTF-8 JSON array.
    static QByteArray listToJson(const QList<RoutingRule> &rules);
    // skipped: as JsonFields::decodeArray (keep the readable rules).
    static Expected<QList<RoutingRule>, DecodeError>
    listFromJson(QByteArrayView utf8, QList<DecodeError> *skipped = nullptr);

    friend bool operator==(const RoutingRule &, const RoutingRule &) = default;
};

size_t qHash(const RoutingRule &rule, size_t seed = 0);

// The application that asked to open a link.
struct SourceApp
{
    QString desktopId;
    QString name;

    friend bool operator==(const SourceApp &, const SourceApp &) = default;
};

// A routing decision: the browser to open, and the profile when a rule names one.
struct RouteResult
{
    QString browserId;
    std::optional<QString> profileID;
    // The rule asks for the browser's private window.
    bool privateWindow = false;
    // Nothing opens before the user chose where: the browser, when set, is
    // only the one offered first.
    bool ask = false;

    friend bool operator==(const RouteResult &, const RouteResult &) = default;
};
