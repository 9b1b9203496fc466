#pragma once

#include "Models/Expected.h"

#include <QByteArrayView>
#include <QList>
#include <QString>

#include <optional>

// Reads the profile list out of a Chromium "Local State" file: the members of
// profile.info_cache and their "name". The whole document is checked as JSON,
// but nothing else in it is built: a long-used browser's file runs to megabytes
// of other settings, which a full JSON document would take tens of
// milliseconds to build.
namespace LocalStateReader {

struct Entry
{
    QString directory;
    // Absent when the entry is not an object with a string "name".
    std::optional<QString> name;
};

struct Error
{
    enum class Kind
    {
        NotJson,
        UnexpectedStructure
    };
    Kind kind;
    QString description;
};

Expected<QList<Entry>, Error> read(QByteArrayView json);

} // namespace LocalStateReader
