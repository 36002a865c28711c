#include <logcapture.h>
#include <scriptedserver.h>
#include <trelanqueryhandler.h>

#include <QtTest/QtTest>

/// A separate program, since it waits 30 s, as long as the library does.
class tst_TrelanQuerySilence : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void silentBusFailsTheRequestOnly()
    {
        ScriptedServer server([](ScriptedPeer &peer) {
            for (const char *operation : {"handshake", "", "unsub"}) {
                peer.readFrame();
                if (*operation)
                    peer.send(ScriptedServer::reply(operation));
            }
            peer.awaitEnd();
        });
        bus::TrelanQueryHandler::setQueryPort(server.port());
        bus::TrelanQueryHandler handler("me");
        QVERIFY(handler.open());
        const LogCapture log;
        QVERIFY(!handler.subscribe("a"));
        QCOMPARE(handler.lastFailure(), bus::TrelanQueryHandler::Timeout);
        QCOMPARE(log.texts().join(QLatin1Char('|')), "critical: Socket wait for ready read error");
        QVERIFY(handler.unsubscribe("a"));
    }
};

QTEST_GUILESS_MAIN(tst_TrelanQuerySilence)
#include "tst_trelanquerysilence.moc"
