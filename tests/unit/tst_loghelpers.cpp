#include <loghelpers.h>

#include <QtTest/QtTest>

#include <functional>

using namespace morvik;

namespace
{

using Writer = std::function<void()>;

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

QString _lastLine;

void keepLine(QtMsgType, const QMessageLogContext &, const QString &text)
{
    _lastLine = text;
}

QString logged(const Writer &write)
{
    _lastLine.clear();
    const QtMessageHandler before = qInstallMessageHandler(keepLine);
    write();
    qInstallMessageHandler(before);
    return _lastLine;
}

QString repeated(int count, char c = 'x')
{
    return QString(count, QLatin1Char(c));
}

} // namespace

Q_DECLARE_METATYPE(Writer)

class tst_LogHelpers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void line_data();
    void line();
    void cut_data();
    void cut();
};

void tst_LogHelpers::line_data()
{
    QTest::addColumn<Writer>("write");
    QTest::addColumn<QString>("expected");
    const QStringList items {"a"_s, "b \"c\""_s};
    const QVariant map = QVariantMap {{"k"_s, QVariantList {1, "x"_s, true, QVariant()}}};

    // The stream's own settings show in what follows the helper: blanks, and quotes around "t".
    const auto row = [](const char *name, const Writer &write, const char *expected) {
        QTest::newRow(name) << write << QString::fromUtf8(expected);
    };
    row(
        "list", [=] { qWarning() << 1 << loglist(items) << "t"_s; }, R"(1 ("a", "b \"c\"") "t")");
    row(
        "list, nospace", [=] { qWarning().nospace() << 1 << loglist(items) << "t"_s; },
        R"(1("a", "b \"c\"")"
        R"("t")");
    row(
        "list first, noquote", [=] { qWarning().noquote() << loglist({"a"_s}) << "t"_s; },
        R"(("a") t)");
    row(
        "list of nothing", [] { qWarning() << loglist({}); }, "()");
    row(
        "list that would forge lines",
        [] { qWarning() << loglist({"a\nb\x1b[0m\\ \u00fc\U0001F600"_s}); },
        R"(("a\nb\u001b[0m\\ )"
        "\u00fc\U0001F600\")");
    row(
        "tab", [] { qWarning() << 1 << logtab << 2 << "t"_s; }, "1\t2 \"t\"");
    row(
        "tab, nospace", [] { qWarning().nospace() << "a " << logtab << 2; }, "a \t2");
    row(
        "tab at both ends", [] { qWarning() << logtab << 1 << logtab; }, "\t1\t");
    row(
        "binary", [] { qWarning() << 1 << logbinary("\xc3\xbc", "UTF-8") << "t"_s; },
        "1 \u00fc \"t\"");
    row(
        "binary, no such codec", [] { qWarning() << logbinary("\x01\xfe", "none"); }, "01fe");
    row(
        "map", [=] { qWarning() << 1 << logvariant(map) << "t"_s; },
        R"(1 {"k":[1,"x",true,null]} "t")");
    row(
        "scalar", [] { qWarning() << logvariant(1.5); }, "1.5");
    row(
        "text", [] { qWarning() << logvariant("a\n"_s); }, R"("a\n")");
    row(
        "invalid", [] { qWarning() << logvariant(QVariant()); }, "QVariant(Invalid)");
    row(
        "no JSON", [] { qWarning() << logvariant(QVariant::fromValue(Writer())); },
        "QVariant(Writer, )");
}

void tst_LogHelpers::line()
{
    QFETCH(Writer, write);
    QTEST(logged(write), "expected");
}

void tst_LogHelpers::cut_data()
{
    QTest::addColumn<Writer>("write");
    QTest::addColumn<QString>("expected");
    const QString full = repeated(MAX_LOG_BYTES);

    QTest::newRow("binary, just fits")
        << Writer([=] { qWarning() << logbinary(full.toLatin1(), "UTF-8"); }) << full;
    QTest::newRow("binary") << Writer([=] {
        qWarning() << logbinary(full.toLatin1() + "abc", "UTF-8");
    }) << full + " ... (3 bytes more)"_s;
    QTest::newRow("binary, hex") << Writer([=] {
        qWarning() << logbinary(QByteArray(MAX_LOG_BYTES, '\1'), "none");
    }) << "01"_s.repeated(MAX_LOG_BYTES / 2) + " ... (32768 bytes more)"_s;
    QTest::newRow("list, in an item") << Writer([=] {
        qWarning() << loglist({"ab"_s, full, "cd"_s});
    }) << "(\"ab\", \""_s + full.left(MAX_LOG_BYTES - 8) + " ... (10 bytes more)"_s;
    // Escapes count as they are written, and a character is whole or not there.
    QTest::newRow("list, escapes")
        << Writer([=] { qWarning() << loglist({repeated(MAX_LOG_BYTES, '\1')}); })
        << "(\""_s + "\\u0001"_s.repeated((MAX_LOG_BYTES - 2) / 6) +
               " ... (%1 bytes more)"_s.arg(MAX_LOG_BYTES - (MAX_LOG_BYTES - 2) / 6);
    QTest::newRow("list, surrogates")
        << Writer([=] { qWarning() << loglist({repeated(MAX_LOG_BYTES - 4) + "\U0001F600"_s}); })
        << "(\""_s + repeated(MAX_LOG_BYTES - 4) + " ... (4 bytes more)"_s;
    QTest::newRow("variant") << Writer([=] {
        qWarning() << logvariant(repeated(MAX_LOG_BYTES - 2) + "\u00fc"_s);
    }) << "\""_s + repeated(MAX_LOG_BYTES - 2) + " ... (3 bytes more)"_s;
}

void tst_LogHelpers::cut()
{
    QFETCH(Writer, write);
    QFETCH(QString, expected);
    const QString line = logged(write);
    QVERIFY2(line == expected, qPrintable(line.right(60))); // not 64 KiB of test output
}

QTEST_APPLESS_MAIN(tst_LogHelpers)
#include "tst_loghelpers.moc"
