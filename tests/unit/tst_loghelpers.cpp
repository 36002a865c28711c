#include <logcapture.h>
#include <loghelpers.h>
#include <testtable.h>

#include <functional>

using namespace morvik;
using Writer = std::function<void()>;
Q_DECLARE_METATYPE(Writer)

class tst_LogHelpers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void line_data()
    {
        const TestTable<QString, Writer> row("expected", "write");
        // A helper must leave the stream's settings alone: blanks, and quotes around "t", show
        // them.
        const QStringList ab {"a", "b"};
        const QString t("t");
        row("list", R"(1 ("a", "b") "t")", [=] { qWarning() << 1 << loglist(ab) << t; });
        row("list, bare", R"(1("a", "b")t)",
            [=] { qWarning().nospace().noquote() << 1 << loglist(ab) << t; });
        row("list of nothing", "()", [] { qWarning() << loglist({}); });
        row("list that would forge lines", "(\"a\\nb\\u001b[0m\\\\\\\" \u00fc\U0001F600\")",
            [] { qWarning() << loglist({"a\nb\x1b[0m\\\" \u00fc\U0001F600"}); });
        row("tab", "1\t2 \"t\"", [=] { qWarning() << 1 << logtab << 2 << t; });
        row("tab, nospace", "a \t2", [] { qWarning().nospace() << "a " << logtab << 2; });
        row("tab at both ends", "\t1\t", [] { qWarning() << logtab << 1 << logtab; });
        row("binary", "1 \u00fc \"t\"",
            [=] { qWarning() << 1 << logbinary("\xc3\xbc", "UTF-8") << t; });
        row("binary, no such codec", "01fe", [] { qWarning() << logbinary("\x01\xfe", "none"); });
        const QVariant map = QVariantMap {{"k", QVariantList {1, "x", true, QVariant()}}};
        row("map", R"(1 {"k":[1,"x",true,null]} "t")",
            [=] { qWarning() << 1 << logvariant(map) << t; });
        row("text", R"("a\n")", [] { qWarning() << logvariant("a\n"); });
        row("invalid", "QVariant(Invalid)", [] { qWarning() << logvariant(QVariant()); });
        row("no JSON", "QVariant(Writer, )",
            [] { qWarning() << logvariant(QVariant::fromValue(Writer())); });

        constexpr int MAX = MAX_LOG_BYTES;
        const QString full = QString(MAX, 'x');
        row("cut binary", full + " ... (3 bytes more)",
            [=] { qWarning() << logbinary(full.toLatin1() + "abc", "UTF-8"); });
        row("cut hex", QString("01").repeated(MAX / 2) + " ... (32768 bytes more)",
            [] { qWarning() << logbinary(QByteArray(MAX, '\1'), "none"); });
        row("cut list", "(\"ab\", \"" + full.left(MAX - 8) + " ... (10 bytes more)", [=] {
            qWarning() << loglist({"ab", full, "cd"});
        });
        // The limit counts escapes as they are written, and cuts no character in two.
        row("cut escapes",
            "(\"" + QString("\\u0001").repeated((MAX - 2) / 6) + " ... (7 bytes more)",
            [] { qWarning() << loglist({QString((MAX - 2) / 6 + 7, '\1')}); });
        row("cut surrogates", "(\"" + full.left(MAX - 4) + " ... (4 bytes more)",
            [=] { qWarning() << loglist({full.left(MAX - 4) + "\U0001F600"}); });
        row("cut variant", "\"" + full.left(MAX - 2) + " ... (3 bytes more)",
            [=] { qWarning() << logvariant(full.left(MAX - 2) + "\u00fc"); });
    }

    void line()
    {
        QFETCH(QString, expected);
        QFETCH(Writer, write);
        const LogCapture log;
        write();
        const QString line = log.lines().last().text;
        QVERIFY2(line == expected, qPrintable(line.right(60))); // a line may have 64 KiB
    }
};

QTEST_APPLESS_MAIN(tst_LogHelpers)
#include "tst_loghelpers.moc"
