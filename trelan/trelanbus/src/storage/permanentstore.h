#pragma once

#include "values/objectrecord.h"
#include "values/storedmessage.h"

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <memory>

struct sqlite3;
struct sqlite3_stmt;

namespace bus
{

/// \brief The permanent objects and the stored messages in a folder on disk, one SQLite database.
///
/// What a function reports as done is on disk and outlives a crash of the process or the machine.
/// The database belongs to one server at a time and is checked when it is opened. A database that
/// is refused is left as it was.
///
/// Every method blocks for as long as the disk takes. One thread at a time.
class PermanentStore
{
public:
    /// Objects and messages to keep and to drop, all or nothing.
    struct Change
    {
        QVector<ObjectRecord> puts;
        QStringList removes;
        QVector<StoredMessage> messages;
        QVector<qint64> settledMessages; ///< to drop, by id
    };

    PermanentStore();
    ~PermanentStore();
    Q_DISABLE_COPY(PermanentStore)

    /// Opens or makes the database in \a folder. False if the database is in use, damaged, of
    /// another kind or not accessible; errorString() names the path and the reason.
    bool open(const QString &folder);
    void close();

    /// Reads everything. False if the database is found to be damaged.
    bool load(QVector<ObjectRecord> &records, QVector<StoredMessage> &messages);

    /// Makes all \a changes, in order, with one wait for the disk: all or nothing.
    bool apply(const QVector<Change> &changes);

    QString errorString() const;

private:
    struct CloseDatabase
    {
        void operator()(sqlite3 *database) const;
    };
    struct Finalize
    {
        void operator()(sqlite3_stmt *statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;
    struct Statements;

    bool prepareFolder(const QString &folder);
    bool prepareDatabase();
    void readAhead();
    void keepLogOnClose(bool keep);
    bool checkLog();
    bool checkKind();
    bool checkIntegrity();
    bool useLog();
    bool execute(const char *sql);
    bool number(const char *sql, qint64 &value);
    Statement prepare(const char *sql);
    bool loadObjects(QVector<ObjectRecord> &records);
    bool loadMessages(QVector<StoredMessage> &messages);
    bool upgrade();
    bool put(sqlite3_stmt *statement, const ObjectRecord &record);
    bool put(sqlite3_stmt *statement, const StoredMessage &stored);
    bool remove(sqlite3_stmt *statement, const QString &name);
    bool remove(sqlite3_stmt *statement, qint64 id);
    bool prepareStatements();
    bool applyOne(const Change &change);
    bool step(sqlite3_stmt *statement);
    bool readRow(sqlite3_stmt *statement, ObjectRecord &record);
    bool readRow(sqlite3_stmt *statement, StoredMessage &stored);
    bool fail(const QString &reason);
    bool failAndRollBack();
    bool failDatabase();

    std::unique_ptr<sqlite3, CloseDatabase> _database;
    std::unique_ptr<Statements> _statements; // of the database, so that they have to end before it
    QString _path;
    QString _errorString;
};

} // namespace bus
