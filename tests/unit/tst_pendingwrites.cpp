#include "rules/pendingwrites.h"

#include <testtable.h>

using namespace bus;

/// Runs a script of steps. "a" begins a write of the connection a, the first being a1, and "a*9"
/// nine of them; "a1!" ends that one, "~a" forgets the connection, "a?" asks whether one more may
/// begin, and "a?M" whether one of a megabyte may. Answers and what was asked are the outcome.
class tst_PendingWrites : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void steps_data()
    {
        const TestTable<QString, QString> row("script", "outcome");
        row("in the order of the requests", "a a a a3! a1! a2!", "a1 a2 a3");
        row("each for itself", "a b a b1! a2! a1!", "b1 a1 a2");
        row("again from the beginning", "a a1! a a2!", "a1 a2");
        row("gone", "a a b ~a a1! b1! a2!", "b1");
        row("always one", "b*256 a? a a? b?", "room full full");
        row("alone", "a*255 a? a a? a1! a?", "room full a1 room");
        row("an equal share", "a b*127 b? b b? a?", "room full room");
        row("what others have begun before", "a*256 b b? a1! b?", "full a1 full");
        row("half of the bytes", "a b a?M a*16 a?M a?", "room full room");
        row("what is gone counts until it ends", "a*256 ~a b b? a1! a2! b?", "full room");
    }

    void steps()
    {
        constexpr qint64 COST = 4096, MEGABYTE = 1024 * 1024 - COST;
        QFETCH(QString, script);
        PendingWrites writes;
        QHash<QString, QList<PendingWrites::Write>> begun;
        QStringList outcome;
        for (const QString &step : script.split(' ')) {
            const bool isForgotten = step.startsWith('~');
            const QString name = step.mid(int(isForgotten), 1);
            const ConnectionId id = name[0].unicode();
            if (isForgotten) {
                writes.forget(id);
            } else if (step.contains('?')) {
                const qint64 cost = step.endsWith('M') ? MEGABYTE : COST;
                outcome << (writes.hasRoom(id, cost) ? "room" : "full");
            } else if (step.endsWith('!')) {
                const QString number = step.mid(1).chopped(1);
                writes.end(begun[name].at(number.toInt() - 1),
                           [&outcome, name, number] { outcome << name + number; });
            } else {
                const int times = qMax(1, step.mid(2).toInt());
                for (int i = 0; i < times; ++i)
                    begun[name] << writes.begin(id, PendingWrites::Change, COST);
            }
        }
        QTEST(outcome.join(' '), "outcome");
    }
};

QTEST_APPLESS_MAIN(tst_PendingWrites)
#include "tst_pendingwrites.moc"
