#include "rules/publishorder.h"

#include <testtable.h>

using namespace bus;

/// Runs a script of steps. "a" takes a place in the order, "a!" takes effect at that place, "a-"
/// gives it up, "~a" calls skip() for the object a.
class tst_PublishOrder : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void steps_data()
    {
        const TestTable<QString, QString> row("script", "delivered");
        row("at once", "a a! b b!", "a b");
        row("in the order of coming", "a b c b! c! a!", "a b+ c+");
        row("behind one that fails", "a b b! a-", "b+");
        row("one fails behind another", "a b c c! b- a!", "a c+");
        row("only those in front", "a b c a! c! b!", "a b c+");
        row("told of a newer value", "a b c b! c! ~b a!", "a b+() c+");
    }

    void steps()
    {
        QFETCH(QString, script);
        QStringList delivered;
        PublishOrder order([&delivered](const PublishOrder::Publish &publish) {
            delivered << publish.record.head.name + (publish.waited ? "+" : "") +
                             (publish.receivers.isEmpty() ? "()" : "");
        });
        QMap<QString, quint64> places;
        for (const QString &step : script.split(' ')) {
            const QString name = step.left(1);
            PublishOrder::Publish publish;
            publish.record.head.name = name;
            publish.record.head.options = TrelanObject::Stored;
            publish.receivers << "client";
            if (step.startsWith('~'))
                order.skip("client", {step.mid(1)});
            else if (step.endsWith('!'))
                order.takeEffect(places[name], publish);
            else if (step.endsWith('-'))
                order.leave(places[name]);
            else
                places[name] = order.takePlace();
        }
        QTEST(delivered.join(' '), "delivered");
    }

    void bound_data()
    {
        const TestTable<int, int> row("contentSize", "receivers");
        row("content", 1 << 20, 0);
        row("receivers", 0, (1 << 20) / int(sizeof(QString)));
    }

    void bound()
    {
        QFETCH(const int, contentSize);
        QFETCH(const int, receivers);
        PublishOrder order([](const PublishOrder::Publish &) {});
        const quint64 first = order.takePlace();
        PublishOrder::Publish publish;
        publish.record.contentJson = QByteArray(contentSize, ' ');
        for (int i = 0; i < receivers; ++i)
            publish.receivers << QString();
        int waiting = 0;
        for (; !order.isFull() && waiting < 100; ++waiting)
            order.takeEffect(order.takePlace(), publish);
        QCOMPARE(waiting, 16);
        order.leave(first);
        QVERIFY(!order.isFull());
    }
};

QTEST_APPLESS_MAIN(tst_PublishOrder)
#include "tst_publishorder.moc"
