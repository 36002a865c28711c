#include <daemon.h>
#include <trelanclient.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

#include <limits>
#include <memory>

using namespace bus;

namespace
{

constexpr int LONG_MS = 30000;

/// A value with its types: 1 and 1.0, null and an empty text, and zeros of either sign differ.
QString shown(const QVariant &value)
{
    QStringList parts;
    switch (int(value.type())) {
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        for (auto at = map.cbegin(); at != map.cend(); ++at)
            parts << shown(at.key()) + ":" + shown(at.value());
        return "{" + parts.join(",") + "}";
    }
    case QMetaType::QVariantList:
        for (const QVariant &entry : value.toList())
            parts << shown(entry);
        return "[" + parts.join(",") + "]";
    case QMetaType::Double:
        return "double " + QString::number(value.toDouble(), 'g', 17);
    default:
        return QString(value.typeName()) + " '" + value.toString() + "'";
    }
}

/// Awaits the end of an operation, with events; empty if it was done, or why not.
QString ended(const TrelanPending &pending)
{
    return QTest::qWaitFor([&] { return pending.isFinished(); }, LONG_MS)
               ? pending.failure().toString()
               : "has not ended";
}

struct Text
{
    const char *name;
    QString text;
    QByteArray python; // as Python prints it
};

QList<Text> texts()
{
    using namespace std::string_literals;
    const auto utf8 = [](const std::string &bytes) { return QString::fromStdString(bytes); };
    return {
        {"empty", "", "\"\""},
        {"NUL", utf8("a\0b"s), R"("a\u0000b")"},
        {"control characters", utf8("\x01\b\t\n\f\r\x1f\x7f"), R"("\u0001\b\t\n\f\r\u001f\u007f")"},
        {"quotes", R"("\/'{}[])", R"("\"\\/'{}[]")"},
        {"BMP", utf8("Grüße 世界 \u2028\uffff"), R"("Gr\u00fc\u00dfe \u4e16\u754c \u2028\uffff")"},
        {"astral", utf8("\U0001f680\U0010ffff"), R"("\ud83d\ude80\udbff\udfff")"},
        {"composed and combining", utf8("\u00e9e\u0301"), R"("\u00e9e\u0301")"},
        {"right to left", utf8("\u05e9\u05dc\u05d5\u05dd \u202e\u0645\u202c"),
         R"("\u05e9\u05dc\u05d5\u05dd \u202e\u0645\u202c")"},
        {"JSON", R"({"__name__":{"a":1}})", R"("{\"__name__\":{\"a\":1}}")"},
        {"byte order mark inside", utf8("a\ufeff"), R"("a\ufeff")"},
        {"very long", utf8("ü\U0001f680").repeated(50000),
         "\"" + QByteArray(R"(\u00fc\ud83d\ude80)").repeated(50000) + "\""}};
}

} // namespace

class tst_Python : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(_bus.start());
        const auto settings = TrelanClientSettings().setPorts(_bus.msgPort, _bus.queryPort);
        _client = std::make_unique<TrelanClient>("cpp", settings);
        connect(_client.get(), &TrelanClient::messageReceived, this,
                [this](const TrelanMessage &message) {
                    _received << message.sender() + ": " + message.message();
                });
        const auto changed = [this](const TrelanObject &object) {
            _received << object.name() + " = " + shown(object.content());
        };
        const auto removed = [this](const QString &name) { _received << "no " + name; };
        QCOMPARE(ended(_client->watch("to.cpp.*", this, changed, removed)), QString());
        _client->serve("give", this, [this](const TrelanCommand &call) {
            _received << call.sender() + " calls " + shown(call.params());
            return _given;
        });
        _client->serve("fail", this, [](const TrelanCall &call) {
            call.fail(call.command().params().value("why").toString());
        });
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert("PYTHONPATH", PYTHON_FOLDER);
        environment.insert("PYTHONDONTWRITEBYTECODE", "1");
        _python.setProcessEnvironment(environment);
        _python.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        _python.start(PYTHON, {PYTHON_FOLDER "/tests/peer.py", "py",
                               QString::number(_bus.queryPort), QString::number(_bus.msgPort)});
        QTRY_VERIFY_WITH_TIMEOUT(_python.canReadLine(), LONG_MS);
        QCOMPARE(_python.readLine(), QByteArray("ready\n"));
    }
    void cleanupTestCase()
    {
        _python.kill();
        QVERIFY(_python.waitForFinished());
    }

    void values_data()
    {
        QTest::addColumn<QVariant>("value");  // what C++ sends
        QTest::addColumn<QByteArray>("text"); // what Python has got then
        QTest::addColumn<QByteArray>("sent"); // what Python sends
        QTest::addColumn<QVariant>("read");   // what C++ has got then
        const auto differs = [](const char *name, const QVariant &value, const QByteArray &text,
                                const QByteArray &sent, const QVariant &read) {
            QTest::newRow(name) << value << text << sent << read;
        };
        const auto same = [&](const char *name, const QVariant &value, const QByteArray &text) {
            differs(name, value, text, text, value);
        };
        const QVariant null = QVariant::fromValue(nullptr);
        same("null", null, "null");
        same("true", true, "true");
        same("false", false, "false");
        same("0", 0LL, "0");
        differs("-0.0", -0.0, "0", "-0.0", 0LL);
        differs("whole double", 21.0, "21", "21.0", 21LL);
        differs("1e18", 1e18, "1000000000000000000", "1e+18", 1000000000000000000LL);
        same("2^53-1", 9007199254740991LL, "9007199254740991");
        same("2^53", 9007199254740992LL, "9007199254740992");
        same("2^53+1", 9007199254740993LL, "9007199254740993");
        same("-2^53-1", -9007199254740993LL, "-9007199254740993");
        same("2^63-1", std::numeric_limits<qlonglong>::max(), "9223372036854775807");
        same("-2^63", std::numeric_limits<qlonglong>::min(), "-9223372036854775808");
        differs("2^64-1", std::numeric_limits<qulonglong>::max(), "18446744073709551615",
                "18446744073709551615", 18446744073709551616.0);
        same("0.1", 0.1, "0.1");
        same("-2.5", -2.5, "-2.5");
        same("1e22", 1e22, "1e+22");
        same("1e308", 1e308, "1e+308");
        same("-1.7976931348623157e308", -1.7976931348623157e308, "-1.7976931348623157e+308");
        same("5e-324", 5e-324, "5e-324");
        differs("NaN", qQNaN(), "null", "null", null);
        same("empty list", QVariantList(), "[]");
        same("empty map", QVariantMap(), "{}");
        same("nested",
             QVariantList {QVariantMap {{"", QVariantMap()}, {"a", QVariantList {null}}},
                           QVariantList {QVariantList()}, "", 1LL},
             R"([{"":{},"a":[null]},[[]],"",1])");
        QVariant deep = QVariantList();
        for (int i = 1; i < 100; ++i)
            deep = QVariantList {deep};
        same("100 levels", deep, QByteArray(100, '[') + QByteArray(100, ']'));
        for (const Text &row : texts()) {
            same(row.name, row.text, row.python);
            same(qPrintable("key: " + QString(row.name)), QVariantMap {{row.text, 1LL}},
                 "{" + row.python + ":1}");
        }
        const QString marked = QChar(0xfeff) + QString("a"); // a literal would lose the mark
        differs("byte order mark", marked, R"("\ufeffa")", R"("\ufeffa")", "a");
    }
    void values()
    {
        QFETCH(QVariant, value);
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, sent);
        QFETCH(QVariant, read);
        const auto map = [](const QVariant &one) { return QVariantMap {{"v", one}}; };
        const auto json = [](const QByteArray &one) { return QString("{\"v\":" + one + "}"); };
        _given = map(value);

        QCOMPARE(ended(_client->publish("to.py.a", _given)), QString());
        QCOMPARE(line(), "changed to.py.a " + json(text));
        QCOMPARE(asked("get", {{"name", "to.py.a"}}), json(text));
        QCOMPARE(asked("text", _given), json(text));
        const auto echo = _client->call("py", "echo", _given);
        QCOMPARE(ended(echo), QString());
        QCOMPARE(shown(echo.result()), shown(map(read)));

        QCOMPARE(asked("publish", {{"name", "to.cpp.a"}, {"text", json(sent)}}), "null");
        QCOMPARE(received(), "to.cpp.a = " + shown(map(read)));
        const auto load = _client->load("to.cpp.a");
        QCOMPARE(ended(load), QString());
        QCOMPARE(shown(load.result().content()), shown(map(read)));
        QCOMPARE(asked("call", {{"to", "cpp"}, {"command", "give"}, {"text", json(sent)}}),
                 json(text));
        QCOMPARE(received(), "py calls " + shown(map(read)));
    }

    void messages_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("python");
        for (const Text &row : texts())
            QTest::newRow(row.name) << row.text << row.python;
    }
    void messages()
    {
        QFETCH(QString, text);
        QFETCH(QByteArray, python);
        QCOMPARE(ended(_client->send("py", text)), QString());
        QCOMPARE(line(), "message cpp " + python);
        QCOMPARE(asked("send", {{"to", "cpp"}, {"text", QString(python)}}), "null");
        QCOMPARE(received(), "py: " + text);
    }

    void removals()
    {
        const QString name = QString::fromUtf8(".Grüße \U0001f680");
        QCOMPARE(asked("publish", {{"name", "to.cpp" + name}, {"text", "{}"}}), "null");
        QCOMPARE(received(), "to.cpp" + name + " = {}");
        QCOMPARE(asked("rm", {{"name", "to.cpp" + name}}), "null");
        QCOMPARE(received(), "no to.cpp" + name);
        QCOMPARE(ended(_client->publish("to.py" + name, {})), QString());
        QCOMPARE(line(), "changed to.py" + name + " {}");
        QCOMPARE(ended(_client->remove("to.py" + name)), QString());
        QCOMPARE(line(), "removed to.py" + name + " {}");
    }

    void failures_data()
    {
        QTest::addColumn<bool>("isThere");
        QTest::addColumn<QString>("command"); // none is a message
        QTest::addColumn<QString>("says");
        QTest::newRow("error") << true << "fail" << texts()[5].text;
        QTest::newRow("not served") << true << "absent"
                                    << "absent";
        QTest::newRow("nobody to call") << false << "fail"
                                        << "nobody";
        QTest::newRow("nobody to read") << false << ""
                                        << "nobody";
    }
    void failures()
    {
        QFETCH(bool, isThere);
        QFETCH(QString, command);
        QFETCH(QString, says);
        const QString toPython = isThere ? "py" : "nobody", toCpp = isThere ? "cpp" : "nobody";
        const QVariantMap why {{"why", says}};
        const TrelanPending pending = command.isEmpty() ? _client->send(toPython, says)
                                                        : _client->call(toPython, command, why);
        const QString failure = ended(pending);
        QCOMPARE(pending.failure().kind(),
                 isThere ? TrelanFailure::AnswerError : TrelanFailure::NobodyThere);
        QVERIFY2(failure.contains(says), qPrintable(failure));
        const QString text = QJsonDocument(QJsonObject {{"why", says}}).toJson();
        const QString raised =
            command.isEmpty()
                ? asked("send", {{"to", toCpp}, {"text", "\"text\""}})
                : asked("call", {{"to", toCpp}, {"command", command}, {"text", text}});
        QVERIFY2(raised.startsWith(isThere ? "AnswerError: " : "NobodyThere: "),
                 qPrintable(raised));
        QVERIFY2(raised.contains(says), qPrintable(raised));
    }

private:
    /// The next line that Python prints: kind, name and text.
    QString line()
    {
        if (!QTest::qWaitFor([this] { return _python.canReadLine(); }, LONG_MS))
            return "no line";
        const QJsonObject said = QJsonDocument::fromJson(_python.readLine()).object();
        return said["kind"].toString() + " " + said["name"].toString() + " " +
               said["text"].toString();
    }

    /// What came next to C++.
    QString received()
    {
        if (!QTest::qWaitFor([this] { return !_received.isEmpty(); }, LONG_MS))
            return "nothing";
        return _received.takeFirst();
    }

    /// What Python answers to a command: a text, or the exception that it met.
    QString asked(const QString &command, const QVariantMap &params)
    {
        const auto answer = _client->call("py", command, params);
        const QString failure = ended(answer);
        const QVariantMap told = answer.result();
        return failure + told["text"].toString() + told["raised"].toString();
    }

    Daemon _bus {TRELANBUSD};
    std::unique_ptr<TrelanClient> _client;
    QProcess _python;
    QStringList _received;
    QVariantMap _given;
};

QTEST_GUILESS_MAIN(tst_Python)
#include "tst_python.moc"
