#pragma once

#include <QString>
#include <QUrl>

// An installed browser: its desktop-entry id, display name and the location of
// its desktop entry. Two records of one browser are equal whatever their names.
struct BrowserInfo
{
    QString desktopId;
    QString name;
    QUrl path;

    const QString &id() const { return desktopId; }

    friend bool operator==(const BrowserInfo &a, const BrowserInfo &b)
    {
        return a.desktopId == b.desktopId;
    }
};

// One profile of a browser: a directory name for Chromium browsers, a profile
// name for Firefox.
struct BrowserProfile
{
    QString id;
    QString name;
    QString browserId;

    friend bool operator==(const BrowserProfile &, const BrowserProfile &) = default;
};
