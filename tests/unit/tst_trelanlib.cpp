#include <testtable.h>
#include <trelancontroller.h>
#include <trelanlib.h>
#include <trelanlogcreator.h>
#include <trelanmessagereciever.h>
#include <trelanmsgworker.h>
#include <trelanqueryhandler.h>
#include <trelanqueryworker.h>

#include <appversionmanager.h>

Q_DECLARE_METATYPE(const QMetaObject *)

class tst_TrelanLib : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void typesHaveTwoNames()
    {
        QByteArrayList names {"TrelanConnectionState", "bus::TrelanConnectionState"};
        for (const QByteArray frame : {"%", "QSharedPointer<%>"}) {
            for (const QByteArray type : {"TrelanMessage", "TrelanObject", "TrelanCommand"})
                names << QByteArray(frame).replace("%", type)
                      << QByteArray(frame).replace("%", "bus::" + type);
        }
        for (int i = 0; i < names.size(); i += 2) {
            const int id = QMetaType::type(names[i]);
            QVERIFY2(id != QMetaType::UnknownType, names[i]);
            QCOMPARE(QMetaType::type(names[i + 1]), id);
        }
    }

    void methodsKeepTheirPlaces_data()
    {
        // Signals and slots may be reached by number: what is added comes after those before it.
        // Slots come after all signals, and go on by as many as are added.
        const TestTable<const QMetaObject *, QStringList> row("type", "names");
        const auto names = [](const char *text) { return QString(text).split(' '); };
        row("query handler", &bus::TrelanQueryHandler::staticMetaObject,
            names("busDisconnected kelbusConnected open close rmPersistent publish publish "
                  "subscribe subscribe unsubscribe unsubscribe sendMessage sendCommand "
                  "socketConnected socketDisconnected socketError handshake request request "
                  "processReply"));
        row("receiver signals", &bus::TrelanMessageReciever::staticMetaObject,
            names("incomingMessage incomingObject incomingCommand busDisconnected "
                  "kelbusConnected handshakeRefused handshakeAccepted objectRemoved"));
        row("message worker signals", &bus::TrelanMsgWorker::staticMetaObject,
            names("unprocessedMessage unprocessedObject unprocessedCommand workerConnected "
                  "stateChanged objectRemoved"));
        row("query worker", &bus::TrelanQueryWorker::staticMetaObject,
            names("workerConnected objectLoaded stateChanged sendMessage publish subscribe "
                  "subscribe unsubscribe unsubscribe sendCommand loadObject"));
        row("controller", &bus::TrelanController::staticMetaObject,
            names("unprocessedMessage unprocessedObject unprocessedCommand sendLogMessage "
                  "sendMessage publish subscribe subscribe unsubscribe unsubscribe sendCommand "
                  "loadObject objectLoaded stateChanged objectRemoved setBus"));
        row("log creator", &bus::TrelanLogCreator::staticMetaObject,
            names("sendMessage sendMessage"));
    }

    void methodsKeepTheirPlaces()
    {
        QFETCH(const QMetaObject *, type);
        QFETCH(QStringList, names);
        QStringList found;
        for (int i = 0; i < names.size(); ++i)
            found += type->method(type->methodOffset() + i).name();
        QCOMPARE(found, names);
    }

    void receiverSlotsKeepTheirOrder()
    {
        const QMetaObject &type = bus::TrelanMessageReciever::staticMetaObject;
        int last = -1;
        for (const char *slot :
             {"open()", "close()", "socketConnected()", "socketDisconnected()",
              "socketError(QAbstractSocket::SocketError)", "onSocketReadyRead()", "handshake()",
              "request(QString,QVariantMap)", "reply(QString,TrelanError,QVariantMap)"}) {
            const int index = type.indexOfSlot(slot);
            QVERIFY2(index > last, slot);
            last = index;
        }
    }

    void version()
    {
        const bus::TrelanLib second; // links the library in, and must not register anything twice
        const auto version = morvik::AppVersionManager::version("trelanclient");
        QCOMPARE(version.version(), "1.2.1");
        QVERIFY(QDateTime::fromString(version.buildDate(), Qt::ISODate).isValid());
    }

    void translation_data()
    {
        const TestTable<QString> row("expected"); // a name tells mode, locale and languages
        for (const char *german :
             {"before de_DE.UTF-8 ", "before de_AT.UTF-8 ", "before fi_FI.UTF-8 fi:de",
              "after de_DE.UTF-8 ", "thread de_DE.UTF-8 ", "again de_DE.UTF-8 "})
            row(german, "Anfrage nicht unterst\u00fctzt|1\n");
        for (const char *english :
             {"before C ", "before fi_FI.UTF-8 ", "before en_GB.UTF-8 en_GB:de"})
            row(english, "Unsupported request|0\n");
    }

    void translation()
    {
        const QStringList how = QString(QTest::currentDataTag()).split(' ');
        QProcess probe;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LC_ALL", how[1]);
        environment.insert("LANGUAGE", how[2]);
        probe.setProcessEnvironment(environment);
        probe.start(TRANSLATION_PROBE, {how[0], TRELANCLIENT_LIBRARY});
        QVERIFY(probe.waitForFinished());
        QTEST(QString::fromUtf8(probe.readAllStandardOutput()), "expected");
        QCOMPARE(QString::fromUtf8(probe.readAllStandardError()), QString());
        QCOMPARE(probe.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_TrelanLib)
#include "tst_trelanlib.moc"
