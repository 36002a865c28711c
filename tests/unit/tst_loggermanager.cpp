#include <loggermanager.h>

#include <QtTest/QtTest>

#include <thread>

class tst_LoggerManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void outputsThatHandLinesOnDoNotWaitForEachOther()
    {
        QStringList a, b;
        const auto output = [](QStringList &lines) {
            return [&lines](QtMsgType type, const QMessageLogContext &at, const QString &text) {
                lines << text;
                LoggerManager::handle(type, at, QStringLiteral("nested"));
            };
        };
        LoggerManager::addOutput(QStringLiteral("a"), output(a));
        LoggerManager::addOutput(QStringLiteral("b"), output(b));
        LoggerManager::install();
        const auto log = [] {
            for (int i = 0; i < 1000; ++i)
                qInfo("line");
        };
        std::thread other(log);
        log();
        other.join();
        for (const QStringList &lines : {a, b}) {
            QCOMPARE(lines.count(QStringLiteral("line")), 2000);
            QCOMPARE(lines.count(QStringLiteral("nested")), 2000); // of the other one
        }
        LoggerManager::removeOutput(QStringLiteral("a"));
        qInfo("last");
        LoggerManager::uninstall();
        qInfo("printed");
        LoggerManager::removeOutput(QStringLiteral("b"));
        QCOMPARE(a.size(), 4000);
        QCOMPARE(b.mid(4000), QStringList {QStringLiteral("last")});
    }
};

QTEST_APPLESS_MAIN(tst_LoggerManager)
#include "tst_loggermanager.moc"
