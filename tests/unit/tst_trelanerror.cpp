#include "testsupport.h"

#include <trelanerror.h>

using namespace bus;

static_assert(!std::is_constructible<TrelanError, int>::value, "a number is no code");

class tst_TrelanError : public QObject
{
    Q_OBJECT

private slots:
    void texts_data() { addTestRows("errors.json"); }

    void texts()
    {
        QFETCH(QJsonObject, row);
        TrelanError error {TrelanError::Error(row[u"code"].toInt())};
        QCOMPARE(error, TrelanError(error.error(), "only the code counts"));
        QCOMPARE(error != TrelanError(), row[u"code"].toInt() != 0);
        error.setError(TrelanError::StorageAccessError);
        QCOMPARE(error.description(), row[u"text"].toString());
    }
};

QTEST_APPLESS_MAIN(tst_TrelanError)
#include "tst_trelanerror.moc"
