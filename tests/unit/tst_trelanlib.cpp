#include <testtable.h>
#include <trelanlib.h>
#include <trelanmessage.h>

#include <appversionmanager.h>

/// Spells the type as applications do that use the namespace: connect strings are compared as text.
using bus::TrelanMessage;

class Peer : public QObject
{
    Q_OBJECT
public:
    QString delivered;
    QSemaphore done;
public Q_SLOTS:
    void receive(TrelanMessage message)
    {
        delivered = QThread::currentThread() == thread() ? message.message() : QString();
        done.release();
    }
Q_SIGNALS:
    void sendMessage(TrelanMessage message);
};

class tst_TrelanLib : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void typesHaveTwoNames()
    {
        for (const QByteArray frame : {"%", "QSharedPointer<%>"}) {
            for (const QByteArray type : {"TrelanMessage", "TrelanObject", "TrelanCommand"}) {
                const int shortName = QMetaType::type(QByteArray(frame).replace("%", type));
                const int fullName =
                    QMetaType::type(QByteArray(frame).replace("%", "bus::" + type));
                QVERIFY2(shortName != QMetaType::UnknownType, type);
                QCOMPARE(fullName, shortName);
            }
        }
    }

    void queuedConnectionByName()
    {
        QThread thread;
        Peer sender;
        Peer receiver;
        receiver.moveToThread(&thread);
        connect(&sender, SIGNAL(sendMessage(TrelanMessage)), &receiver,
                SLOT(receive(TrelanMessage)));
        thread.start();

        TrelanMessage message;
        message.setMessage("hello");
        emit sender.sendMessage(message);
        const bool done = receiver.done.tryAcquire(1, 10000);
        thread.quit();
        thread.wait();
        QVERIFY(done);
        QCOMPARE(receiver.delivered, "hello");
    }

    void version()
    {
        const bus::TrelanLib second; // registers nothing twice, and links the library in
        const auto version = morvik::AppVersionManager::version("trelanclient");
        QCOMPARE(version.version(), "1.2.1");
        QVERIFY(QDateTime::fromString(version.buildDate(), Qt::ISODate).isValid());
    }

    void translation_data()
    {
        const TestTable<QString, QString, QString, QString> row("mode", "locale", "languages",
                                                                "expected");
        const char *german = "Anfrage nicht unterst\u00fctzt|1\n";
        const char *english = "Unsupported request|0\n";
        row("C", "before", "C", "", english);
        row("German", "before", "de_DE.UTF-8", "", german);
        row("German in Austria", "before", "de_AT.UTF-8", "", german);
        row("no such translation", "before", "fi_FI.UTF-8", "", english);
        row("second choice", "before", "fi_FI.UTF-8", "fi:de", german);
        row("second to English", "before", "en_GB.UTF-8", "en_GB:de", english);
        row("loaded into an application", "after", "de_DE.UTF-8", "", german);
        row("loaded by a thread", "thread", "de_DE.UTF-8", "", german);
        row("second application object", "again", "de_DE.UTF-8", "", german);
    }

    void translation()
    {
        QFETCH(QString, mode);
        QFETCH(QString, locale);
        QFETCH(QString, languages);
        QProcess probe;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LC_ALL", locale);
        environment.insert("LANGUAGE", languages);
        probe.setProcessEnvironment(environment);
        probe.start(QStringLiteral(TRANSLATION_PROBE),
                    {mode, QStringLiteral(TRELANCLIENT_LIBRARY)});
        QVERIFY(probe.waitForFinished());
        QTEST(QString::fromUtf8(probe.readAllStandardOutput()), "expected");
        QCOMPARE(QString::fromUtf8(probe.readAllStandardError()), QString());
        QCOMPARE(probe.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_TrelanLib)
#include "tst_trelanlib.moc"
