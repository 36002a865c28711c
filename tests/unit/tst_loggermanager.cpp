#include <loggermanager.h>

#include <QtTest/QtTest>

#include <thread>

class tst_LoggerManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void outputsThatHandLinesOnDoNotWaitForEachOther()
    {
        QMap<QString, QStringList> lines {{"a", {}}, {"b", {}}};
        for (const char *name : {"a", "b"})
            LoggerManager::addOutput(name, [&own = lines[name]](auto type, auto &at, auto &text) {
                own << text;
                LoggerManager::handle(type, at, "nested");
            });
        LoggerManager::install();
        const auto log = [] {
            for (int i = 0; i < 1000; ++i)
                qInfo("line");
        };
        std::thread other(log);
        log();
        other.join();
        for (const QStringList &own : lines) // "nested" is what the other output hands on
            QVERIFY(own.count("line") == 2000 && own.count("nested") == 2000);
        LoggerManager::removeOutput("a");
        qInfo("last");
        LoggerManager::uninstall();
        qInfo("printed");
        LoggerManager::removeOutput("b");
        QCOMPARE(lines["a"].size(), 4000);
        QCOMPARE(lines["b"].mid(4000), QStringList {"last"});
    }
};

QTEST_APPLESS_MAIN(tst_LoggerManager)
#include "tst_loggermanager.moc"
