#include "testsupport.h"

#include <trelanerror.h>
#include <trelanqueryhandler.h>

#include <QtCore/QTranslator>

using namespace bus;

static_assert(!std::is_constructible<TrelanError, int>::value, "a number is no code");

/// Translates nothing, and remembers what it was asked for.
class Translator : public QTranslator
{
public:
    mutable QStringList texts;

    bool isEmpty() const override { return false; }
    QString translate(const char *, const char *text, const char *, int) const override
    {
        texts << text;
        return {};
    }
};

class tst_TrelanError : public QObject
{
    Q_OBJECT

private slots:
    void translatorAfterNoErrorCounts()
    {
        const TrelanQueryHandler withoutError("me");
        QCOMPARE(TrelanError(TrelanError::NoError).description(), QString());
        Translator translator;
        QCoreApplication::installTranslator(&translator);
        const TrelanError error(TrelanError::UnsupportedRequest);
        QVERIFY(translator.texts.contains("Unsupported request"));
    }

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

QTEST_GUILESS_MAIN(tst_TrelanError)
#include "tst_trelanerror.moc"
