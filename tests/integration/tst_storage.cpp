#undef QT_NO_CAST_FROM_ASCII // texts of this file are ASCII

#include <logcapture.h>
#include <trelanbus.h>
#include <trelanqueryhandler.h>

#include <QtCore/QJsonDocument>
#include <QtTest/QtTest>

#include <csignal>
#include <sys/resource.h>
#include <thread>

using bus::TrelanBus;
using bus::TrelanError;
using bus::TrelanObject;
using bus::TrelanQueryHandler;
using Files = QMap<QString, QByteArray>;

class tst_Storage : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void restartBringsBack_data();
    void restartBringsBack();
    void lastChangeWins_data();
    void lastChangeWins();
    void unusableFolder_data();
    void unusableFolder();
    void failedWriteChangesNothing();
    void bounds_data();
    void bounds();
    void manyPublishersAtOnce();
    void warnsOnceWithoutFolder();

private:
    bool start(const QString &folder, bool required = true);
    bool restart();

    std::unique_ptr<QTemporaryDir> _dir;
    bus::TrelanBusSettings _settings;
    TrelanBus _bus;
    Files _clean;  ///< a database at rest
    Files _killed; ///< one whose last object is in the log only
};

static TrelanObject object(const QString &name, const QVariant &value, bool permanent = true)
{
    TrelanObject object;
    object.setName(name);
    object.setContent({{QStringLiteral("value"), value}});
    object.setPermanent(permanent);
    return object;
}

/// The object's value; invalid if there is none.
static QVariant load(TrelanQueryHandler &client, const QString &name)
{
    TrelanObject object;
    client.loadObject(name, object);
    return object.content().value(QStringLiteral("value"));
}

static Files filesIn(const QString &folder)
{
    Files files;
    for (const QFileInfo &info : QDir(folder).entryInfoList(QDir::Files)) {
        QFile file(info.filePath());
        files.insert(info.fileName(), file.open(QIODevice::ReadOnly) ? file.readAll() : "?");
    }
    return files;
}

bool tst_Storage::start(const QString &folder, bool required)
{
    _settings.dataFolder = folder;
    _settings.requireStorage = required;
    const bool started = _bus.start(_settings);
    TrelanQueryHandler::setQueryPort(_bus.queryPort());
    return started;
}

bool tst_Storage::restart()
{
    _bus.stop();
    return start(_dir->path());
}

void tst_Storage::initTestCase()
{
    init();
    QVERIFY(start(_dir->path()));
    TrelanQueryHandler client("maker");
    QVERIFY(client.open() && client.publish(object("a.b", "needle")));
    _killed = filesIn(_dir->path());
    _bus.stop();
    _clean = filesIn(_dir->path());
    QVERIFY(_killed.value("trelan.db-wal").contains("needle"));
    QVERIFY(_clean.size() == 1 && _clean.value("trelan.db").contains("needle"));
}

void tst_Storage::init()
{
    _bus.stop();
    _dir = std::make_unique<QTemporaryDir>();
    _settings = bus::TrelanBusSettings();
    _settings.queryPort = 0;
}

void tst_Storage::restartBringsBack_data()
{
    QTest::addColumn<TrelanObject>("published");
    TrelanObject odd = object("\u0436.\U0001F600.\u00e9", QString("a|b|\n").replace("|", QChar(0)));
    odd.setUid(QString("u|id").replace("|", QChar(0)) + QChar(0xdfff));
    odd.setDt(QDateTime::fromMSecsSinceEpoch(-1));
    odd.setOptions(TrelanObject::Options(QFlag(0x40000006)));
    QTest::newRow("odd text, old time, unknown flags") << odd;
    QTest::newRow("half a surrogate pair") << object("half", QString(QChar(0xd800)));
    QTest::newRow("kinds") << object("kinds", QVariantList {true, 1.5, QVariant(), 1LL << 53});
    QTest::newRow("large") << object("large", QString(5000000, 'x'));
    QTest::newRow("longest name") << object(QString(1024, QChar(0x4e2d)), 1);
}

void tst_Storage::restartBringsBack()
{
    QFETCH(TrelanObject, published);
    QVERIFY(start(_dir->path()));
    TrelanObject before;
    TrelanObject after;
    TrelanQueryHandler client("client");
    QVERIFY(client.open() && client.publish(published));
    QVERIFY(client.loadObject(published.name(), before));
    QVERIFY(restart());
    client.close();
    QVERIFY(client.open() && client.loadObject(published.name(), after));
    QVERIFY(after == before);
    QCOMPARE(after.publisher(), QString("client"));
    QCOMPARE(QJsonDocument::fromVariant(after.content()).toJson(),
             QJsonDocument::fromVariant(published.content()).toJson());
    QCOMPARE(after.dt(), published.dt());
    QCOMPARE(int(after.options()), int(published.options()));
    QCOMPARE(after.uid(), published.uid().isEmpty() ? before.uid() : published.uid());
}

void tst_Storage::lastChangeWins_data()
{
    // P: permanent, S: stored, N: not stored, R: removed; then the value. 0: none.
    QTest::addColumn<QString>("changes");
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("after");
    QTest::newRow("last value") << "P1 P2" << 2 << 2;
    QTest::newRow("not permanent any more") << "P1 S2" << 2 << 0;
    QTest::newRow("permanent again") << "P1 S2 P3" << 3 << 3;
    QTest::newRow("not stored leaves it") << "P1 N2" << 1 << 1;
    QTest::newRow("removed") << "P1 R" << 0 << 0;
    QTest::newRow("removed after a value in memory") << "P1 S2 R" << 0 << 0;
    QTest::newRow("removed and back") << "P1 R P2" << 2 << 2;
}

void tst_Storage::lastChangeWins()
{
    QFETCH(QString, changes);
    QVERIFY(start(_dir->path()));
    TrelanQueryHandler client("client");
    QVERIFY(client.open() && client.publish(object("other", 7)));
    for (const QString &change : changes.split(' ')) {
        TrelanObject value = object("a", change.mid(1).toInt(), change[0] == 'P');
        value.setStored(change[0] != 'N');
        QVERIFY(change[0] == 'R' ? client.rmPersistent({"none", " a "}) : client.publish(value));
    }
    QTEST(load(client, "a").toInt(), "before");
    QVERIFY(restart());
    client.close();
    QVERIFY(client.open());
    QTEST(load(client, "a").toInt(), "after");
    QCOMPARE(load(client, "other").toInt(), 7);
}

void tst_Storage::unusableFolder_data()
{
    QTest::addColumn<Files>("files");
    QTest::addColumn<QString>("reason");
    const auto row =
        [this](const char *name, const char *reason, const Files &from,
               const std::function<void(QByteArray & database, QByteArray & log)> &spoil) {
            Files files = from;
            spoil(files["trelan.db"], files["trelan.db-wal"]);
            QTest::newRow(name) << files << QString(reason);
        };
    row("rubbish", "damaged", _clean, [](auto &db, auto &) { db = QByteArray(5000, 'x'); });
    row("cut off", "damaged", _clean, [](auto &db, auto &) { db.chop(db.size() / 2); });
    row("page", "damaged", _clean, [](auto &db, auto &) { db[4096] = char(db[4096] ^ 1); });
    row("index", "damaged", _clean,
        [](auto &db, auto &) { db.replace(db.lastIndexOf("a.b"), 3, "a.c"); });
    row("content", "a.b.*as it was", _clean,
        [](auto &db, auto &) { db.replace("needle", "noodle"); });
    row("log", "log.*damaged", _killed, [](auto &, auto &log) { log.replace(9, 9, "scribbles"); });
    row("lost", "its log trelan.db-wal", _killed, [](auto &db, auto &) { db.clear(); });
    row("other application", "another application", _clean, [](auto &db, auto &) { db[68] = 'x'; });
    row("newer", "version 9", _clean, [](auto &db, auto &) { db[63] = 9; });
    row("newer, with a log", "version 9", _killed, [](auto &db, auto &log) {
        db[63] = 9;
        log.chop(log.size() - 32);
    });
    QTest::newRow("in use") << Files() << "in use by another server";
    QTest::newRow("a file") << Files {{"sub", "x"}} << "cannot be made";
    QTest::newRow("database is a folder") << Files {{"sub", QByteArray()}} << "unable to open";
}

void tst_Storage::unusableFolder()
{
    QFETCH(Files, files);
    QFETCH(QString, reason);
    TrelanBus first;
    QString folder = _dir->path();
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        QFile out(_dir->filePath(file.key()));
        QVERIFY(out.open(QIODevice::WriteOnly) && out.write(*file) == file->size());
    }
    if (files.contains("sub")) {
        folder += "/sub";
        if (files["sub"].isEmpty())
            QVERIFY(QFile::remove(folder) && QDir().mkpath(folder + "/trelan.db"));
    } else if (files.isEmpty()) {
        _settings.dataFolder = folder;
        QVERIFY(first.start(_settings));
    }

    QVERIFY(!start(folder));
    QVERIFY2(_bus.errorString().startsWith(folder + "/trelan.db: "),
             qPrintable(_bus.errorString()));
    QVERIFY2(_bus.errorString().contains(QRegularExpression(reason)),
             qPrintable(_bus.errorString()));

    QVERIFY(start(folder, false));
    QCOMPARE(_bus.storage(), TrelanBus::Unusable);
    TrelanQueryHandler client("client");
    QVERIFY(client.open() && !client.publish(object("a", 1)));
    QCOMPARE(client.lastError().error(), TrelanError::InvalidDataStorage);
    QVERIFY(client.lastError().description().contains(folder));
    QVERIFY(client.publish(object("a", 2, false)));
    QCOMPARE(load(client, "a").toInt(), 2);
    QVERIFY(client.rmPersistent({"a", "b"}));
    _bus.stop();
    if (!files.isEmpty() && folder == _dir->path())
        QCOMPARE(filesIn(folder), files);
}

/// No file of this process grows beyond \a size for as long as this lives; tests print to a pipe.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(qint64 size)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &_before);
        const rlimit lowered {rlim_t(size), _before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &_before); }

private:
    rlimit _before {};
};

void tst_Storage::failedWriteChangesNothing()
{
    QVERIFY(start(_dir->path()));
    TrelanQueryHandler client("client");
    QVERIFY(client.open() && client.publish(object("a", 1)));
    const auto isRefused = [&client](bool done) {
        return !done && client.lastError().error() == TrelanError::StorageAccessError &&
               client.lastError().description().contains("trelan.db: ");
    };
    {
        const FileSizeLimit none(100);
        QVERIFY(isRefused(client.publish(object("new", 2))));
        QVERIFY(isRefused(client.publish(object("a", 2))));
        QVERIFY(isRefused(client.publish(object("a", 2, false))));
        QVERIFY(isRefused(client.rmPersistent({"a"})));
        QVERIFY(client.publish(object("memory", 3, false)));
        QCOMPARE(load(client, "a").toInt(), 1);
        QVERIFY(!load(client, "new").isValid());
    }
    QVERIFY(client.publish(object("after", 4)));
    QVERIFY(restart());
    client.close();
    QVERIFY(client.open());
    QMap<QString, TrelanObject> objects;
    QVERIFY(client.loadObjects("*", objects));
    QCOMPARE(objects.keys(), QStringList({"a", "after"}));
    QCOMPARE(load(client, "a").toInt(), 1);
}

void tst_Storage::bounds_data()
{
    QTest::addColumn<bool>("permanent");
    QTest::addColumn<int>("maxObjects");
    QTest::addColumn<qint64>("maxBytes");
    QTest::addColumn<QString>("which");
    for (const bool permanent : {false, true}) {
        const char *where = permanent ? "disk" : "memory";
        QTest::addRow("objects, %s", where) << permanent << 2 << qint64(1e9) << "2 objects";
        QTest::addRow("bytes, %s", where) << permanent << 9 << qint64(9000) << "9000 bytes";
    }
}

void tst_Storage::bounds()
{
    QFETCH(bool, permanent);
    QFETCH(QString, which);
    _settings.maxObjects = *static_cast<int *>(QTest::qData("maxObjects", QMetaType::Int));
    _settings.maxObjectBytes =
        *static_cast<qint64 *>(QTest::qData("maxBytes", QMetaType::LongLong));
    QVERIFY(start(_dir->path()));
    TrelanQueryHandler client("client");
    const QString large(3500, 'x');
    QVERIFY(client.open() && client.publish(object("a", large, permanent)));
    QVERIFY(client.publish(object("b", large, permanent)));
    QVERIFY(!client.publish(object("c", large, permanent)));
    QCOMPARE(client.lastError().error(), TrelanError::StorageAccessError);
    QVERIFY2(client.lastError().description().contains(which),
             qPrintable(client.lastError().description()));
    QVERIFY(!load(client, "c").isValid());
    QVERIFY(client.publish(object("b", "small", permanent)));
    QVERIFY(client.rmPersistent({"a"}));
    QVERIFY(client.publish(object("c", large, permanent)));
}

void tst_Storage::manyPublishersAtOnce()
{
    constexpr int THREADS = 8;
    constexpr int NAMES = 3;
    // A value on its way to the disk takes no room beside the one that it replaces, and one that
    // does not fit on the disk takes nothing from those it is written together with.
    _settings.maxObjects = (THREADS - 1) * NAMES + 1;
    QVERIFY(start(_dir->path()));
    QAtomicInt acknowledged;
    QAtomicInt refused;
    const auto publish = [&](int i) {
        TrelanQueryHandler client(QString("client%1").arg(i));
        client.open();
        for (int n = 0; n < 5 * NAMES; ++n) {
            const QVariant value = i == 0 ? QVariant(QString(6000000, 'x')) : QVariant(n);
            acknowledged += client.publish(object(QString("a.%1.%2").arg(i).arg(n % NAMES), value));
            refused += client.lastError().description().contains("trelan.db: ");
        }
    };
    {
        const FileSizeLimit some(5000000);
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i)
            threads.emplace_back(publish, i);
        for (std::thread &thread : threads)
            thread.join();
    }
    QCOMPARE(int(refused), 5 * NAMES);
    QCOMPARE(int(acknowledged), (THREADS - 1) * 5 * NAMES);
    QVERIFY(restart());
    TrelanQueryHandler client("client");
    QMap<QString, TrelanObject> objects;
    QVERIFY(client.open() && client.loadObjects("*", objects));
    QCOMPARE(objects.size(), (THREADS - 1) * NAMES);
    for (const TrelanObject &found : std::as_const(objects))
        QCOMPARE(found.content()["value"].toInt() - 4 * NAMES, found.name().right(1).toInt());
}

void tst_Storage::warnsOnceWithoutFolder()
{
    const LogCapture log;
    QVERIFY(start(QString()));
    TrelanQueryHandler client("client");
    QVERIFY(client.open() && client.publish(object("a", 1)) && client.publish(object("b", 2)));
    QCOMPARE(load(client, "b").toInt(), 2);
    QCOMPARE(_bus.storage(), TrelanBus::MemoryOnly);
    _bus.stop();
    QCOMPARE(log.texts().filter("permanent objects are kept in memory only").size(), 1);
}

QTEST_GUILESS_MAIN(tst_Storage)
#include "tst_storage.moc"
