#include "rules/publishorder.h"

#include <testtable.h>

using namespace bus;

/// Runs a script of steps. "a" takes a place in the order, "a!" takes effect at that place, "a-"
/// gives it up, "~a" calls skip() for the object a. "a#" is the removal of a and a2 there, which is
/// told in two turns: "." is the next one. "^" calls skipRemovals(). "()" is behind what the client
/// does not hear of.
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
        row("removal", "a a# .", "-a -a2");
        row("removal behind another", "b a a# b! .", "b -a -a2");
        row("behind a removal", "a b a# b! .", "-a -a2 b+");
        row("told of a value after the removal", "b a a# ~a b! .", "b -a() -a2");
        row("told of a value between the turns", "a a# ~a2 .", "-a -a2()");
        row("subscribed after the removal", "b a a# ^ b! .", "b -a() -a2()");
        row("subscribed before the removal", "b a ^ a# b! .", "b -a -a2");
        row("removal fails", "b a a- b!", "b");
    }

    void steps()
    {
        QFETCH(QString, script);
        QStringList delivered;
        const auto deliver = [&delivered](const PublishOrder::Publish &publish) {
            delivered << publish.record.head.name + (publish.waited ? "+" : "") +
                             (publish.receivers.isEmpty() ? "()" : "");
        };
        const auto tell = [&delivered](PublishOrder::Removal &removal) {
            const QString name = removal.names.at(removal.next);
            delivered << '-' + name + (removal.spares("client", name) ? "()" : "");
            return ++removal.next == removal.names.size();
        };
        PublishOrder order(deliver, tell);
        QMap<QString, quint64> places;
        for (const QString &step : script.split(' ')) {
            const QString name = step.left(1);
            PublishOrder::Publish publish;
            publish.record.head.name = name;
            publish.record.head.options = TrelanObject::Stored;
            publish.receivers << "client";
            if (step.startsWith('~'))
                order.skip("client", {step.mid(1)});
            else if (step == "^")
                order.skipRemovals("client");
            else if (step == ".")
                order.resume();
            else if (step.endsWith('#')) {
                PublishOrder::Removal removal;
                removal.names << name << name + '2';
                order.takeEffect(places[name], removal);
            } else if (step.endsWith('!'))
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
        const TestTable<int, int, int> row("contentSize", "receivers", "waiting");
        row("content", 1 << 20, 0, 16);
        row("receivers", 0, (1 << 20) / int(sizeof(QString)), 16);
        row("places", 0, 0, 10000);
    }

    void bound()
    {
        QFETCH(const int, contentSize);
        QFETCH(const int, receivers);
        PublishOrder order([](const PublishOrder::Publish &) {},
                           [](PublishOrder::Removal &) { return true; });
        const quint64 first = order.takePlace();
        PublishOrder::Publish publish;
        publish.record.contentJson = QByteArray(contentSize, ' ');
        for (int i = 0; i < receivers; ++i)
            publish.receivers << QString();
        int waiting = 0;
        for (; !order.isFull() && waiting < 20000; ++waiting)
            order.takeEffect(order.takePlace(), publish);
        QTEST(waiting, "waiting");
        order.leave(first);
        QVERIFY(!order.isFull());
    }
};

QTEST_APPLESS_MAIN(tst_PublishOrder)
#include "tst_publishorder.moc"
