#include <deliveryqueue.h>
#include <trelanframereader.h>

#include <QtTest/QtTest>

using bus::Delivery;
using bus::DeliveryQueue;
using bus::TrelanFrame;
using bus::TrelanFrameReader;
using bus::TrelanMessage;

/// Runs a script of steps. "+a" queues the message with the uid a, "+a?" one that needs an answer,
/// "n" instead of "+" a notification; "~a" is acknowledged; "t60000" is the time; "restart", "drop"
/// and "check" are the queue's. What is sent and what is given up ("!a") is the outcome of a step.
class tst_DeliveryQueue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void steps_data();
    void steps();
    void window_data();
    void window();

private:
    static QString uidOf(const QByteArray &frame);
    QStringList step(DeliveryQueue &queue, const QString &text);
    void append(DeliveryQueue &queue, const QString &uid, Delivery::Kind kind, int size = 0);

    qint64 _now = 0;
};

QString tst_DeliveryQueue::uidOf(const QByteArray &frame)
{
    TrelanFrameReader reader(1000000);
    reader.feed(frame);
    if (reader.next() != TrelanFrameReader::FrameReady)
        return QStringLiteral("no frame");
    const QVariantMap envelope = TrelanFrame::decodePayload(reader.payload()).envelope;
    return envelope.value(QStringLiteral("data")).toMap().value(QStringLiteral("uid")).toString();
}

void tst_DeliveryQueue::append(DeliveryQueue &queue, const QString &uid, Delivery::Kind kind,
                               int size)
{
    TrelanMessage message;
    message.setSender(QStringLiteral("s"));
    message.setReciever(QStringLiteral("r"));
    message.setUid(QString(uid).remove(QLatin1Char('?')));
    message.setNeedAnswer(uid.endsWith(QLatin1Char('?')));
    QString body; // hardly compresses
    for (quint32 x = 1; body.size() < size; x = x * 1664525 + 1013904223)
        body += QString::number(x, 36);
    message.setMessage(body);
    queue.append(message, kind, _now);
}

QStringList tst_DeliveryQueue::step(DeliveryQueue &queue, const QString &text)
{
    const QString rest = text.mid(1);
    if (text == QLatin1String("restart"))
        queue.restart();
    else if (text == QLatin1String("drop"))
        queue.dropNotifications();
    else if (text == QLatin1String("check"))
        queue.checkTimes(_now);
    else if (text.startsWith(QLatin1Char('t')))
        _now = rest.toLongLong();
    else if (text.startsWith(QLatin1Char('~')))
        queue.acknowledge(QStringLiteral("s"), QStringLiteral("r"), rest, _now);
    else
        append(queue, rest, text.at(0) == 'n' ? Delivery::Notification : Delivery::Addressed);
    QStringList outcome;
    for (const Delivery &delivery : queue.takeGivenUp())
        outcome << QLatin1Char('!') + delivery.message.uid();
    return outcome;
}

void tst_DeliveryQueue::steps_data()
{
    QTest::addColumn<QString>("script"); // "send" sends what may be sent
    QTest::addColumn<QString>("expected");
    QTest::addColumn<int>("left");
    const auto row = [](const char *title, const char *script, const char *expected, int left = 0) {
        QTest::newRow(title) << script << expected << left;
    };
    row("in order", "+a +b send ~a ~b", "a b");
    row("unknown", "+a send ~x ~a ~a", "a");
    row("not sent yet", "+a ~a send", "a", 1);
    row("earlier one dropped", "+a +b +c send ~b send ~c ~a", "a b c a");
    row("again before newer", "+a +b +c send +d ~c send ~a ~b ~d", "a b c a b d");
    row("late acknowledgement", "+a +b send ~b ~a send", "a b");
    row("given up", "+a +b send ~b send +c send ~c send +d send ~d send +e send ~e send",
        "a b a c a d a e !a");
    row("a connection is no drop", "+a send restart send restart send restart send restart send ~a",
        "a a a a a");
    row("restart", "+a +b send +c restart +d send ~a ~b ~c ~d", "a b a b c d");
    row("silence", "+a +b send t59999 check send t60000 check send ~b ~a", "a b a");
    row("reader is slow", "+a +b send t50000 ~a t100000 check send ~b", "a b");
    row("silence three times",
        "+a send t60000 check send t120000 check send t180000 check send "
        "t240000 check send",
        "a a a a !a");
    row("answer in vain", "+a? +b +c? t59999 check t60000 check send ~b", "!a !c b");
    row("answer in vain, sent before", "+a? send restart t60000 check send", "a !a");
    row("notifications", "+a na1 send nb drop send ~a ~a1", "a a1");
    row("notification is dropped by the reader", "na +b send drop ~b send", "a b");
    row("notification and a restart", "na +b send drop restart send ~b", "a b b");
}

void tst_DeliveryQueue::steps()
{
    QFETCH(QString, script);
    QFETCH(int, left);
    _now = 0;
    DeliveryQueue queue;
    QStringList outcome;
    for (const QString &text : script.split(QLatin1Char(' '))) {
        if (text != QLatin1String("send")) {
            outcome << step(queue, text);
            continue;
        }
        for (QByteArray frame = queue.takeFrame(_now); !frame.isEmpty();
             frame = queue.takeFrame(_now))
            outcome << uidOf(frame);
    }
    QTEST(outcome.join(QLatin1Char(' ')), "expected");
    QCOMPARE(queue.count(), left);
    QCOMPARE(queue.bytes() == 0, left == 0);
}

void tst_DeliveryQueue::window_data()
{
    QTest::addColumn<QList<int>>("sizes");
    QTest::addColumn<QList<int>>("sent"); // at first, and after every acknowledgement
    QList<int> small;
    for (int i = 0; i < 70; ++i)
        small << 10;
    QTest::newRow("64 frames") << small << QList<int> {64, 1, 1};
    QTest::newRow("32 KiB") << QList<int> {9000, 9000, 9000, 9000, 9000} << QList<int> {3, 1, 1};
    QTest::newRow("large alone") << QList<int> {10, 60000, 10} << QList<int> {1, 1, 1};
}

void tst_DeliveryQueue::window()
{
    QFETCH(QList<int>, sizes);
    QFETCH(QList<int>, sent);
    DeliveryQueue queue;
    for (int i = 0; i < sizes.size(); ++i)
        append(queue, QString::number(i), Delivery::Addressed, sizes.at(i));
    for (int round = 0; round < sent.size(); ++round) {
        int count = 0;
        while (!queue.takeFrame(0).isEmpty())
            ++count;
        QCOMPARE(count, sent.at(round));
        QVERIFY(queue.acknowledge("s", "r", QString::number(round), 0));
    }
}

QTEST_APPLESS_MAIN(tst_DeliveryQueue)
#include "tst_deliveryqueue.moc"
