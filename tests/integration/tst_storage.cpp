#include <filelimit.h>
#include <logcapture.h>
#include <testtable.h>
#include <trelanbus.h>
#include <trelanqueryhandler.h>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

using namespace bus;

static TrelanObject object(const QString &name, const QVariant &value, bool permanent = true)
{
    TrelanObject object;
    object.setName(name);
    object.setContent({{"value", value}});
    object.setPermanent(permanent);
    return object;
}

static TrelanMessage letter(const QString &text)
{
    TrelanMessage message;
    message.setReciever("absent");
    message.setStored(true);
    message.setMessage(text);
    return message;
}

static int load(TrelanQueryHandler &client, const QString &name)
{
    TrelanObject object;
    client.loadObject(name, object);
    return object.content().value("value").toInt();
}

class tst_Storage : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        init();
        TrelanQueryHandler client("maker");
        QVERIFY(start() && client.open() && client.publish(object("a.b", "needle")));
        QVERIFY(client.sendMessage(letter("needless")));
        _live = read("trelan.db");
        _log = read("trelan.db-wal");
        _bus.stop();
        _clean = read("trelan.db");
    }

    void init()
    {
        limitFiles(RLIM_INFINITY);
        _dir = std::make_unique<QTemporaryDir>();
        _settings = TrelanBusSettings();
        _settings.setQueryPort(0);
        _settings.setMsgPort(0);
        _settings.setDataFolder(_dir->path());
        _settings.setRequireStorage(true);
    }

    /// Ends the bus: its thread must not log while the program, and the log with it, ends.
    void cleanup() { _bus.stop(); }

    void restartBringsBack_data()
    {
        const TestTable<TrelanObject> row("published");
        TrelanObject odd = object("\u0436.\U0001F600", QString("a") + QChar(0) + QChar(0xd800));
        odd.setUid(QString("u") + QChar(0) + "id" + QChar(0xdfff));
        odd.setDt(QDateTime::fromMSecsSinceEpoch(-1));
        odd.setOptions(TrelanObject::Options(QFlag(0x40000006)));
        row("odd text, old time, unknown flags", odd);
        row("kinds", object("kinds", QVariantList {true, 1.5, 9007199254740992LL}));
        row("large", object("large", QString(5000000, 'x')));
    }

    void restartBringsBack()
    {
        QFETCH(TrelanObject, published);
        TrelanQueryHandler client("client");
        QVERIFY(start() && client.open() && client.publish(published));
        TrelanObject passing = object(published.name(), "only passed on", false);
        passing.setStored(false);
        QVERIFY(client.publish(passing) && start());
        client.close();
        TrelanObject found;
        QVERIFY(client.open() && client.loadObject(published.name(), found));
        published.setPublisher("client");
        if (published.uid().isEmpty())
            published.setUid(found.uid());
        QCOMPARE(found.toVariantMap(), published.toVariantMap());
    }

    void unusableFolder_data()
    {
        const TestTable<QByteArray, QByteArray, QString> add("database", "log", "reason");
        const auto row = [&add](const char *name, const QByteArray &from, int at, const char *bytes,
                                const char *reason, const QByteArray &log = {}) {
            QByteArray database = from;
            add(name, database.replace(at, int(qstrlen(bytes)), bytes), log, reason);
        };
        row("rubbish", QByteArray(5000, 'x'), 0, "y", "damaged");
        row("cut off", _clean.left(_clean.size() / 2), 0, "S", "damaged");
        row("page", _clean, 4096, "y", "damaged");
        row("index", _clean, _clean.lastIndexOf("a.b"), "a.c", "damaged.*index");
        row("content", _clean, _clean.indexOf("needle"), "noodle", "\"a.b\" is not as it was");
        row("message", _clean, _clean.indexOf("needless"), "heedless", "message 1 is not as it");
        row("log", _live, 0, "S", "log.*damaged", QByteArray(_log).replace(9, 9, "scribbles"));
        row("lost", QByteArray(), 0, "", "its log trelan.db-wal", _log);
        row("other application", _clean, 68, "x", "another application");
        row("newer, killed", _live, 63, "\t", "version 9", _log.left(_log.size() - 32));
        row("in use", QByteArray(), 0, "", "in use by another server");
    }

    void unusableFolder()
    {
        QFETCH(QByteArray, database);
        QFETCH(QByteArray, log);
        QFETCH(QString, reason);
        TrelanBus first;
        const bool inUse = database.isEmpty() && log.isEmpty();
        QVERIFY(!inUse || first.start(_settings));
        QFile file(_dir->filePath("trelan.db"));
        QFile logFile(_dir->filePath("trelan.db-wal"));
        if (!inUse) {
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(database) == database.size());
            QVERIFY(logFile.open(QIODevice::WriteOnly) && logFile.write(log) == log.size());
            file.close();
            logFile.close();
        }
        QVERIFY(!start());
        const QString fault = _bus.errorString();
        QVERIFY2(fault.startsWith(file.fileName() + ": "), qPrintable(fault));
        QVERIFY2(fault.contains(QRegularExpression(reason)), qPrintable(fault));

        _settings.setRequireStorage(false);
        TrelanQueryHandler client("client");
        QVERIFY(start() && client.open() && !client.publish(object("a", 1)));
        QCOMPARE(client.lastError().error(), TrelanError::InvalidDataStorage);
        QCOMPARE(client.lastError().description(), fault);
        QVERIFY(client.publish(object("a", 2, false)));
        QCOMPARE(load(client, "a"), 2);
        QVERIFY(client.rmPersistent({"a", "b"}) && !client.sendMessage(letter("you")));
        QCOMPARE(client.lastError().error(), TrelanError::InvalidDataStorage);
        _bus.stop();
        QVERIFY(inUse || (read("trelan.db") == database && read("trelan.db-wal") == log));
    }

    void folderIsClosedToOthers_data()
    {
        const TestTable<QByteArray, QString, int> row("preparation", "fault", "warnings");
        row("made", "", "", 0);
        row("closed", "mkdir -m 700 data", "", 0);
        row("open", "mkdir -m 755 data", "", 1);
        row("open to a group", "mkdir -m 750 data", "", 1);
        row("open files",
            "mkdir -m 755 data; cp trelan.db data; touch data/trelan.db-wal; chmod 644 data/*", "",
            3);
        row("another file in it", "mkdir -m 755 data; touch data/letter",
            "is open to others and holds other files, such as letter", 0);
        row("another file in a closed one", "mkdir -m 700 data; touch data/letter", "", 0);
        row("of another user", "mkdir -m 777 data; chown 12345 data",
            "of user 12345 and with mode 0777, is open to others", 0);
    }

    void folderIsClosedToOthers()
    {
        QFETCH(QByteArray, preparation);
        QFETCH(QString, fault);
        QFETCH(int, warnings);
        if (preparation.contains("chown") && ::geteuid() != 0)
            SKIP_TEST("only root can make folders of others");
        QVERIFY(start());
        _bus.stop();
        QProcess shell;
        shell.setWorkingDirectory(_dir->path());
        shell.start("sh", {"-c", preparation});
        QVERIFY(shell.waitForFinished() && shell.exitCode() == 0);
        _settings.setDataFolder(_dir->filePath("data"));
        LogCapture log;
        const mode_t mask = ::umask(0);
        const bool isRunning = start();
        ::umask(mask);
        const auto rights = [this](const char *path) {
            struct stat status = {};
            ::stat(_dir->filePath(path).toUtf8(), &status);
            return int(status.st_mode & 07777);
        };
        QCOMPARE(isRunning, fault.isEmpty());
        QVERIFY2(_bus.errorString().contains(fault), qPrintable(_bus.errorString()));
        QCOMPARE(log.faults().filter("was open to others and has mode 0").size(), warnings);
        if (isRunning) {
            QCOMPARE(rights("data"), 0700);
            QCOMPARE(rights("data/trelan.db"), 0600);
            QCOMPARE(rights("data/trelan.db-wal"), 0600);
        }
        _bus.stop(); // the log ends here
    }

    void olderDatabase()
    {
        TrelanQueryHandler client("client");
        QVERIFY(start() && client.open() && client.publish(object("a", 1)));
        _bus.stop();
        sqlite3 *database = nullptr;
        sqlite3_open(_dir->filePath("trelan.db").toUtf8(), &database);
        const char *sql = "DROP TABLE messages; PRAGMA user_version = 1;";
        QCOMPARE(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
        QVERIFY(start());
        client.close();
        QVERIFY(client.open() && client.sendMessage(letter("hi")));
        QCOMPARE(load(client, "a"), 1);
    }

    void bounds_data()
    {
        const TestTable<bool, int, QString> row("onDisk", "maxObjects", "which");
        row("objects, disk", true, 2, "2 objects");
        row("bytes, disk", true, 9, "9000 bytes");
        row("bytes, memory", false, 9, "9000 bytes");
    }

    void bounds()
    {
        QFETCH(bool, onDisk);
        QFETCH(int, maxObjects);
        QFETCH(QString, which);
        const LogCapture log;
        _settings.setMaxObjects(maxObjects);
        _settings.setMaxObjectBytes(9000);
        if (!onDisk)
            _settings.setDataFolder({});
        TrelanQueryHandler client("client");
        const QString large(3500, 'x');
        QVERIFY(start() && client.open() && client.publish(object("a", large)));
        QVERIFY(client.publish(object("b", large)) && !client.publish(object("c", large)));
        QCOMPARE(client.lastError().error(), TrelanError::StorageAccessError);
        QVERIFY(client.lastError().description().contains(which));
        QVERIFY(client.publish(object("b", "small")) && client.rmPersistent({"a"}));
        QVERIFY(client.publish(object("c", large)));
        _bus.stop();
        QCOMPARE(log.texts().filter("kept in memory only").size(), onDisk ? 0 : 1);
    }

    void failedWrites()
    {
        // An object that does not fit on the disk spoils none that is written together with it. A
        // value on its way to the disk needs no room beside the value that it replaces.
        constexpr int THREADS = 8;
        _settings.setMaxObjects(THREADS);
        TrelanQueryHandler client("client");
        QVERIFY(start() && client.open() && client.publish(object("a.0", 1)));
        QAtomicInt acknowledged;
        limitFiles(5000000);
        std::vector<std::thread> threads;
        threads.reserve(THREADS);
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([i, &acknowledged] {
                const QString name = QString("a.%1").arg(i);
                TrelanQueryHandler own(name);
                own.open();
                for (int n = 0; n < 15; ++n) {
                    const QVariant value = i == 0 ? QVariant(QString(6000000, 'x')) : QVariant(n);
                    acknowledged += own.publish(object(name, value));
                    if (i == 1)
                        own.rmPersistent({name});
                }
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(int(acknowledged), (THREADS - 1) * 15);
        limitFiles(100);
        QVERIFY(!client.publish(object("a.0", 2)) && !client.publish(object("a.0", 2, false)));
        QVERIFY(!client.publish(object("a.1", 2)) && !client.rmPersistent({"a.0"}));
        QCOMPARE(client.lastError().error(), TrelanError::StorageAccessError);
        QCOMPARE(load(client, "a.0"), 1);
        limitFiles(RLIM_INFINITY);
        QVERIFY(client.publish(object("a.2", 15)) && start());
        client.close();
        QMap<QString, TrelanObject> objects;
        QVERIFY(client.open() && client.loadObjects("*", objects));
        QCOMPARE(objects.size(), THREADS - 1);
        QCOMPARE(load(client, "a.0") + load(client, "a.2") + load(client, "a.7"), 1 + 15 + 14);
    }

private:
    /// Starts the bus; ends it first if it runs.
    bool start()
    {
        _bus.stop();
        const bool started = _bus.start(_settings);
        TrelanQueryHandler::setQueryPort(_bus.queryPort());
        return started;
    }

    QByteArray read(const QString &name) const
    {
        QFile file(_dir->filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    std::unique_ptr<QTemporaryDir> _dir;
    TrelanBusSettings _settings;
    TrelanBus _bus;
    QByteArray _clean;      ///< a database at rest
    QByteArray _live, _log; ///< a database whose last object is in the log only
};

QTEST_GUILESS_MAIN(tst_Storage)
#include "tst_storage.moc"
