#include <jsonreader.h>
#include <jsonwriter.h>

#include <QtCore/QDateTime>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QUrl>
#include <QtCore/QUuid>
#include <QtTest/QtTest>

#include <cmath>
#include <random>

using namespace bus;

// Qt leaks a value when a JSON object has its key a second time. The sanitizer calls this to learn
// which leaks to leave out.
//
// NOLINTNEXTLINE
extern "C" Q_DECL_EXPORT const char *__lsan_default_suppressions()
{
    return "leak:libQt5Core";
}

namespace
{

/// Spells values with their types, since QCOMPARE takes 1 and 1.0 for equal.
QString typed(const QVariant &value)
{
    QString text;
    QDebug(&text).nospace() << qSetRealNumberPrecision(17) << value;
    return text;
}

/// Returns how writing or reading differs from Qt; an empty text if it does not.
QString difference(const QVariantMap &map)
{
    const QJsonDocument document = QJsonDocument::fromVariant(map);
    const QByteArray compact = document.toJson(QJsonDocument::Compact);
    if (json::compact(map) != compact)
        return "not " + compact + " but " + json::compact(map);
    if (json::indented(map) != document.toJson())
        return "not " + document.toJson() + " but " + json::indented(map);
    QByteArray text;
    if (json::appendCompact(text, map) && json::exact(map) != compact)
        return "exactly " + json::exact(map);
    QVariantMap read;
    if (!json::read(compact, read) ||
        typed(read) != typed(QJsonDocument::fromJson(compact).object().toVariantMap()))
        return "read as " + typed(read);
    return {};
}

QVariantMap nested(QVariant value, int depth)
{
    for (int i = 0; i < depth; ++i)
        value = i % 2 ? QVariant(QVariantMap {{"k", value}, {"l", 1}}) : QVariantList {1, value};
    return {{"k", value}};
}

} // namespace

/// The reader and writer of JSON, which have to agree with QJsonDocument in everything.
class tst_TrelanJson : public QObject
{
    Q_OBJECT

private slots:
    void reads_data()
    {
        QTest::addColumn<QByteArray>("text");
        const QByteArray mark = "\xef\xbb\xbf";
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("a number") << QByteArray("12");
        QTest::newRow("an array") << QByteArray(" [{\"a\": 1}]\n");
        QTest::newRow("something behind") << QByteArray("{} x");
        QTest::newRow("NUL behind") << QByteArray("{}\0", 3);
        QTest::newRow("cut") << QByteArray("{\"a\": tru");
        QTest::newRow("mark in front") << mark + "{\"a\": \"b\"}";
        QTest::newRow("mark in strings")
            << "{\"" + mark + "a\": [\"" + mark + "\\n\", \"" + mark + "x\"]}";
        QTest::newRow("unsorted") << QByteArray(
            "{\"b\":{\"d\":1,\"c\":2},\"\":0,\"a\":[],\"\xc3\xa4\":{}}");
        QTest::newRow("twice") << QByteArray("{\"a\":1,\"b\":{\"c\":1},\"\\u0061\":2,\"b\":[3]}");
        const auto list = [](const QByteArray &entries) { return "{\"a\":[" + entries + "]}"; };
        const QByteArray alike = "{\"k\":1,\"l\":[{}]},{\"k\":{\"l\":2},\"l\":null},";
        QTest::newRow("list of maps alike") << list(alike + alike + "0," + alike + "{\"k\":1}");
        QTest::newRow("list of maps with other keys")
            << list(alike + "{\"k\":3,\"m\":4},{\"k\":5,\"m\":6},{\"k\":7},{},{}," + alike + "{}");
        QTest::newRow("list of unsorted maps")
            << list(QByteArray("{\"l\":1,\"k\":2},").repeated(4) + alike + "{}");
        // UTF-16 sorts these keys the other way round than UTF-8.
        QTest::newRow("list of maps sorted as UTF-8")
            << list(QByteArray("{\"\uff5e\":1,\"\U0001f600\":2},").repeated(4) + "{}");
        QTest::newRow("list of maps, one with a key twice")
            << list(alike + alike + "{\"k\":1,\"k\":2}");
        QByteArray many; // Qt sorts more than sixteen keys by another algorithm
        for (int i = 0; i < 40; ++i)
            many += "\"" + QByteArray::number(i * 7 % 20) + "\":" + QByteArray::number(i) + ",";
        QTest::newRow("many twice") << "{" + many + "\"x\":{}}";
        QTest::newRow("escapes") << QByteArray(
            "{\"a\\\"\\\\\\/"
            "\\b\\f\\n\\r\\t\":\"\\u00e4\\u20ac\\ud83d\\ude00\\u0000\\u001f\\u007f\"}");
        QTest::newRow("no escape") << QByteArray("{\"a\":\"\\q\"}");
        QTest::newRow("half pairs") << QByteArray("{\"a\":\"\\ud800\",\"b\":\"\\udc00\\ud800x\"}");
        QTest::newRow("control characters") << QByteArray("{\"a\":\"\x01\n\"}");
        QTest::newRow("no characters") << QByteArray("{\"a\":\"\xef\xbf\xbe \xf4\x8f\xbf\xbf\"}");
        for (const char *bytes :
             {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"})
            QTest::newRow(qPrintable(QByteArray(bytes).toHex()))
                << QByteArray("{\"a\":\"") + bytes + "\"}";
        const QByteArray numbers =
            "0 -0 -0.0 0.0 0e-5 1.0 1e3 1E+18 1e19 1.5 -2.5e-3 01 +1 .5 1. 1e - "
            "9007199254740993 9223372036854775807 9223372036854775808 -9223372036854775808 "
            "-9223372036854775809 -9223372036854775808.0 18446744073709551615 "
            "18446744073709551616 123456789012345678901234567890 1e400 1e-400 1e-320 "
            "4.9e-324 1.7976931348623157e308 NaN";
        for (const QByteArray &number : numbers.split(' '))
            QTest::newRow(number) << "{\"a\":[" + number + ", 0.0]}";
        QTest::newRow("too small without exponent") << "{\"a\":0." + QByteArray(400, '0') + "1}";
        for (const int depth : {100, 127, 128, 1023, 1024})
            QTest::addRow("depth %d", depth)
                << "{\"a\":" + QByteArray(depth, '[') + QByteArray(depth, ']') + '}';
        QTest::newRow("large") << "{\"a\":[" +
                                      QByteArray("\"text\", {\"b\":1.25},").repeated(50000) + "0]}";
    }

    void reads()
    {
        QFETCH(QByteArray, text);
        QJsonParseError error {};
        const QVariantMap wanted = QJsonDocument::fromJson(text, &error).object().toVariantMap();
        QByteArray roomy = text;
        roomy.reserve(text.size() + json::SPARE);
        for (const QByteArray &bytes : {text, roomy}) {
            QVariantMap map {{"old", 1}};
            QString errorText;
            QCOMPARE(json::read(bytes, map, &errorText), error.error == QJsonParseError::NoError);
            QCOMPARE(errorText, errorText.isEmpty() ? QString() : error.errorString());
            QCOMPARE(typed(map), typed(wanted));
            QCOMPARE(difference(map), QString());
        }
    }

    void writes_data()
    {
        QTest::addColumn<QVariant>("value");
        const auto add = [](const char *name, const QVariant &value) {
            QTest::newRow(name) << value;
        };
        add("nothing", {});
        add("nullptr", QVariant::fromValue(nullptr));
        add("bools", QVariantList {true, false});
        add("integers", QVariantList {0, -1, INT_MIN, UINT_MAX, LLONG_MIN, LLONG_MAX,
                                      quint64(LLONG_MAX), quint64(LLONG_MAX) + 1, ULLONG_MAX});
        add("short ones", QVariantList {QVariant::fromValue(short(-3)), QVariant::fromValue('c'),
                                        QVariant::fromValue(7L), QVariant::fromValue(uchar(200))});
        add("floats", QVariantList {1.1F, 0.1F, 1e30F, -2.F});
        add("no numbers", QVariantList {qQNaN(), qInf(), -qInf(), std::nanf("")});
        QVariantList doubles;
        const QByteArray numbers =
            "0.0 -0.0 1.5 -12.75 0.1 0.00012345 0.0001 0.00001 1.25e-5 5e-324 1e15 1e16 "
            "1e17 9.5e18 1e21 1e22 1.5e300 1.7e-300 1e100 123456.789 1e-4 9.99e-5 -1e-3 "
            "4503599627370497.5 1.8446744073709552e19 0.3333333333333333";
        for (const QByteArray &number : numbers.split(' '))
            doubles << number.toDouble();
        add("doubles", doubles);
        add("text",
            "\"\\\b\f\n\r\t\x01\x1f\x7f/ \u00e4\u20ac\U0001f600 and a longer run \u2028 of it");
        add("null text", QString());
        add("half pairs", QString(QChar(0xd800)) + "x" + QChar(0xdc00) + QChar(0xd83d));
        add("mark", QString(QChar(0xfeff)) + "x");
        add("bytes", QByteArray("a\xff\0b", 4));
        add("texts", QStringList {"a", "", "\u00e4"});
        add("empty ones", QVariantList {QVariantMap(), QVariantList(), QStringList(),
                                        QVariantHash(), QString("")});
        add("hash", QVariantHash {{"b", 1}, {"a", QVariantList {QVariantMap {{"c", "\n"}}}}});
        add("date", QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC));
        add("other types", QVariantList {QUuid(), QUrl("http://a/b c"), QDate(2024, 2, 29),
                                         QChar('x'), QPoint(1, 2)});
        add("JSON",
            QVariantList {QJsonValue(), QJsonValue(QJsonValue::Undefined),
                          QJsonObject {{"b", QJsonArray {1, 2}}}, QJsonDocument(QJsonArray {1})});
        for (const int depth : {126, 127, 300})
            QTest::addRow("depth %d", depth)
                << QVariant(nested(QVariantHash {{"a", QVariantMap()}}, depth));
    }

    void writes()
    {
        QFETCH(QVariant, value);
        QCOMPARE(difference({{"", value}, {"a \"key\"", QVariantList {value, 1}}, {"z", "end"}}),
                 QString());
        QByteArray text = "[";
        json::appendString(text, value.toString());
        QCOMPARE(text + ']',
                 QJsonDocument(QJsonArray {value.toString()}).toJson(QJsonDocument::Compact));
    }

    void manyNumbersAndTexts()
    {
        std::mt19937_64 random(5);
        for (int round = 0; round < 20000; ++round) {
            const quint64 bits = random();
            double any = 0;
            memcpy(&any, &bits, sizeof any);
            const double usual = double(qint64(bits >> 20)) / std::pow(10, bits % 20);
            QString text;
            for (int left = int(bits % 40); left > 0; --left)
                text += QChar(ushort(random() >> (random() % 4 ? 57 : 48)));
            QCOMPARE(difference({{text, QVariantList {any, usual, float(usual), text}}}),
                     QString());
        }
    }

    void wholeNumbersExactly()
    {
        const QVariantList numbers {9007199254740993LL, LLONG_MIN, ULLONG_MAX, -1, 1e18, 0.5};
        QByteArray expected = "{'a':[9007199254740993,-9223372036854775808,18446744073709551615,-1,"
                              "1000000000000000000,0.5],'b':{'c':9223372036854775807}}";
        const QVariantMap map {{"a", numbers}, {"b", QVariantHash {{"c", LLONG_MAX}}}};
        QCOMPARE(json::exact(map), expected.replace('\'', '"'));
        QVERIFY(!json::appendCompact(expected, map));
    }

    void utf8AsText()
    {
        std::mt19937 random(9);
        const QString characters =
            QString("ab\"\\/\b\n\t\x1f\x7f%1").arg(QString::fromUtf8("\u00e4\u20ac\U0001f600"));
        for (int round = 0; round < 2000; ++round) {
            // The first two are large, so that writing past the buffer does not go unnoticed.
            QString text(round < 2 ? 1000000 : 0, round == 0 ? QChar('"') : QChar(1));
            const quint32 kinds = round % 2 ? 5 : 11; // the latter with long escapes
            for (quint32 count = random() % 40; count > 0; --count)
                text += characters.mid(int(random() % kinds), 1);
            text += characters.right(int(2 * (random() % 2)));
            QByteArray expected = "in front", written = expected;
            json::appendString(expected, text);
            json::appendString(written, text.toUtf8());
            QCOMPARE(written, expected);
        }
    }
};

QTEST_APPLESS_MAIN(tst_TrelanJson)
#include "tst_trelanjson.moc"
