#include <sharedobjectsstorage.h>

#include <QtTest/QtTest>

using namespace bus;

class tst_SharedObjectsStorage : public QObject
{
    Q_OBJECT

    SharedObjectsStorage _storage;

    static TrelanCommand command(int uid, int parent = 0)
    {
        TrelanCommand command;
        command.setUid(uid ? QString::number(uid) : QString());
        command.setParentUid(parent ? QString::number(parent) : QString());
        return command;
    }

private Q_SLOTS:
    void init() { _storage.clear(); }

    void resetsWhatItReadsInto()
    {
        TrelanObject kept;
        kept.setName("a");
        kept.setContent({{"k", 1}});
        _storage.store(kept);
        _storage.storeCmd(command(1));
        TrelanObject object;
        QPair<TrelanCommand, TrelanCommand> pair;
        QVERIFY(_storage.get("a", object) && _storage.getCmd("1", pair));
        QVERIFY(object == kept && pair.first == command(1));
        QVERIFY(!_storage.get("b", object) && !_storage.getCmd("2", pair));
        QVERIFY(object.name().isEmpty() && object.content().isEmpty());
        QCOMPARE(pair.first.uid(), QString());
        _storage.clear();
        QVERIFY(_storage.getAllObjects().isEmpty() && _storage.getAllCommands().isEmpty());
    }

    void keepsTheTwentyUsedLast()
    {
        for (int uid = 1; uid <= 20; ++uid)
            _storage.storeCmd(command(uid));
        QVERIFY(_storage.containsCmd("1")); // asking does not count as a use
        _storage.getCmd("2");
        _storage.containsAnswer("3");
        for (int uid = 21; uid <= 22; ++uid)
            _storage.storeCmd(command(uid));
        for (int uid = 1; uid <= 22; ++uid)
            QCOMPARE(_storage.containsCmd(QString::number(uid)), uid != 1 && uid != 4);
    }

    void pairsAnswers()
    {
        const QString uid = "1";
        _storage.storeCmdAnswer(command(2, 1)); // an answer to no command that is kept
        _storage.storeCmd(command(1));
        _storage.storeCmdAnswer(command(3));
        QVERIFY(!_storage.containsAnswer(uid));
        _storage.storeCmdAnswer(command(2, 1));
        QVERIFY(_storage.containsAnswer(uid));
        QCOMPARE(_storage.getCmd(uid).second, command(2, 1));
        _storage.storeCmd(command(1)); // a command that is stored again has no answer
        QVERIFY(!_storage.containsAnswer(uid));
        QCOMPARE(_storage.takeCmd(uid).first, command(1));
        QVERIFY(!_storage.containsCmd(uid));
        _storage.storeCmd(command(0)); // without ids an answer looks like none
        QVERIFY(_storage.containsAnswer(QString()));
    }
};

QTEST_APPLESS_MAIN(tst_SharedObjectsStorage)
#include "tst_sharedobjectsstorage.moc"
