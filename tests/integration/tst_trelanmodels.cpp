#include <testtable.h>
#include <trelanbus.h>
#include <trelanclient.h>
#include <trelanclientsmodel.h>
#include <trelanobjectmodel.h>

#include <QtCore/QSortFilterProxyModel>
#include <QtTest/QAbstractItemModelTester>

using namespace bus;

namespace
{

constexpr int UPDATES_A_SECOND = 20;

TrelanBusSettings freePorts()
{
    TrelanBusSettings settings;
    settings.setQueryPort(0);
    settings.setMsgPort(0);
    settings.setCoding(TrelanTransport::Light); // for whole numbers above 2^53
    return settings;
}

/// All rows as texts: cells of the columns, and the rows below, indented.
QStringList rowsOf(const QAbstractItemModel &model, const QList<int> &columns,
                   const QModelIndex &parent = {}, const QString &indent = {})
{
    QStringList rows;
    for (int row = 0; row < model.rowCount(parent); ++row) {
        QStringList cells;
        for (int column : columns)
            cells << model.index(row, column, parent).data().toString();
        rows << indent + cells.join("|");
        rows << rowsOf(model, columns, model.index(row, 0, parent), indent + " ");
    }
    return rows;
}

/// Notes each change of rows as one text.
class Changes
{
public:
    QStringList told;

    explicit Changes(const QAbstractItemModel &model)
    {
        QObject::connect(&model, &QAbstractItemModel::dataChanged, &_context,
                         [this](const QModelIndex &first, const QModelIndex &last) {
                             told << QString("data %1,%2-%3,%4")
                                         .arg(first.row())
                                         .arg(first.column())
                                         .arg(last.row())
                                         .arg(last.column());
                         });
        QObject::connect(&model, &QAbstractItemModel::rowsInserted, &_context,
                         [this](const QModelIndex &, int first, int last) {
                             told << QString("insert %1-%2").arg(first).arg(last);
                         });
        QObject::connect(&model, &QAbstractItemModel::rowsRemoved, &_context,
                         [this](const QModelIndex &, int first, int last) {
                             told << QString("remove %1-%2").arg(first).arg(last);
                         });
        QObject::connect(&model, &QAbstractItemModel::modelReset, &_context,
                         [this] { told << "reset"; });
    }

private:
    QObject _context;
};

} // namespace

class tst_TrelanModels : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TrelanBus> _bus;
    TrelanClientSettings _settings;
    std::unique_ptr<TrelanClient> _writer, _viewer;

    void publish(const QString &name, const QVariantMap &content)
    {
        const TrelanPending pending = _writer->publish(name, content);
        QVERIFY(pending.wait());
        QVERIFY2(pending.isDone(), qPrintable(pending.failure().toString()));
    }

private Q_SLOTS:
    void init()
    {
        _bus = std::make_unique<TrelanBus>();
        QVERIFY2(_bus->start(freePorts()), qPrintable(_bus->errorString()));
        _settings = TrelanClientSettings().setPorts(_bus->msgPort(), _bus->queryPort());
        _writer = std::make_unique<TrelanClient>("writer", _settings);
        _viewer = std::make_unique<TrelanClient>("viewer", _settings);
    }
    void cleanup()
    {
        _viewer.reset();
        _writer.reset();
        _bus.reset();
    }

    void showsObjects_data()
    {
        const TestTable<int, QStringList> row("layout", "rows");
        row("flat", TrelanObjectModel::Flat,
            {"room|writer|5", "room.cellar.door|writer|", "room.kitchen|writer|21.5"});
        row("tree", TrelanObjectModel::Tree,
            {"room|writer|5", " cellar||", "  door|writer|", " kitchen|writer|21.5"});
    }
    void showsObjects()
    {
        QFETCH(int, layout);
        QFETCH(QStringList, rows);
        publish("room.kitchen", {{"celsius", 21.5}});
        publish("room", {{"celsius", 5}});
        publish("hall", {{"celsius", 9}});
        TrelanObjectModel model(_viewer.get(), "*", {"celsius"}, TrelanObjectModel::Layout(layout));
        const QAbstractItemModelTester tester(&model);
        QSortFilterProxyModel proxy; // holds persistent indexes
        proxy.setSourceModel(&model);
        publish("room.cellar.door", {{"open", true}});
        QVERIFY(_writer->remove("hall").wait());
        // An event comes first, and has no row.
        TrelanObject event;
        event.setName("room.event");
        event.setStored(false);
        QVERIFY(_writer->publish(event).wait());

        const QList<int> columns {TrelanObjectModel::NameColumn, TrelanObjectModel::PublisherColumn,
                                  TrelanObjectModel::FirstKeyColumn};
        QTRY_COMPARE(rowsOf(model, columns), rows);
        QCOMPARE(rowsOf(proxy, columns), rows);
        const QModelIndex door = model.indexOf("room.cellar.door");
        QCOMPARE(door.data(TrelanObjectModel::NameRole), "room.cellar.door");
        QCOMPARE(door.sibling(door.row(), TrelanObjectModel::ContentColumn).data(),
                 R"({"open":true})");
        QCOMPARE(door.data(TrelanObjectModel::TimeRole).toDateTime(), model.object(door).dt());

        QVERIFY(_writer->remove({"room", "room.kitchen", "room.cellar.door"}).wait());
        QTRY_COMPARE(model.rowCount(), 0);
    }

    void changesInPlace()
    {
        publish("a", {{"v", 1}});
        publish("b", {{"v", 1}});
        TrelanObjectModel model(_viewer.get(), "*", {"v"});
        const QAbstractItemModelTester tester(&model);
        QTRY_COMPARE(model.rowCount(), 2);
        const QPersistentModelIndex b =
            model.indexOf("b").siblingAtColumn(TrelanObjectModel::FirstKeyColumn);
        const Changes changes(model);
        publish("b", {{"v", 2}});
        QTRY_COMPARE(b.data(), 2);
        publish("aa", {{"v", 3}});
        QTRY_COMPARE(model.rowCount(), 3);
        QVERIFY(_writer->remove("a").wait());
        QTRY_COMPARE(b.row(), 1);
        QCOMPARE(changes.told.join(", "), "data 1,2-1,4, insert 1-1, remove 0-0");
    }

    void fastBusSlowView()
    {
        constexpr int COUNT = 3000;
        TrelanObjectModel model(_viewer.get(), "fast.*", {"n"});
        publish("fast.b", {});
        QTRY_COMPARE(model.rowCount(), 1);
        const Changes changes(model);
        QElapsedTimer clock;
        clock.start();
        TrelanPending last;
        for (int i = 1; i <= COUNT; ++i) {
            last = _writer->publish("fast.b", {{"n", i}});
            if (i % 500 == 0)
                QVERIFY(last.wait());
            QCoreApplication::processEvents();
        }
        QTRY_COMPARE(model.index(0, TrelanObjectModel::FirstKeyColumn).data(), COUNT);
        QVERIFY(!changes.told.isEmpty());
        QVERIFY2(changes.told.size() <= 1 + clock.elapsed() * UPDATES_A_SECOND / 1000,
                 qPrintable(QString::number(changes.told.size())));
    }

    void manyObjects()
    {
        constexpr int COUNT = 5000;
        TrelanPending last;
        for (int i = 0; i < COUNT; ++i)
            last = _writer->publish(QString("many.%1.%2").arg(i % 10).arg(i), {{"n", i}});
        QVERIFY(last.wait());
        TrelanObjectModel flat(_viewer.get(), "many.*");
        TrelanObjectModel tree(_viewer.get(), "many.*", {}, TrelanObjectModel::Tree);
        const QAbstractItemModelTester tester(&tree);
        const Changes changes(flat);
        QTRY_COMPARE(flat.rowCount(), COUNT);
        QTRY_COMPARE(rowsOf(tree, {0}).size(), 1 + 10 + COUNT);
        // Far fewer insertions than rows: they come sorted.
        QVERIFY2(changes.told.size() <= COUNT / 100, qPrintable(changes.told.join(", ")));
    }

    void edits()
    {
        TrelanObject room;
        room.setName("room");
        room.setLogged(true);
        room.setContent({{"celsius", 21}, {"id", 1700000000123456789LL}});
        QVERIFY(_writer->publish(room).wait());
        TrelanObjectModel model(_viewer.get(), "*", {"celsius"});
        const QAbstractItemModelTester tester(&model);
        QTRY_COMPARE(model.rowCount(), 1);
        const QModelIndex celsius = model.index(0, TrelanObjectModel::FirstKeyColumn);
        QVERIFY(!model.setData(celsius, 22));
        model.setEditable(true);
        QVERIFY(!model.setData(model.index(0, TrelanObjectModel::NameColumn), "hall"));
        QVERIFY(!model.setData(celsius, "warm"));
        QVERIFY(model.setData(celsius, "22.5"));
        QTRY_COMPARE(celsius.data(), 22.5);
        const TrelanReply<TrelanObject> loaded = _writer->load("room");
        QVERIFY(loaded.wait());
        QCOMPARE(loaded.result().publisher(), "viewer");
        QCOMPARE(loaded.result().options(), room.options());
        QCOMPARE(loaded.result().content().value("id"), 1700000000123456789LL);

        const QModelIndex content = model.index(0, TrelanObjectModel::ContentColumn);
        QVERIFY(!model.setData(content, "[1]"));
        QVERIFY(model.setData(content, R"({"celsius": 7})"));
        QTRY_COMPARE(model.object(content).content(), (QVariantMap {{"celsius", 7}}));
    }

    /// An object that is gone is not made anew by an edit.
    void failedEditTells()
    {
        publish("room", {{"celsius", 21}});
        TrelanObjectModel model(_viewer.get(), "*", {"celsius"});
        model.setEditable(true);
        QTRY_COMPARE(model.rowCount(), 1);
        QSignalSpy failed(&model, &TrelanObjectModel::editFailed);
        QVERIFY(_writer->remove("room").wait());
        QVERIFY(model.setData(model.index(0, TrelanObjectModel::FirstKeyColumn), 22));
        QTRY_COMPARE(failed.size(), 1);
        QCOMPARE(failed[0][0].toString(), "room");
        QTRY_COMPARE(model.rowCount(), 0);
    }

    void busComesBackEmpty()
    {
        publish("a", {});
        TrelanObjectModel model(_viewer.get(), "*");
        const QAbstractItemModelTester tester(&model);
        QTRY_COMPARE(model.rowCount(), 1);
        TrelanBusSettings samePorts;
        samePorts.setQueryPort(_bus->queryPort());
        samePorts.setMsgPort(_bus->msgPort());
        _bus->stop();
        QTRY_VERIFY(!_viewer->state().isConnected());
        QCOMPARE(model.rowCount(), 1);
        QVERIFY2(_bus->start(samePorts), qPrintable(_bus->errorString()));
        QTRY_VERIFY(_writer->state().isConnected());
        publish("b", {});
        QTRY_COMPARE(rowsOf(model, {0}), QStringList {"b"});
    }

    void outlivesItsClient()
    {
        publish("a", {});
        TrelanObjectModel model(_viewer.get(), "*");
        TrelanClientsModel clients(_viewer.get());
        model.setEditable(true);
        QTRY_COMPARE(model.rowCount(), 1);
        QTRY_VERIFY(clients.rowCount() > 0);
        _viewer.reset();
        clients.refresh();
        QCOMPARE(rowsOf(model, {0}), QStringList {"a"});
        QVERIFY(!model.setData(model.index(0, TrelanObjectModel::ContentColumn), "{}"));
    }

    void showsClients()
    {
        QVERIFY(_writer->waitForConnected());
        QVERIFY(_viewer->waitForConnected());
        TrelanClientsModel model(_viewer.get());
        const QAbstractItemModelTester tester(&model);
        model.setInterval(1);
        QCOMPARE(model.interval(), 50);
        const QList<int> columns {TrelanClientsModel::NameColumn,
                                  TrelanClientsModel::ConnectionsColumn};
        const QStringList both {"viewer|query, message", "writer|query, message"};
        QTRY_COMPARE(rowsOf(model, columns), both);
        const QModelIndex writer = model.index(1, 0);
        const int in =
            writer.data(TrelanClientsModel::FirstRole + TrelanClientsModel::InColumn).toInt();
        const Changes changes(model);
        publish("a", {});
        QTRY_VERIFY(writer.siblingAtColumn(TrelanClientsModel::InColumn).data().toInt() > in);
        TrelanClient third("third", _settings);
        QTRY_COMPARE(model.rowCount(), 3);
        _writer.reset();
        QTRY_COMPARE(rowsOf(model, {0}), (QStringList {"third", "viewer"}));
        QVERIFY(!changes.told.contains("reset"));
    }
};

QTEST_GUILESS_MAIN(tst_TrelanModels)

#include "tst_trelanmodels.moc"
