#include "testsupport.h"

#include <trelanmessage.h>
#include <trelanobject.h>

using namespace bus;

class tst_TrelanObject : public QObject
{
    Q_OBJECT
    TrelanObject _object;

private slots:
    void init()
    {
        _object.setPublisher("box");
        _object.setName("a.b");
        _object.setDt(QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC));
        _object.setContent({{"k", 1}});
        _object.setUid("u");
        _object.setOptions(TrelanObject::Options(QFlag(0x106)));
    }

    void flags()
    {
        TrelanObject object;
        QCOMPARE(int(object.options()), 2);
        const auto after = [&object](int before, void (TrelanObject::*set)(bool), bool on) {
            object.setOptions(TrelanObject::Options(QFlag(before)));
            (object.*set)(on);
            return int(object.options());
        };
        QCOMPARE(after(0, &TrelanObject::setPermanent, true), 6);
        QVERIFY(object.isPermanent());
        QCOMPARE(after(7, &TrelanObject::setPermanent, false), 3);
        QCOMPARE(after(4, &TrelanObject::setLogged, true), 5);
        QVERIFY(!object.isPermanent()); // a permanent object has to be stored as well
        QCOMPARE(after(0x40000017, &TrelanObject::setStored, false), 0x40000011);
        QCOMPARE(after(7, &TrelanObject::setLogged, false), 6);
    }

    void moveAssignmentSwapsAllButTheFlags()
    {
        // On the heap: tools complain of a local object that is looked at after a move.
        const auto source = std::make_unique<TrelanObject>(_object);
        TrelanObject target;
        target.setName("old");
        TrelanObject swapped = target;
        swapped.setOptions(source->options());
        target = std::move(*source);
        QCOMPARE(target, _object);
        QCOMPARE(*source, swapped);
    }

    void wireFormAndId()
    {
        QVERIFY(makesUidOf(_object, "TrelanObjectboxa.b2023-11-14T22:13:20Z262", R"({"k":1})"));
        checkWireForm(_object, R"({"cnt":{"k":1},"dt":"1700000000123","nm":"a.b","opt":262,)"
                               R"("p":"box","uid":"u"})");
    }

    void timeIsReadThroughItsText_data() { addTestRows("times.json"); }

    void timeIsReadThroughItsText()
    {
        QFETCH(QJsonObject, row);
        const QVariantMap map {{"dt", row[u"wire"].toVariant()}};
        const QDateTime expected = QDateTime::fromMSecsSinceEpoch(qint64(row[u"ms"].toDouble()));
        QCOMPARE(TrelanObject::fromVariantMap(map).dt(), expected);
        QCOMPARE(TrelanMessage::fromVariantMap(map).dt(), expected);
        const TrelanTimestamp timestamp = TrelanObject::fromVariantMap(map).timestamp();
        QCOMPARE(timestamp.toIsoText(), expected.toString(Qt::ISODate));
        QVERIFY(timestamp == TrelanTimestamp(expected) && timestamp != TrelanTimestamp());
    }

    void notification()
    {
        _object.setContent({});
        const TrelanMessage message = _object.toMessage("ui");
        const QByteArray expected = "{\n    \"__context__\": {\n    },\n"
                                    "    \"__name__\": \"a.b\",\n    \"__reason__\": \"sub\"\n}\n";
        QCOMPARE(message.message().toUtf8(), expected);
        QVERIFY(message.dt() == _object.dt() && int(message.options()) == 0);
        QCOMPARE(message.msgKey(), "box.ui.u");
    }
};

QTEST_APPLESS_MAIN(tst_TrelanObject)
#include "tst_trelanobject.moc"
