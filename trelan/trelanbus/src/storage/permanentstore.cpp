#include "storage/permanentstore.h"

#include "storage/datafolder.h"
#include "values/buslog.h"
#include "values/busnames.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QtEndian>

#include <nettle/sha1.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <initializer_list>
#include <utility>

namespace bus
{

namespace
{

const QString FILE_NAME = QStringLiteral("trelan.db");
const QString LOG_SUFFIX = QStringLiteral("-wal");
constexpr int LOG_HEADER_SIZE = 32;
constexpr quint32 LOG_MAGIC = 0x377f0682;
constexpr int BUSY_TIMEOUT_MS = 500; // a server that is about to end may still hold the database
constexpr int READ_AHEAD_BYTES = 1024 * 1024;
constexpr qint64 APPLICATION_ID = 0x5472656c;
constexpr qint64 SCHEMA_VERSION = 2;
constexpr qint64 SCHEMA_WITHOUT_MESSAGES = 1;

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
constexpr char UPGRADE_SQL[] = "CREATE TABLE messages("
                               " id INTEGER NOT NULL PRIMARY KEY,"
                               " sender TEXT NOT NULL,"
                               " reciever TEXT NOT NULL,"
                               " uid TEXT NOT NULL,"
                               " time INTEGER NOT NULL,"
                               " options INTEGER NOT NULL,"
                               " text TEXT NOT NULL,"
                               " queued INTEGER NOT NULL,"
                               " digest BLOB NOT NULL);"
                               "PRAGMA user_version = 2;";
static_assert(APPLICATION_ID == 1416783212, "as in the schema");
// While everything is looked at, the names of 100,000 objects fit into memory. SQLite's default of
// 2,000 KiB is enough for what comes afterwards.
constexpr char LOADING_CACHE_SQL[] = "PRAGMA cache_size = -8192";
constexpr char CACHE_SQL[] = "PRAGMA cache_size = -2000";
constexpr char LOAD_SQL[] =
    "SELECT name, publisher, time, uid, options, content, digest FROM objects";
// A row that is changed in place leaves the index as it is, and takes fewer pages to be written
// than one that is replaced.
constexpr char PUT_SQL[] = "INSERT INTO objects VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)"
                           " ON CONFLICT(name) DO UPDATE SET publisher = ?2, time = ?3, uid = ?4,"
                           " options = ?5, content = ?6, digest = ?7";
constexpr char REMOVE_SQL[] = "DELETE FROM objects WHERE name = ?1";
constexpr char LOAD_MESSAGES_SQL[] = "SELECT id, sender, reciever, uid, time, options, text, "
                                     "queued, digest FROM messages ORDER BY id";
constexpr char PUT_MESSAGE_SQL[] =
    "INSERT INTO messages VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)";
constexpr char REMOVE_MESSAGE_SQL[] = "DELETE FROM messages WHERE id = ?1";

enum Column { Name, Publisher, Time, Uid, Options, Content, Digest };

/// Columns of the messages.
namespace msg
{
enum Column { Id, Sender, Reciever, Uid, Time, Options, Text, Queued, Digest };
}

void bindNumber(sqlite3_stmt *statement, int column, qint64 value)
{
    sqlite3_bind_int64(statement, column + 1, value);
}

void bindText(sqlite3_stmt *statement, int column, const QByteArray &text)
{
    sqlite3_bind_text64(statement, column + 1, text.constData(), sqlite3_uint64(text.size()),
                        SQLITE_TRANSIENT, SQLITE_UTF8);
}

void bindBytes(sqlite3_stmt *statement, int column, const QByteArray &bytes)
{
    sqlite3_bind_blob(statement, column + 1, bytes.constData(), bytes.size(), SQLITE_TRANSIENT);
}

/// A sum over what a row holds, since the database has no sums of its own.
QByteArray digestOf(std::initializer_list<QByteArray> texts, std::initializer_list<qint64> numbers)
{
    sha1_ctx sum {};
    sha1_init(&sum);
    const auto addBytes = [&sum](const char *bytes, int size) {
        sha1_update(&sum, size_t(size), reinterpret_cast<const uint8_t *>(bytes));
    };
    const auto addNumber = [&addBytes](qint64 number) {
        std::array<char, 20> digits {};
        const auto written = std::to_chars(digits.begin(), digits.end(), number);
        addBytes(digits.data(), int(written.ptr - digits.data()));
    };
    for (const QByteArray &text : texts) {
        addNumber(text.size());
        addBytes(":", 1);
        addBytes(text.constData(), text.size());
    }
    int separator = 0; // of no bytes in front of the first number
    for (const qint64 number : numbers) {
        addBytes(":", std::exchange(separator, 1));
        addNumber(number);
    }
    QByteArray digest(SHA1_DIGEST_SIZE, Qt::Uninitialized);
    sha1_digest(&sum, SHA1_DIGEST_SIZE, reinterpret_cast<uint8_t *>(digest.data()));
    return digest;
}

/// The bytes of a column as they are stored, whether they are valid text or not.
QByteArray columnBytes(sqlite3_stmt *statement, int column)
{
    const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement, column));
    return {bytes, sqlite3_column_bytes(statement, column)};
}

QString columnText(sqlite3_stmt *statement, int column)
{
    return QString::fromUtf8(columnBytes(statement, column));
}

/// Keeps any text of a client exactly. JSON escapes what UTF-8 has no form for (half a surrogate
/// pair) and what readers of UTF-8 stop at (a NUL).
QByteArray exactBytes(const QString &text)
{
    return QJsonDocument(QJsonArray {text}).toJson(QJsonDocument::Compact);
}

QString exactText(const QByteArray &bytes)
{
    // Nearly all texts have nothing escaped. They stand as they are between [" and "].
    constexpr int BRACKET = 2;
    if (!bytes.contains('\\'))
        return QString::fromUtf8(bytes.mid(BRACKET, bytes.size() - 2 * BRACKET));
    return QJsonDocument::fromJson(bytes).array().first().toString();
}

/// The reason that the operating system gave, in brackets; empty if there is none.
QString systemReason(sqlite3 *database)
{
    const int number = database ? sqlite3_system_errno(database) : 0;
    return number == 0 ? QString() : QStringLiteral(" (%1)").arg(qt_error_string(number));
}

/// Whether \a header begins a write-ahead log: the magic number and the sums over the bytes before
/// them have to be those of SQLite's file format.
bool isLogHeader(const QByteArray &header)
{
    if (header.size() < LOG_HEADER_SIZE)
        return true; // it was cut off while it was made, and nothing stands behind it
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

/// The statements of a transaction. To prepare them takes longer than to carry them out.
struct PermanentStore::Statements
{
    Statement begin;
    Statement commit;
    Statement putObject;
    Statement removeObject;
    Statement putMessage;
    Statement removeMessage;
};

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
    // One thread at a time uses the store, so that SQLite needs no locks of its own.
    const int status =
        sqlite3_open_v2(QFile::encodeName(_path).constData(), &database,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    _database.reset(database);
    const bool opened = status == SQLITE_OK ? prepareDatabase() : failDatabase();
    if (!opened)
        _database.reset();
    return opened;
}

void PermanentStore::close()
{
    _statements.reset();
    _database.reset();
    _errorString.clear();
}

bool PermanentStore::load(QVector<ObjectRecord> &records, QVector<StoredMessage> &messages)
{
    if (!loadObjects(records) || !upgrade() || !loadMessages(messages) || !execute(CACHE_SQL))
        return false;
    sqlite3_db_release_memory(_database.get());
    keepLogOnClose(false);
    return true;
}

bool PermanentStore::loadObjects(QVector<ObjectRecord> &records)
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

bool PermanentStore::loadMessages(QVector<StoredMessage> &messages)
{
    const Statement statement = prepare(LOAD_MESSAGES_SQL);
    if (!statement)
        return false;
    int status = SQLITE_ROW;
    while ((status = sqlite3_step(statement.get())) == SQLITE_ROW) {
        StoredMessage message;
        if (!readRow(statement.get(), message))
            return false;
        messages.append(message);
    }
    return status == SQLITE_DONE || failDatabase();
}

/// Adds what a database of an older version lacks.
bool PermanentStore::upgrade()
{
    qint64 version = 0;
    if (!number("PRAGMA user_version", version))
        return false;
    if (version == SCHEMA_VERSION)
        return true;
    if (!execute("BEGIN IMMEDIATE"))
        return false;
    return (execute(UPGRADE_SQL) && execute("COMMIT")) || failAndRollBack();
}

bool PermanentStore::apply(const QVector<Change> &changes)
{
    if (!_database || !prepareStatements())
        return false;
    // An immediate transaction shows a missing lock before anything is written.
    if (!step(_statements->begin.get()))
        return false;
    const bool done = std::all_of(changes.cbegin(), changes.cend(),
                                  [this](const Change &change) { return applyOne(change); });
    return (done && step(_statements->commit.get())) || failAndRollBack();
}

bool PermanentStore::failAndRollBack()
{
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
    const QString fault = datafolder::prepare(dir.absolutePath(), FILE_NAME);
    if (!fault.isEmpty())
        return fail(fault);
    const QFileInfo file(_path);
    const QFileInfo log(_path + LOG_SUFFIX);
    const bool isEmpty = !file.exists() || file.size() == 0;
    if (isEmpty && log.size() > 0) {
        // The log is made after the database: the database was lost, and opening it would delete
        // the log, too.
        return fail(QStringLiteral("the database is damaged: it is lost or empty, but its log %1 "
                                   "is there")
                        .arg(log.fileName()));
    }
    if (file.exists() && isEmpty) {
        // Either a server ended before it wrote anything, or everything in it is lost, which must
        // not go unnoticed.
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("%1 is empty; no permanent objects are there").arg(_path);
    }
    datafolder::makeFile(_path);
    return true;
}

bool PermanentStore::prepareDatabase()
{
    sqlite3_busy_timeout(_database.get(), BUSY_TIMEOUT_MS);
    sqlite3_extended_result_codes(_database.get(), 1);
    // A database that is refused here or by load() stays as it is to the byte, its log included.
    keepLogOnClose(true);
    // The lock is exclusive before anything is read, so that no other server gets in. It also keeps
    // the index of the log in memory, where it cannot be left behind damaged.
    if (!execute("PRAGMA locking_mode = EXCLUSIVE") || !execute("BEGIN IMMEDIATE") || !checkLog())
        return false;
    readAhead();
    return checkKind() && execute(LOADING_CACHE_SQL) && checkIntegrity() && execute("COMMIT") &&
           useLog();
}

/// Reads the file once from beginning to end, so that the system has it in memory: what follows
/// takes its pages in any order, which is slow from a disk. SQLite's own descriptor is used, since
/// closing another one of this file would drop the lock. A fault is left to the checks, which read
/// everything again.
void PermanentStore::readAhead()
{
    sqlite3_file *file = nullptr;
    if (sqlite3_file_control(_database.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file) !=
        SQLITE_OK)
        return;
    QByteArray piece(READ_AHEAD_BYTES, Qt::Uninitialized);
    qint64 at = 0;
    while (file->pMethods->xRead(file, piece.data(), piece.size(), at) == SQLITE_OK)
        at += piece.size();
}

void PermanentStore::keepLogOnClose(bool keep)
{
    sqlite3_db_config(_database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, int(keep), nullptr);
}

/// Looks at the beginning of the log, since SQLite takes a log with a damaged beginning for an
/// empty one and overwrites it. A missing end is no damage: a write that was never acknowledged
/// looks so.
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
    // The quick check does not compare the index with the table: a name that only one of them has
    // could neither be replaced nor removed.
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

/// Looks before anything is changed, since the database may belong to another application.
bool PermanentStore::checkKind()
{
    qint64 tables = 0;
    qint64 kind = 0;
    qint64 version = 0;
    if (!number("SELECT count(*) FROM sqlite_master", tables) ||
        !number("PRAGMA application_id", kind) || !number("PRAGMA user_version", version))
        return false;
    if (tables == 0 && kind == 0 && version == 0)
        return execute(SCHEMA_SQL) && execute(UPGRADE_SQL);
    if (kind != APPLICATION_ID)
        return fail(QStringLiteral("the database belongs to another application"));
    if (version != SCHEMA_VERSION && version != SCHEMA_WITHOUT_MESSAGES)
        return fail(QStringLiteral("the database has version %1, and %2 is understood")
                        .arg(version)
                        .arg(SCHEMA_VERSION));
    return true;
}

bool PermanentStore::useLog()
{
    // If the log is not possible, the answer is another mode, and no error.
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
    const QByteArray name = record.head.name.toUtf8();
    const QByteArray publisher = record.head.publisher.toUtf8();
    const qint64 time = record.head.time;
    const QByteArray uid = exactBytes(record.head.uid);
    const int options = int(record.head.options);

    bindText(statement, Name, name);
    bindText(statement, Publisher, publisher);
    bindNumber(statement, Time, time);
    bindText(statement, Uid, uid);
    bindNumber(statement, Options, options);
    bindText(statement, Content, record.contentJson);
    bindBytes(statement, Digest,
              digestOf({name, publisher, uid, record.contentJson}, {time, options}));
    return step(statement);
}

bool PermanentStore::put(sqlite3_stmt *statement, const StoredMessage &stored)
{
    const QByteArray sender = exactBytes(stored.message.sender());
    const QByteArray reciever = exactBytes(stored.message.reciever());
    const QByteArray uid = exactBytes(stored.message.uid());
    const qint64 time = stored.message.timestamp().toMSecsSinceEpoch();
    const int options = int(stored.message.options());
    const QByteArray text = exactBytes(stored.message.message());

    bindNumber(statement, msg::Id, stored.id);
    bindText(statement, msg::Sender, sender);
    bindText(statement, msg::Reciever, reciever);
    bindText(statement, msg::Uid, uid);
    bindNumber(statement, msg::Time, time);
    bindNumber(statement, msg::Options, options);
    bindText(statement, msg::Text, text);
    bindNumber(statement, msg::Queued, stored.queuedAt);
    bindBytes(statement, msg::Digest,
              digestOf({sender, reciever, uid, text}, {stored.id, time, options, stored.queuedAt}));
    return step(statement);
}

bool PermanentStore::remove(sqlite3_stmt *statement, const QString &name)
{
    bindText(statement, Name, name.toUtf8());
    return step(statement);
}

bool PermanentStore::remove(sqlite3_stmt *statement, qint64 id)
{
    bindNumber(statement, msg::Id, id);
    return step(statement);
}

bool PermanentStore::prepareStatements()
{
    if (_statements)
        return true;
    auto made = std::make_unique<Statements>(
        Statements {prepare("BEGIN IMMEDIATE"), prepare("COMMIT"), prepare(PUT_SQL),
                    prepare(REMOVE_SQL), prepare(PUT_MESSAGE_SQL), prepare(REMOVE_MESSAGE_SQL)});
    if (!made->begin || !made->commit || !made->putObject || !made->removeObject ||
        !made->putMessage || !made->removeMessage)
        return false;
    _statements = std::move(made);
    return true;
}

bool PermanentStore::applyOne(const Change &change)
{
    const Statements &statements = *_statements;
    const auto each = [](const auto &values, const auto &apply) {
        return std::all_of(values.cbegin(), values.cend(), apply);
    };
    return each(change.removes,
                [&](const QString &name) { return remove(statements.removeObject.get(), name); }) &&
           each(change.puts,
                [&](const ObjectRecord &record) {
                    return put(statements.putObject.get(), record);
                }) &&
           each(change.messages,
                [&](const StoredMessage &message) {
                    return put(statements.putMessage.get(), message);
                }) &&
           each(change.settledMessages,
                [&](qint64 id) { return remove(statements.removeMessage.get(), id); });
}

bool PermanentStore::step(sqlite3_stmt *statement)
{
    const bool done = sqlite3_step(statement) == SQLITE_DONE || failDatabase();
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement); // the next use may be long after, and a content is large
    return done;
}

/// Compares the sum, since the database's own check does not look into texts.
bool PermanentStore::readRow(sqlite3_stmt *statement, ObjectRecord &record)
{
    const QByteArray name = columnBytes(statement, Name);
    const QByteArray publisher = columnBytes(statement, Publisher);
    const qint64 time = sqlite3_column_int64(statement, Time);
    const QByteArray uid = columnBytes(statement, Uid);
    const int options = sqlite3_column_int(statement, Options);
    const QByteArray content = columnBytes(statement, Content);
    if (digestOf({name, publisher, uid, content}, {time, options}) !=
        columnBytes(statement, Digest)) {
        return fail(
            QStringLiteral("the database is damaged: the object %1 is not as it was written")
                .arg(names::quoted(QString::fromUtf8(name))));
    }
    record.head.name = QString::fromUtf8(name);
    record.head.publisher = QString::fromUtf8(publisher);
    record.head.time = time;
    record.head.uid = exactText(uid);
    record.head.options = TrelanObject::Options(QFlag(options));
    record.contentJson = content;
    return true;
}

bool PermanentStore::readRow(sqlite3_stmt *statement, StoredMessage &stored)
{
    stored.id = sqlite3_column_int64(statement, msg::Id);
    const QByteArray sender = columnBytes(statement, msg::Sender);
    const QByteArray reciever = columnBytes(statement, msg::Reciever);
    const QByteArray uid = columnBytes(statement, msg::Uid);
    const qint64 time = sqlite3_column_int64(statement, msg::Time);
    const int options = sqlite3_column_int(statement, msg::Options);
    const QByteArray text = columnBytes(statement, msg::Text);
    stored.queuedAt = sqlite3_column_int64(statement, msg::Queued);
    if (digestOf({sender, reciever, uid, text}, {stored.id, time, options, stored.queuedAt}) !=
        columnBytes(statement, msg::Digest)) {
        return fail(
            QStringLiteral("the database is damaged: the message %1 is not as it was written")
                .arg(stored.id));
    }
    stored.message.setSender(exactText(sender));
    stored.message.setReciever(exactText(reciever));
    stored.message.setUid(exactText(uid));
    stored.message.setDt(QDateTime::fromMSecsSinceEpoch(time));
    stored.message.setOptions(TrelanMessage::Options(QFlag(options)));
    stored.message.setMessage(exactText(text));
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
