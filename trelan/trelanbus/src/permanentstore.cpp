#include "permanentstore.h"

#include "busnames.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QLoggingCategory>

#include <sqlite3.h>

namespace bus
{

namespace
{

const QString FILE_NAME = QStringLiteral("trelan.db");
constexpr int BUSY_TIMEOUT_MS = 500; // a server that is just ending may still hold the database
constexpr qint64 APPLICATION_ID = 0x5472656c;
constexpr qint64 SCHEMA_VERSION = 1;

constexpr char SCHEMA_SQL[] = "CREATE TABLE objects("
                              " name TEXT NOT NULL PRIMARY KEY,"
                              " publisher TEXT NOT NULL,"
                              " time INTEGER NOT NULL,"
                              " uid TEXT NOT NULL,"
                              " options INTEGER NOT NULL,"
                              " content TEXT NOT NULL);"
                              "PRAGMA application_id = 1416783212;"
                              "PRAGMA user_version = 1;";
static_assert(APPLICATION_ID == 1416783212, "as in the schema");
constexpr char LOAD_SQL[] = "SELECT name, publisher, time, uid, options, content FROM objects";
constexpr char PUT_SQL[] = "INSERT OR REPLACE INTO objects VALUES(?1, ?2, ?3, ?4, ?5, ?6)";
constexpr char REMOVE_SQL[] = "DELETE FROM objects WHERE name = ?1";

enum Column { Name, Publisher, Time, Uid, Options, Content };

void bindText(sqlite3_stmt *statement, int column, const QByteArray &text)
{
    sqlite3_bind_text64(statement, column + 1, text.constData(), sqlite3_uint64(text.size()),
                        SQLITE_TRANSIENT, SQLITE_UTF8);
}

QByteArray columnBytes(sqlite3_stmt *statement, int column)
{
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return {text, sqlite3_column_bytes(statement, column)};
}

QString columnText(sqlite3_stmt *statement, int column)
{
    return QString::fromUtf8(columnBytes(statement, column));
}

} // namespace

PermanentStore::PermanentStore() = default;
PermanentStore::~PermanentStore() = default;

void PermanentStore::CloseDatabase::operator()(sqlite3 *database) const
{
    sqlite3_close_v2(database);
}

void PermanentStore::Finalize::operator()(sqlite3_stmt *statement) const
{
    sqlite3_finalize(statement);
}

bool PermanentStore::open(const QString &folder)
{
    close();
    if (!prepareFolder(folder))
        return false;

    sqlite3 *database = nullptr;
    const int status = sqlite3_open_v2(QFile::encodeName(_path).constData(), &database,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    _database.reset(database);
    const bool opened = status == SQLITE_OK ? prepareDatabase() : failDatabase();
    if (!opened)
        _database.reset();
    return opened;
}

void PermanentStore::close()
{
    _database.reset();
    _errorString.clear();
}

bool PermanentStore::load(QVector<ObjectRecord> &records)
{
    const Statement statement = prepare(LOAD_SQL);
    if (!statement)
        return false;
    int status = SQLITE_ROW;
    while ((status = sqlite3_step(statement.get())) == SQLITE_ROW) {
        ObjectRecord record;
        if (!readRow(statement.get(), record))
            return false;
        records.append(record);
    }
    return status == SQLITE_DONE || failDatabase();
}

bool PermanentStore::apply(const QVector<Change> &changes)
{
    if (!_database)
        return false;
    // Not deferred: a lock that is not to be had shows before anything is written.
    if (!execute("BEGIN IMMEDIATE"))
        return false;
    if (applyInTransaction(changes) && execute("COMMIT"))
        return true;
    const QString reason = _errorString;
    if (sqlite3_get_autocommit(_database.get()) == 0)
        execute("ROLLBACK");
    _errorString = reason;
    return false;
}

QString PermanentStore::errorString() const
{
    return _errorString;
}

bool PermanentStore::prepareFolder(const QString &folder)
{
    const QDir dir(folder);
    _path = dir.absoluteFilePath(FILE_NAME);
    if (!dir.exists() && !QDir().mkpath(dir.absolutePath()))
        return fail(QStringLiteral("the folder cannot be made"));
    const QFileInfo file(_path);
    if (file.exists() && file.size() == 0) {
        // Made by a server that ended before it wrote anything; or else everything in it is lost,
        // which must not go unnoticed.
        qWarning().noquote()
            << QStringLiteral("%1 is empty; no permanent objects are there").arg(_path);
    }
    return true;
}

bool PermanentStore::prepareDatabase()
{
    sqlite3_busy_timeout(_database.get(), BUSY_TIMEOUT_MS);
    sqlite3_extended_result_codes(_database.get(), 1);
    // Exclusive before anything is read: from then on no other server gets in. With it the index
    // of the log is in memory, so that a damaged one cannot be left behind.
    return execute("PRAGMA locking_mode = EXCLUSIVE") && checkIntegrity() &&
           execute("PRAGMA journal_mode = WAL") && execute("PRAGMA synchronous = FULL") &&
           execute("BEGIN IMMEDIATE") && checkKind() && execute("COMMIT");
}

bool PermanentStore::checkIntegrity()
{
    const Statement statement = prepare("PRAGMA quick_check(1)");
    if (!statement)
        return false;
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
        return failDatabase();
    const QString verdict = columnText(statement.get(), 0);
    if (verdict == QLatin1String("ok"))
        return true;
    return fail(QStringLiteral("the database is damaged: %1").arg(verdict));
}

bool PermanentStore::checkKind()
{
    qint64 tables = 0;
    qint64 kind = 0;
    qint64 version = 0;
    if (!number("SELECT count(*) FROM sqlite_master", tables) ||
        !number("PRAGMA application_id", kind) || !number("PRAGMA user_version", version))
        return false;
    if (tables == 0 && kind == 0)
        return execute(SCHEMA_SQL);
    if (kind != APPLICATION_ID)
        return fail(QStringLiteral("the database belongs to another application"));
    if (version != SCHEMA_VERSION)
        return fail(QStringLiteral("the database has version %1, and %2 is understood")
                        .arg(version)
                        .arg(SCHEMA_VERSION));
    return true;
}

bool PermanentStore::execute(const char *sql)
{
    return sqlite3_exec(_database.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK ||
           failDatabase();
}

bool PermanentStore::number(const char *sql, qint64 &value)
{
    const Statement statement = prepare(sql);
    if (!statement)
        return false;
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
        return failDatabase();
    value = sqlite3_column_int64(statement.get(), 0);
    return true;
}

PermanentStore::Statement PermanentStore::prepare(const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(_database.get(), sql, -1, &statement, nullptr) != SQLITE_OK)
        failDatabase();
    return Statement(statement);
}

bool PermanentStore::put(sqlite3_stmt *statement, const ObjectRecord &record)
{
    bindText(statement, Name, record.head.name().toUtf8());
    bindText(statement, Publisher, record.head.publisher().toUtf8());
    sqlite3_bind_int64(statement, Time + 1, record.head.dt().toMSecsSinceEpoch());
    bindText(statement, Uid, record.head.uid().toUtf8());
    sqlite3_bind_int(statement, Options + 1, int(record.head.options()));
    bindText(statement, Content, record.contentJson);
    return step(statement);
}

bool PermanentStore::remove(sqlite3_stmt *statement, const QString &name)
{
    bindText(statement, Name, name.toUtf8());
    return step(statement);
}

bool PermanentStore::applyInTransaction(const QVector<Change> &changes)
{
    const Statement putStatement = prepare(PUT_SQL);
    const Statement removeStatement = prepare(REMOVE_SQL);
    if (!putStatement || !removeStatement)
        return false;
    for (const Change &change : changes) {
        for (const QString &name : change.removes) {
            if (!remove(removeStatement.get(), name))
                return false;
        }
        for (const ObjectRecord &record : change.puts) {
            if (!put(putStatement.get(), record))
                return false;
        }
    }
    return true;
}

bool PermanentStore::step(sqlite3_stmt *statement)
{
    if (sqlite3_step(statement) != SQLITE_DONE)
        return failDatabase();
    sqlite3_reset(statement);
    return true;
}

/// The database's own check does not look into texts.
bool PermanentStore::readRow(sqlite3_stmt *statement, ObjectRecord &record)
{
    record.head.setName(columnText(statement, Name));
    record.head.setPublisher(columnText(statement, Publisher));
    record.head.setDt(QDateTime::fromMSecsSinceEpoch(sqlite3_column_int64(statement, Time)));
    record.head.setUid(columnText(statement, Uid));
    record.head.setOptions(TrelanObject::Options(QFlag(sqlite3_column_int(statement, Options))));
    record.contentJson = columnBytes(statement, Content);
    if (!names::objectNameFault(record.head.name()).isEmpty() ||
        !QJsonDocument::fromJson(record.contentJson).isObject()) {
        return fail(QStringLiteral("the database is damaged: the object %1 cannot be read")
                        .arg(names::quoted(record.head.name())));
    }
    return true;
}

bool PermanentStore::fail(const QString &reason)
{
    _errorString = QStringLiteral("%1: %2").arg(_path, reason);
    return false;
}

bool PermanentStore::failDatabase()
{
    sqlite3 *database = _database.get();
    switch (sqlite3_errcode(database) & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return fail(QStringLiteral("the database is in use by another server"));
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
        return fail(QStringLiteral("the database is damaged: %1")
                        .arg(QString::fromUtf8(sqlite3_errmsg(database))));
    default:
        return fail(QString::fromUtf8(sqlite3_errmsg(database)));
    }
}

} // namespace bus
