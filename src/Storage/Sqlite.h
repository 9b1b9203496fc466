#pragma once

#include <QHash>
#include <QSet>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

struct sqlite3;
struct sqlite3_stmt;

// A thin owner of the system SQLite library's C interface. A Database keeps the
// first failure of a sequence of statements: every statement after it does
// nothing, so a sequence is written straight and checked once at its end.
namespace Sqlite {

struct Error
{
    int code = 0; // the primary result code (SQLITE_BUSY, SQLITE_FULL, …)
    QString message;

    // The file is not a database, or its pages contradict each other.
    bool isDamage() const;
    // Another connection holds the write lock.
    bool isBusy() const;
};

class Database;

// One prepared statement, reset and unbound each time it is fetched again.
// While one is in use, fetching the same text again gives a statement of its
// own, so that neither resets the other.
class Statement final
{
public:
    ~Statement();
    Statement(Statement &&other) noexcept;
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    Statement &bind(int index, QStringView text);
    Statement &bind(int index, const QString &text) { return bind(index, QStringView(text)); }
    Statement &bind(int index, const std::optional<QString> &text);
    Statement &bind(int index, qint64 value);
    Statement &bind(int index, double value);

    // Runs to the next row: true while there is one.
    bool step();
    // Runs to its end, ignoring rows.
    void run();

    QString text(int column) const;
    std::optional<QString> optionalText(int column) const;
    qint64 integer(int column) const;
    double real(int column) const;
    bool isNull(int column) const;

private:
    friend class Database;
    Statement(Database &database, sqlite3_stmt *statement, bool cached);
    template<typename Binding> Statement &bindWith(Binding &&binding);

    Database &m_database;
    sqlite3_stmt *m_statement;
    // Kept by the database for the next fetch, or this one's alone.
    bool m_cached;
};

class Database final
{
public:
    enum class Mode
    {
        ReadOnly,
        ReadWriteCreate
    };

    // Opens (or makes) the file; nothing is read from it yet.
    static std::unique_ptr<Database> open(const QString &path, Mode mode, Error *error);
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // Several statements without parameters or rows.
    void exec(const char *sql);
    // The prepared statement of the text, made on first use and kept.
    Statement statement(const char *sql);
    // work in one transaction that takes the write lock at once; rolled back
    // when anything in it failed.
    std::optional<Error> transaction(const std::function<void()> &work);

    // Opened for writing, the file may still be read-only (its folder or file
    // system is): SQLite then opens it for reading alone.
    bool isReadOnly() const;
    qint64 lastInsertId() const;
    int changes() const;
    void setBusyTimeout(int milliseconds);

    const std::optional<Error> &error() const { return m_error; }
    std::optional<Error> takeError();
    // Records a failure of the library's call that returned code.
    void fail(int code);

    // Adds quillvane_contains(haystack, needle): whether needle occurs in
    // haystack, ignoring case across all of Unicode (SQLite's own LIKE folds
    // only ASCII).
    void addContainsFunction();

private:
    explicit Database(sqlite3 *handle);

    friend class Statement;
    sqlite3 *m_handle;
    // By their text: equal texts at two addresses are one statement, and a
    // text at an address used again is not taken for the one before.
    QHash<QByteArray, sqlite3_stmt *> m_statements;
    QSet<sqlite3_stmt *> m_inUse;
    std::optional<Error> m_error;
};

} // namespace Sqlite
