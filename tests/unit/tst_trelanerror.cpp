#include <trelanerror.h>

#include <QtTest/QtTest>

using bus::TrelanError;

static_assert(!std::is_constructible<TrelanError, int>::value, "a number is no code");

class tst_TrelanError : public QObject
{
    Q_OBJECT

private slots:
    void texts()
    {
        const QMap<int, const char *> texts {{0, ""},
                                             {1, "Incorret request size"},
                                             {2, "Incorrect request data"},
                                             {3, "Unregisterd client"},
                                             {4, "Unsupported request"},
                                             {5, ""},
                                             {256, "Invalid data storage"},
                                             {512, "Storage access error"}};
        for (const int code : texts.keys()) {
            TrelanError error {TrelanError::Error(code)};
            QCOMPARE(error.description(), QString::fromLatin1(texts[code]));
            QCOMPARE(error, TrelanError(error.error(), QStringLiteral("only the code counts")));
            QCOMPARE(error != TrelanError(), code != 0);
            error.setError(TrelanError::StorageAccessError);
            QCOMPARE(error.description(), QString::fromLatin1(texts[code]));
        }
    }
};

QTEST_APPLESS_MAIN(tst_TrelanError)
#include "tst_trelanerror.moc"
