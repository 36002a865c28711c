#include <rawpeer.h>
#include <transport.h>
#include <trelancontroller.h>
#include <trelanlogcreator.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtTest/QtTest>

using namespace bus;

struct Application : TrelanController
{
    using TrelanController::TrelanController;
    bool connected = false; // of the query channel
    bool doStart() override
    {
        auto *queries = new TrelanQueryWorker(clientName(), {});
        connect(queries, &TrelanQueryWorker::workerConnected, this, [this] { connected = true; });
        return initWorkers(new TrelanMsgWorker(clientName()), queries);
    }
};

class tst_LogStorm : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void linesCauseNoLines_data()
    {
        QTest::addColumn<int>("repeatInterval");
        QTest::newRow("repeated lines held back") << 5000;
        QTest::newRow("every line sent") << 0; // only the bus prevents a storm
    }

    /// A sender that logged the refusal of a line would send that as the next line, for ever.
    void linesCauseNoLines()
    {
        QFETCH(int, repeatInterval);
        // The bus logs that lines are lost, and perhaps that the message channel is connected.
        constexpr int LINES = 20, KEPT = 4, LINES_OF_BUS = 2;
        TrelanBusSettings settings;
        settings.setMaxClientMessages(KEPT);
        const TestBus server(settings);
        Application app("app");
        const QSignalSpy sent(&app, SIGNAL(sendLogMessage(TrelanMessage)));
        TrelanLogCreator::init(&app, SIGNAL(sendLogMessage(TrelanMessage)), "app", repeatInterval);
        app.setLogBridgeInstalled(true);
        app.setBus("127.0.0.1", server.msgPort(), server.queryPort());
        QTRY_VERIFY(app.connected);
        const QtMessageHandler before = qInstallMessageHandler(TrelanLogCreator::humanKelLog);
        for (int i = 0; i < LINES; ++i) {
            qWarning("line %d", i);
            QTest::qWait(500); // 10 s in all: only time shows that no storm comes
        }
        qInstallMessageHandler(before);
        const int excess = sent.size() - LINES;
        QVERIFY2(excess >= 0 && excess <= LINES_OF_BUS, qPrintable(QString::number(excess)));
        RawPeer logger; // receives the lines that were kept
        QVERIFY(logger.connectTo(server.msgPort()));
        QCOMPARE(logger.ask("handshake {'name':'logger'}"), "0 ");
        for (int i = LINES - KEPT; i < LINES; ++i)
            QVERIFY(logger.receiveDelivery()["msg"].toString().contains(QString("line %1").arg(i)));
    }
};

QTEST_GUILESS_MAIN(tst_LogStorm)
#include "tst_logstorm.moc"
