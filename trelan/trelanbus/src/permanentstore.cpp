#include "permanentstore.h"

#include "buslog.h"
#include "busnames.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QtEndian>

#include <sqlite3.h>

namespace bus
{

namespace
{

const QString FILE_NAME = QStringLiteral("trelan.db");
const QString LOG_SUFFIX = QStringLiteral("-wal");
constexpr int LOG_HEADER_SIZE = 32;
constexpr quint32 LOG_MAGIC = 0x377f0682;
constexpr int BUSY_TIMEOUT_MS = 500; // a server that is just ending may still hold the database
constexpr qint64 APPLICATION_ID = 0x5472656c;
constexpr qint64 SCHEMA_VERSION = 1;

constexpr char SCHEMA_SQL[] = "CREATE TABLE objects("
                              " name TEXT NOT NULL PRIMARY KEY,"
                              " publisher TEXT NOT NULL,"
                              " time INTEGER NOT NULL,"
                              " uid TEXT NOT NULL,"
                              " options INTEGER NOT NULL,"
                              " content TEXT NOT NULL,"
                              " digest BLOB NOT NULL);"
                              "PRAGMA application_id = 1416783212;"
                              "PRAGMA user_version = 1;";
static_assert(APPLICATION_ID == 1416783212, "as in the schema");
constexpr char LOAD_SQL[] =
    "SELECT name, publisher, time, uid, options, content, digest FROM objects";
constexpr char PUT_SQL[] = "INSERT OR REPLACE INTO objects VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)";
constexpr char REMOVE_SQL[] = "DELETE FROM objects WHERE name = ?1";

enum Column { Name, Publisher, Time, Uid, Options, Content, Digest };

void bindText(sqlite3_stmt *statement, int column, const QByteArray &text)
{
    sqlite3_bind_text64(statement, column + 1, text.constData(), sqlite3_uint64(text.size()),
                        SQLITE_TRANSIENT, SQLITE_UTF8);
}

/// As it is stored: what is no valid text comes as it is.
QByteArray columnBytes(sqlite3_stmt *statement, int column)
{
    const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement, column));
    return {bytes, sqlite3_column_bytes(statement, column)};
}

QString columnText(sqlite3_stmt *statement, int column)
{
    return QString::fromUtf8(columnBytes(statement, column));
}

/// A text of the client's choice, exactly. JSON escapes what UTF-8 has no form for (half a
/// surrogate pair) and what readers of UTF-8 stop at (a NUL).
QByteArray exactBytes(const QString &text)
{
    return QJsonDocument(QJsonArray {text}).toJson(QJsonDocument::Compact);
}

QString exactText(const QByteArray &bytes)
{
    return QJsonDocument::fromJson(bytes).array().first().toString();
}

/// What the operating system said to it, in brackets; empty if it was not asked.
QString systemReason(sqlite3 *database)
{
    const int number = database ? sqlite3_system_errno(database) : 0;
    return number == 0 ? QString() : QStringLiteral(" (%1)").arg(qt_error_string(number));
}

/// Whether \a header begins a write-ahead log: the magic, and the sums over what is before them,
/// as the format of SQLite's files defines them.
bool isLogHeader(const QByteArray &header)
{
    if (header.size() < LOG_HEADER_SIZE)
        return true; // cut off while it was made; nothing can stand behind it
    const auto word = [&header](int index) {
        return qFromBigEndian<quint32>(header.constData() + 4 * index);
    };
    const bool bigEndianSums = word(0) == LOG_MAGIC + 1;
    if (word(0) != LOG_MAGIC && !bigEndianSums)
        return false;
    const auto summand = [&](int index) {
        return bigEndianSums ? word(index) : qbswap(word(index));
    };
    quint32 first = 0;
    quint32 second = 0;
    for (int index = 0; index < 6; index += 2) {
        first += summand(index) + second;
        second += summand(index + 1) + first;
    }
    return word(6) == first && word(7) == second;
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

/// What a row holds, with the digest over it: the database has no checksums of its own.
struct PermanentStore::Row
{
    QByteArray name;
    QByteArray publisher;
    qint64 time = 0;
    QByteArray uid;
    int options = 0;
    QByteArray content;

    QByteArray digest() const
    {
        QCryptographicHash hash(QCryptographicHash::Sha1);
        for (const QByteArray &text : {name, publisher, uid, content}) {
            hash.addData(QByteArray::number(text.size()) + ':');
            hash.addData(text);
        }
        hash.addData(QByteArray::number(time) + ':' + QByteArray::number(options));
        return hash.result();
    }
};

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
    if (status != SQLITE_DONE)
        return failDatabase();
    keepLogOnClose(false);
    return true;
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
    const QFileInfo log(_path + LOG_SUFFIX);
    const bool isEmpty = !file.exists() || file.size() == 0;
    if (isEmpty && log.size() > 0) {
        // The log is written after the database: it was lost, and opening would delete the log too.
        return fail(QStringLiteral("the database is damaged: it is lost or empty, but its log %1 "
                                   "is there")
                        .arg(log.fileName()));
    }
    if (file.exists() && isEmpty) {
        // Made by a server that ended before it wrote anything; or else everything in it is lost,
        // which must not go unnoticed.
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("%1 is empty; no permanent objects are there").arg(_path);
    }
    return true;
}

bool PermanentStore::prepareDatabase()
{
    sqlite3_busy_timeout(_database.get(), BUSY_TIMEOUT_MS);
    sqlite3_extended_result_codes(_database.get(), 1);
    // A database that is refused, now or by load(), stays as it is to the byte, its log included.
    keepLogOnClose(true);
    // Exclusive before anything is read: from then on no other server gets in. With it the index
    // of the log is in memory, so that a damaged one cannot be left behind.
    return execute("PRAGMA locking_mode = EXCLUSIVE") && execute("BEGIN IMMEDIATE") && checkLog() &&
           checkKind() && checkIntegrity() && execute("COMMIT") && useLog();
}

void PermanentStore::keepLogOnClose(bool keep)
{
    sqlite3_db_config(_database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, int(keep), nullptr);
}

/// A log that begins with anything else is taken for an empty one, and written over, by SQLite.
/// What its end misses is not looked for: that is how a write looks that was never acknowledged.
bool PermanentStore::checkLog()
{
    QFile log(_path + LOG_SUFFIX);
    if (!log.exists() || log.size() == 0)
        return true;
    if (!log.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("its log cannot be read: %1").arg(log.errorString()));
    if (isLogHeader(log.read(LOG_HEADER_SIZE)))
        return true;
    return fail(QStringLiteral("the log of the database is damaged"));
}

bool PermanentStore::checkIntegrity()
{
    // The quick check would not compare the index with the table: a name that only one of them
    // knows could neither be replaced nor removed.
    const Statement statement = prepare("PRAGMA integrity_check(1)");
    if (!statement)
        return false;
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
        return failDatabase();
    const QString verdict = columnText(statement.get(), 0);
    if (verdict == QLatin1String("ok"))
        return true;
    return fail(QStringLiteral("the database is damaged: %1").arg(verdict));
}

/// Before anything is changed: the database may be somebody else's.
bool PermanentStore::checkKind()
{
    qint64 tables = 0;
    qint64 kind = 0;
    qint64 version = 0;
    if (!number("SELECT count(*) FROM sqlite_master", tables) ||
        !number("PRAGMA application_id", kind) || !number("PRAGMA user_version", version))
        return false;
    if (tables == 0 && kind == 0 && version == 0)
        return execute(SCHEMA_SQL);
    if (kind != APPLICATION_ID)
        return fail(QStringLiteral("the database belongs to another application"));
    if (version != SCHEMA_VERSION)
        return fail(QStringLiteral("the database has version %1, and %2 is understood")
                        .arg(version)
                        .arg(SCHEMA_VERSION));
    return true;
}

bool PermanentStore::useLog()
{
    // Where it cannot be had, the answer is the mode that stays, and no error.
    const Statement statement = prepare("PRAGMA journal_mode = WAL");
    if (!statement)
        return false;
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
        return failDatabase();
    if (columnText(statement.get(), 0) != QLatin1String("wal"))
        return fail(QStringLiteral("the folder does not support a write-ahead log"));
    return execute("PRAGMA synchronous = FULL");
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
    Row row;
    row.name = record.head.name().toUtf8();
    row.publisher = record.head.publisher().toUtf8();
    row.time = record.head.dt().toMSecsSinceEpoch();
    row.uid = exactBytes(record.head.uid());
    row.options = int(record.head.options());
    row.content = record.contentJson;
    const QByteArray digest = row.digest();

    bindText(statement, Name, row.name);
    bindText(statement, Publisher, row.publisher);
    sqlite3_bind_int64(statement, Time + 1, row.time);
    bindText(statement, Uid, row.uid);
    sqlite3_bind_int(statement, Options + 1, row.options);
    bindText(statement, Content, row.content);
    sqlite3_bind_blob(statement, Digest + 1, digest.constData(), digest.size(), SQLITE_TRANSIENT);
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
    Row row;
    row.name = columnBytes(statement, Name);
    row.publisher = columnBytes(statement, Publisher);
    row.time = sqlite3_column_int64(statement, Time);
    row.uid = columnBytes(statement, Uid);
    row.options = sqlite3_column_int(statement, Options);
    row.content = columnBytes(statement, Content);
    if (row.digest() != columnBytes(statement, Digest)) {
        return fail(
            QStringLiteral("the database is damaged: the object %1 is not as it was written")
                .arg(names::quoted(QString::fromUtf8(row.name))));
    }
    record.head.setName(QString::fromUtf8(row.name));
    record.head.setPublisher(QString::fromUtf8(row.publisher));
    record.head.setDt(QDateTime::fromMSecsSinceEpoch(row.time));
    record.head.setUid(exactText(row.uid));
    record.head.setOptions(TrelanObject::Options(QFlag(row.options)));
    record.contentJson = row.content;
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
        return fail(QString::fromUtf8(sqlite3_errmsg(database)) + systemReason(database));
    }
}

} // namespace bus
