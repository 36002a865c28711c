#include <trelanerror.h>

#include <QtTest/QtTest>

#include <type_traits>

using bus::TrelanError;

static_assert(!std::is_constructible<TrelanError, int>::value, "a number is no code");

class tst_TrelanError : public QObject
{
    Q_OBJECT

private slots:
    void texts_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("none") << 0 << QString();
        QTest::newRow("size") << 1 << QStringLiteral("Incorret request size");
        QTest::newRow("data") << 2 << QStringLiteral("Incorrect request data");
        QTest::newRow("client") << 3 << QStringLiteral("Unregisterd client");
        QTest::newRow("request") << 4 << QStringLiteral("Unsupported request");
        QTest::newRow("unknown") << 5 << QString();
        QTest::newRow("storage") << 256 << QStringLiteral("Invalid data storage");
        QTest::newRow("access") << 512 << QStringLiteral("Storage access error");
    }

    void texts()
    {
        QFETCH(int, code);
        TrelanError error {TrelanError::Error(code)};
        QCOMPARE(int(error.error()), code);
        QTEST(error.description(), "text");
        const QString text = error.description();
        error.setError(TrelanError::StorageAccessError);
        QCOMPARE(error.description(), text);
    }

    void comparisonIsOfCodes()
    {
        const TrelanError own(TrelanError::UnregisteredClient, QStringLiteral("x"));
        QCOMPARE(own.description(), QStringLiteral("x"));
        QVERIFY(own == TrelanError(TrelanError::UnregisteredClient));
        QVERIFY(own != TrelanError(TrelanError::UnsupportedRequest));
        QVERIFY(TrelanError() == TrelanError(TrelanError::NoError));
    }
};

QTEST_APPLESS_MAIN(tst_TrelanError)
#include "tst_trelanerror.moc"
