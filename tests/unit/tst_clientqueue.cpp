#include "delivery/clientqueue.h"

#include <testtable.h>
#include <trelanframereader.h>

using namespace bus;

/// Runs a script of steps. "+a" queues the message with the uid a, "+a?" one that needs an answer,
/// "n" instead of "+" a notification (see append()), "3" one of 3 * 9 KB on the wire; "~a" is
/// acknowledged; "t60000" is the time; "prompt" is how the client reads; "restart", "drop" and
/// "check" are the queue's; "send" sends what may be sent. "@x" queues the name of the object x,
/// whose newest value "$x" changes and "-x" removes; "&x" queues the name for a client that has
/// asked for the value, which is sent as "x="; "%x" queues
/// its removal, "!a" a message that is not to be sent after 1000 ms; the removal is sent as "-x"
/// unless there is a value. "#m" queues a marker, "*a" a message that is on disk. "hear" asks
/// whether acknowledgements may be read late from now on, and "hear+" whether they may still be.
/// What is sent and what is given up ("!a") is the outcome, with the answers.
class tst_ClientQueue : public QObject
{
    Q_OBJECT

    static QString uidOf(const QByteArray &frame)
    {
        TrelanFrameReader reader(1000000);
        reader.feed(frame);
        if (reader.next() != TrelanFrameReader::FrameReady)
            return "no frame";
        const QVariant data = TrelanFrame::decodePayload(reader.payload()).envelope["data"];
        const QString uid = data.toMap()["uid"].toString();
        return QUuid::fromString(uid).isNull() ? uid : "fresh";
    }

    static QueuedMessage message(QString uid, int size)
    {
        TrelanMessage content;
        content.setSender("s");
        content.setNeedAnswer(uid.endsWith('?'));
        content.setMessage(noise(size).first().toString());
        return {std::make_shared<const MessageBody>(content), "r", uid.remove('?')};
    }

    /// "n" is a value of the object that the id begins with, "N" another value under the same id,
    /// "m" one of another object.
    static void append(ClientQueue &queue, QChar kind, QString uid, qint64 now)
    {
        const bool isValue = kind.isLetter();
        const QString object = isValue ? uid.left(1) : QString();
        if (kind == 'm')
            uid.replace(0, 1, 'x');
        const int size = kind == 'N' ? 100 : qMax(0, kind.digitValue()) * 6500;
        QueuedMessage appended = message(uid, size);
        appended.kind = isValue       ? QueuedMessage::Value
                        : kind == '#' ? QueuedMessage::Marker
                                      : QueuedMessage::Direct;
        appended.queuedAt = now;
        appended.endsAt = kind == '!' ? now + 1000 : 0;
        appended.storedId = kind == '*' ? 1 : 0;
        appended.object = object;
        queue.append(appended);
    }

private Q_SLOTS:
    void steps_data()
    {
        const TestTable<QString, QString, int> row("script", "expected", "left");
        const QString large = "3a 3b 3c 3d 3e 3f 3g 3h 3i 3j 3k send ~a send";
        row("window of bytes", large, "a b", 10);
        row("window of more bytes", "prompt " + large, "a b c d e f g h i j", 10);
        row("early, unknown, twice", "+a ~a send ~x ~a ~a", "a", 0);
        row("earlier one dropped", "+a +b +c send ~b send ~c ~a", "a b c a", 0);
        row("again before newer", "+a +b +c send +d ~c send ~a ~b ~d", "a b c a b d", 0);
        row("late acknowledgement", "+a +b send ~b ~a send", "a b", 0);
        row("given up", "+a +b send ~b send +c send ~c send +d send ~d send +e send ~e send",
            "a b a c a d a e !a", 0);
        row("a connection is no drop",
            "+a send restart send restart send restart send restart send ~a", "a a a a a", 0);
        row("restart", "+a +b send +c restart +d send ~a ~b ~c ~d", "a b a b c d", 0);
        row("silence", "+a +b send t59999 check send t60000 check send ~b ~a", "a b a", 0);
        row("reader is slow", "+a +b send t50000 ~a t100000 check send ~b", "a b", 0);
        row("silence three times",
            "+a send t60000 check send t120000 check send t180000 check send t240000 check send",
            "a a a a !a", 0);
        row("answer in vain", "+a? +b +c? t59999 check t60000 check send ~b", "!a !c b", 0);
        row("answer in vain, sent before", "+a? send restart t60000 check send", "a !a", 0);
        row("outlived", "+a t1 +b +c send restart t300000 check send t300001 check", "a b c !a b c",
            2);
        row("names wait in their place", "+a @x +b @y @x send", "a x b y", 4);
        row("a name takes the value of then", "@x @x $x @y $y send @x send", "x1 y1 x1", 3);
        row("an object is gone", "@x -x @y send", "y", 1);
        row("a name that is out is a message", "@x send +b send ~b send ~x", "x b x", 0);
        row("names end with the subscription", "@x +a drop @y send", "a y", 2);
        row("notifications", "+a na1 send nb drop send ~a ~a1", "a a1", 0);
        row("notification is dropped by the reader", "na +b send drop ~b send", "a b", 0);
        row("notification and a restart", "na +b send drop restart send ~b", "a b b", 0);
        row("no older value after a newer", "nx1 nx2 send ~x2 send", "x1 x2", 0);
        row("nor after silence", "nx1 nx2 send t60000 check send", "x1 x2", 1);
        row("values of two objects", "nx1 ny1 send ~y1 send ~x1", "x1 y1 x1", 0);
        row("values in order again", "nx1 nx2 +b send ~b send", "x1 x2 b x1 x2", 2);
        row("a name is taken anew", "@x +b send $x ~b send ~x1", "x b x1", 0);
        row("a known id of another value", "nx1 send ~x1 Nx1 send", "x1 fresh", 1);
        row("a known id of another object", "nx1 send ~x1 my1 send", "x1 fresh", 1);
        row("the same value again", "nx1 send ~x1 nx1 send ~x1", "x1 x1", 0);
        row("a marker alone", "#m send ~m", "m", 0);
        row("a marker waits", "na1 #m +b send ~a1 send ~m ~b", "a1 m b", 0);
        row("a value is dropped before a marker", "na1 nb1 #m send ~b1 send ~a1 send ~m",
            "a1 b1 a1 m", 0);
        row("a value is given up before a marker",
            "+a #m send t60000 check send t120000 check send t180000 check send t240000 check send "
            "~m",
            "a a a a !a m", 0);
        row("a connection ends before a marker", "na1 #m send restart send ~a1 send ~m", "a1 a1 m",
            0);
        row("a connection ends behind a marker", "#m na1 send restart send ~m ~a1", "m a1 m a1", 0);
        row("names before a marker", "&x #m @y send ~x= send ~m ~y", "x= m y", 0);
        row("asked for, then changed", "&x #m @x send ~x= send ~m", "x= m", 0);
        row("changed, then asked for", "@x &x #m send ~x= send ~m", "x= m", 0);
        row("asked for, then dropped", "&x &y #m send ~y= send ~x= send ~m", "x= y= x= m", 0);
        row("changed behind a marker", "&x #m send @x ~x= send ~m ~x", "x= m x", 0);
        row("changed behind a marker, and a new connection",
            "&x #m send @x $x restart send ~x1= send ~m", "x= x1= m", 0);
        row("a marker ends with the subscription", "na1 #m #n send ~a1 send drop ~m send", "a1 m",
            0);
        row("removed while it waits", "@x -x %x send ~-x", "-x", 0);
        row("removed, and there again", "-x %x $x @x send ~x1", "x1", 0);
        row("removed after it was sent", "@x send -x %x send ~-x ~x send", "x -x", 0);
        row("removal and a new connection", "-x %x +a send restart send ~-x ~a", "-x a -x a", 0);
        row("removal, a value, and a new connection", "-x %x send $x @x restart send ~x1", "-x x1",
            0);
        row("a value that was removed comes under a known id",
            "nx1 send ~x1 -x %x send ~-x nx1 send", "x1 -x fresh", 1);
        row("a limit", "!a t999 send ~a", "a", 0);
        row("a limit is over", "!a +b t1000 send ~b", "b", 0);
        row("a limit is over behind others", "+a !b +c t1000 check send ~a ~c", "a c", 0);
        row("a limit is over in front of a name", "!a @x t1000 send ~x", "x", 0);
        row("a limit is over after sending", "!a send restart t1000 send", "a", 0);
        row("a limit is over in silence", "!a send t60000 check send", "a", 0);
        row("a limit is over, and it is acknowledged", "!a send t1000 ~a send", "a", 0);
        row("32 KiB", "1a 1b 1c 1d send", "a b c", 4);
        row("room for the next", "1a 1b 1c 1d 1e send ~a send", "a b c d", 4);
        row("room after a loss", "1a 1b 1c 1d send ~b send", "a b c a d", 3);
        row("room after a restart", "1a 1b 1c send restart send", "a b c a b c", 3);
        row("large has to wait", "+a 7b send", "a", 2);
        row("large alone", "7a +b send", "a", 2);
        row("nothing to hear of", "hear hear+", "soon soon", 0);
        row("heard late", "+a send hear +b hear send hear", "a late soon b late", 2);
        row("heard before a name", "$x +a send @x hear send hear", "a soon x1 late", 2);
        row("heard of what is on disk", "*a +b send hear ~a hear", "a b soon late", 1);
        row("heard of what comes again", "*a +b send ~b hear send hear ~a hear",
            "a b soon a soon soon", 0);
        row("three quarters free", "+a +b +c send hear +d send hear hear+",
            "a b c late d soon late", 4);
        row("half free", "+a +b +c +d +e +f +g send hear+ +h send hear+",
            "a b c d e f g late h soon", 8);
        row("half of the bytes", "1a send hear 1b send hear+", "a soon b soon", 2);
        row("half of more bytes", "prompt 1a send hear hear+ 1b send hear+", "a late late b late",
            2);
    }

    void steps()
    {
        QFETCH(QString, script);
        ClientQueue queue;
        QStringList outcome;
        QMap<QString, QString> values {{"x", "x"}, {"y", "y"}}; // the ids of the newest values
        const auto newest = [&values](const QString &name, const ClientQueue::NameState &state) {
            if (!values[name].isEmpty())
                return message(values[name] + (state.now ? "=" : ""), 0);
            if (state.removedAt == 0)
                return QueuedMessage();
            QueuedMessage removal = message('-' + name, 0);
            removal.removal = true;
            return removal;
        };
        qint64 now = 0;
        for (const QString &text : script.split(' ')) {
            const QString rest = text.mid(1);
            if (text == "prompt")
                queue.setMode(TrelanTransport::Prompt);
            else if (text == "restart")
                queue.restart();
            else if (text == "drop")
                queue.dropNotifications();
            else if (text == "check")
                queue.checkTimes(now, 300000);
            else if (text.startsWith('t'))
                now = rest.toLongLong();
            else if (text.startsWith('@'))
                queue.appendName(rest, {});
            else if (text.startsWith('&'))
                queue.appendName(rest, {false, true, 0, {}});
            else if (text.startsWith('%'))
                queue.appendName(rest, {false, false, 7, "s"});
            else if (text.startsWith('$'))
                values[rest] = rest + '1';
            else if (text.startsWith('-'))
                values[rest].clear();
            else if (text.startsWith('~'))
                queue.acknowledge("s", "r", rest, now);
            else if (text.startsWith("hear"))
                outcome << (queue.mayHearLate({16, 100000}, text == "hear+") ? "late" : "soon");
            else if (text != "send")
                append(queue, text[0], rest, now);
            for (QByteArray frame;
                 text == "send" &&
                 !(frame = queue.takeFrame(now, newest, TrelanTransport::Classic)).isEmpty();)
                outcome << uidOf(frame);
            for (const QueuedMessage &message : queue.takeGivenUp())
                outcome << '!' + message.uid;
        }
        QTEST(outcome.join(' '), "expected");
        QTEST(queue.count(), "left");
        QCOMPARE(queue.bytes() == 0, queue.count() == 0);
        QCOMPARE(queue.nameBytes() + queue.nameCount(), 0);
        QCOMPARE(queue.markerBytes() == 0, queue.markerCount() == 0);
        QVERIFY(queue.markerBytes() <= queue.bytes());
    }
};

QTEST_APPLESS_MAIN(tst_ClientQueue)
#include "tst_clientqueue.moc"
