#include <logcapture.h>
#include <loghelpers.h>
#include <testtable.h>

#include <functional>

using namespace morvik;
using Writer = std::function<void()>;
Q_DECLARE_METATYPE(Writer)

namespace
{

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

} // namespace

class tst_LogHelpers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void line_data()
    {
        const TestTable<QString, Writer> row("expected", "write");
        // The stream's own settings show in what follows the helper: blanks, and quotes around "t".
        const QStringList ab {"a"_s, "b"_s};
        row("list", R"(1 ("a", "b") "t")"_s, [=] { qWarning() << 1 << loglist(ab) << "t"_s; });
        row("list, nospace", "1(\"a\", \"b\")\"t\""_s,
            [=] { qWarning().nospace() << 1 << loglist(ab) << "t"_s; });
        row("list, noquote", R"(("a", "b") t)"_s,
            [=] { qWarning().noquote() << loglist(ab) << "t"_s; });
        row("list of nothing", "()"_s, [] { qWarning() << loglist({}); });
        row("list that would forge lines", "(\"a\\nb\\u001b[0m\\\\\\\" \u00fc\U0001F600\")"_s,
            [] { qWarning() << loglist({"a\nb\x1b[0m\\\" \u00fc\U0001F600"_s}); });
        row("tab", "1\t2 \"t\""_s, [] { qWarning() << 1 << logtab << 2 << "t"_s; });
        row("tab, nospace", "a \t2"_s, [] { qWarning().nospace() << "a " << logtab << 2; });
        row("tab at both ends", "\t1\t"_s, [] { qWarning() << logtab << 1 << logtab; });
        row("binary", "1 \u00fc \"t\""_s,
            [] { qWarning() << 1 << logbinary("\xc3\xbc", "UTF-8") << "t"_s; });
        row("binary, no such codec", "01fe"_s, [] { qWarning() << logbinary("\x01\xfe", "none"); });
        const QVariant map = QVariantMap {{"k"_s, QVariantList {1, "x"_s, true, QVariant()}}};
        row("map", R"(1 {"k":[1,"x",true,null]} "t")"_s,
            [=] { qWarning() << 1 << logvariant(map) << "t"_s; });
        row("scalar", "1.5"_s, [] { qWarning() << logvariant(1.5); });
        row("text", R"("a\n")"_s, [] { qWarning() << logvariant("a\n"_s); });
        row("invalid", "QVariant(Invalid)"_s, [] { qWarning() << logvariant(QVariant()); });
        row("no JSON", "QVariant(Writer, )"_s,
            [] { qWarning() << logvariant(QVariant::fromValue(Writer())); });

        constexpr int MAX = MAX_LOG_BYTES;
        const QString full = "x"_s.repeated(MAX);
        row("fits", full, [=] { qWarning() << logbinary(full.toLatin1(), "UTF-8"); });
        row("cut binary", full + " ... (3 bytes more)"_s,
            [=] { qWarning() << logbinary(full.toLatin1() + "abc", "UTF-8"); });
        row("cut hex", "01"_s.repeated(MAX / 2) + " ... (32768 bytes more)"_s,
            [] { qWarning() << logbinary(QByteArray(MAX, '\1'), "none"); });
        row("cut list", "(\"ab\", \""_s + full.left(MAX - 8) + " ... (10 bytes more)"_s, [=] {
            qWarning() << loglist({"ab"_s, full, "cd"_s});
        });
        // Escapes count as they are written, and a character is there as a whole or not at all.
        row("cut escapes", "(\""_s + "\\u0001"_s.repeated((MAX - 2) / 6) + " ... (7 bytes more)"_s,
            [] { qWarning() << loglist({"\x01"_s.repeated((MAX - 2) / 6 + 7)}); });
        row("cut surrogates", "(\""_s + full.left(MAX - 4) + " ... (4 bytes more)"_s,
            [=] { qWarning() << loglist({full.left(MAX - 4) + "\U0001F600"_s}); });
        row("cut variant", "\""_s + full.left(MAX - 2) + " ... (3 bytes more)"_s,
            [=] { qWarning() << logvariant(full.left(MAX - 2) + "\u00fc"_s); });
    }

    void line()
    {
        QFETCH(QString, expected);
        QFETCH(Writer, write);
        const LogCapture log;
        write();
        const QString line = log.lines().last().text;
        QVERIFY2(line == expected, qPrintable(line.right(60))); // they may be 64 KiB
    }
};

QTEST_APPLESS_MAIN(tst_LogHelpers)
#include "tst_loghelpers.moc"
