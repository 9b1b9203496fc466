#include "Storage/Sqlite.h"

#include <sys/stat.h>

#include <sqlite3.h>

#include <QFile>

#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace Sqlite {

bool Error::isDamage() const
{
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

bool Error::isBusy() const
{
    return code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

Statement::Statement(Database &database, sqlite3_stmt *statement, bool cached)
    : m_database(database)
    , m_statement(statement)
    , m_cached(cached)
{
    if (m_cached && m_statement)
        m_database.m_inUse.insert(m_statement);
}

Statement::Statement(Statement &&other) noexcept
    : m_database(other.m_database)
    , m_statement(std::exchange(other.m_statement, nullptr))
    , m_cached(other.m_cached)
{}

Statement::~Statement()
{
    if (!m_statement)
        return;
    if (m_cached)
        m_database.m_inUse.remove(m_statement);
    else
        sqlite3_finalize(m_statement);
}

template<typename Binding> Statement &Statement::bindWith(Binding &&binding)
{
    // After a failure the statement only carries the first error to its end.
    if (!m_statement || m_database.error())
        return *this;
    const int result = binding(m_statement);
    if (result != SQLITE_OK)
        m_database.fail(result);
    return *this;
}

Statement &Statement::bind(int index, QStringView text)
{
    return bindWith([index, utf8 = text.toUtf8()](sqlite3_stmt *statement) {
        // An empty text is a text, not NULL: a non-null pointer says so.
        return sqlite3_bind_text(statement, index, utf8.isNull() ? "" : utf8.constData(),
                                 int(utf8.size()), SQLITE_TRANSIENT);
    });
}

Statement &Statement::bind(int index, const std::optional<QString> &text)
{
    if (text)
        return bind(index, QStringView(*text));
    return bindWith(
        [index](sqlite3_stmt *statement) { return sqlite3_bind_null(statement, index); });
}

Statement &Statement::bind(int index, qint64 value)
{
    return bindWith([index, value](sqlite3_stmt *statement) {
        return sqlite3_bind_int64(statement, index, value);
    });
}

Statement &Statement::bind(int index, double value)
{
    return bindWith([index, value](sqlite3_stmt *statement) {
        return sqlite3_bind_double(statement, index, value);
    });
}

bool Statement::step()
{
    if (!m_statement || m_database.error())
        return false;
    const int result = sqlite3_step(m_statement);
    if (result == SQLITE_ROW)
        return true;
    if (result != SQLITE_DONE)
        m_database.fail(result);
    return false;
}

void Statement::run()
{
    while (step()) {
    }
}

QString Statement::text(int column) const
{
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(m_statement, column));
    return QString::fromUtf8(bytes, sqlite3_column_bytes(m_statement, column));
}

std::optional<QString> Statement::optionalText(int column) const
{
    if (isNull(column))
        return std::nullopt;
    return text(column);
}

qint64 Statement::integer(int column) const
{
    return sqlite3_column_int64(m_statement, column);
}

double Statement::real(int column) const
{
    return sqlite3_column_double(m_statement, column);
}

bool Statement::isNull(int column) const
{
    return sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}

Database::Database(sqlite3 *handle)
    : m_handle(handle)
{}

std::unique_ptr<Database> Database::open(const QString &path, Mode mode, Error *error)
{
    // The file and its companions are the user's state: a link in their place
    // (to /dev/null, to another file) is not followed, and neither is anything
    // else that is not a regular file, which SQLite would write through or
    // create files beside.
    for (const char *suffix : {"", "-wal", "-shm", "-journal"}) {
        const QByteArray name = QFile::encodeName(path) + suffix;
        struct stat info = {};
        if (::lstat(name.constData(), &info) == 0 && !S_ISREG(info.st_mode)) {
            if (error)
                *error = Error{SQLITE_CANTOPEN,
                               u"%1 is not a regular file"_s.arg(QFile::decodeName(name))};
            return nullptr;
        }
    }
    sqlite3 *handle = nullptr;
    const int flags =
        (mode == Mode::ReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)
        | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE | SQLITE_OPEN_NOFOLLOW;
    const int result =
        sqlite3_open_v2(QFile::encodeName(path).constData(), &handle, flags, nullptr);
    if (result != SQLITE_OK) {
        if (error)
            *error = Error{result & 0xff, handle ? QString::fromUtf8(sqlite3_errmsg(handle))
                                                 : QString::fromUtf8(sqlite3_errstr(result))};
        sqlite3_close_v2(handle);
        return nullptr;
    }
    return std::unique_ptr<Database>(new Database(handle));
}

Database::~Database()
{
    for (sqlite3_stmt *statement : std::as_const(m_statements))
        sqlite3_finalize(statement);
    sqlite3_close_v2(m_handle);
}

void Database::exec(const char *sql)
{
    if (m_error)
        return;
    const int result = sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK)
        fail(result);
}

Statement Database::statement(const char *sql)
{
    const QByteArray text(sql);
    sqlite3_stmt *cached = m_statements.value(text);
    if (cached && !m_inUse.contains(cached)) {
        sqlite3_reset(cached);
        sqlite3_clear_bindings(cached);
        return Statement(*this, cached, true);
    }
    sqlite3_stmt *prepared = nullptr;
    if (!m_error) {
        const int result =
            sqlite3_prepare_v3(m_handle, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
        if (result != SQLITE_OK) {
            fail(result);
            sqlite3_finalize(prepared);
            prepared = nullptr;
        }
    }
    if (prepared && !cached)
        m_statements.insert(text, prepared);
    return Statement(*this, prepared, !cached);
}

std::optional<Error> Database::transaction(const std::function<void()> &work)
{
    exec("BEGIN IMMEDIATE");
    if (m_error)
        return takeError();
    work();
    if (!m_error)
        exec("COMMIT");
    if (m_error) {
        // A failed COMMIT may leave the transaction open (SQLITE_BUSY, a full disk).
        if (!sqlite3_get_autocommit(m_handle))
            sqlite3_exec(m_handle, "ROLLBACK", nullptr, nullptr, nullptr);
        return takeError();
    }
    return std::nullopt;
}

bool Database::isReadOnly() const
{
    return sqlite3_db_readonly(m_handle, "main") == 1;
}

qint64 Database::lastInsertId() const
{
    return sqlite3_last_insert_rowid(m_handle);
}

int Database::changes() const
{
    return sqlite3_changes(m_handle);
}

void Database::setBusyTimeout(int milliseconds)
{
    sqlite3_busy_timeout(m_handle, milliseconds);
}

std::optional<Error> Database::takeError()
{
    std::optional<Error> error = std::move(m_error);
    m_error.reset();
    // Statements left in the middle of their rows would hold the read lock.
    for (sqlite3_stmt *statement : std::as_const(m_statements))
        sqlite3_reset(statement);
    return error;
}

void Database::fail(int code)
{
    if (m_error)
        return;
    const QString message = QString::fromUtf8(sqlite3_errmsg(m_handle));
    const QString meaning = QString::fromUtf8(sqlite3_errstr(sqlite3_extended_errcode(m_handle)));
    m_error = Error{code & 0xff, message == meaning ? message : u"%1 (%2)"_s.arg(message, meaning)};
}

namespace {

void containsFunction(sqlite3_context *context, int, sqlite3_value **values)
{
    const auto textOf = [](sqlite3_value *value) {
        const auto *bytes = reinterpret_cast<const char *>(sqlite3_value_text(value));
        return QString::fromUtf8(bytes, sqlite3_value_bytes(value));
    };
    if (sqlite3_value_type(values[0]) == SQLITE_NULL) {
        sqlite3_result_int(context, 0);
        return;
    }
    sqlite3_result_int(context,
                       textOf(values[0]).contains(textOf(values[1]), Qt::CaseInsensitive) ? 1 : 0);
}

} // namespace

void Database::addContainsFunction()
{
    const int result = sqlite3_create_function_v2(
        m_handle, "quillvane_contains", 2, SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS,
        nullptr, &containsFunction, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK)
        fail(result);
}

} // namespace Sqlite
