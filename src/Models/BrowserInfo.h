#pragma once

#include "Models/Expected.h"
#include "Models/JsonFields.h"

#include <QJsonObject>
#include <QString>
#include <QUrl>

// An installed browser: its desktop-entry id, display name and the location of
// its desktop entry. Two records of one browser are equal whatever their names.
struct BrowserInfo
{
    QString bundleID;
    QString name;
    QUrl path;

    const QString &id() const { return bundleID; }

    QJsonObject toJson() const;
    static Expected<BrowserInfo, DecodeError> fromJson(const QJsonValue &value);

    friend bool operator==(const BrowserInfo &a, const BrowserInfo &b)
    {
        return a.bundleID == b.bundleID;
    }
};

size_t qHash(const BrowserInfo &browser, size_t seed = 0);

// One profile of a browser: a directory name for Chromium browsers, a profile
// name for Firefox.
struct BrowserProfile
{
    QString id;
    QString name;
    QString browserBundleID;

    QJsonObject toJson() const;
    static Expected<BrowserProfile, DecodeError> fromJson(const QJsonValue &value);

    friend bool operator==(const BrowserProfile &, const BrowserProfile &) = default;
};

size_t qHash(const BrowserProfile &profile, size_t seed = 0);
