#include "kernelfigures.h"

#include <testtable.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

using namespace hoststate;

using Parser = QVariantMap (*)(const QByteArray &);

static QVariantMap mountsByPath(const QByteArray &text)
{
    QVariantMap result;
    const QList<Mount> mounts = parseMounts(text);
    for (const Mount &mount : mounts)
        result.insert(QString::fromUtf8(mount.path), mount.device);
    return result;
}

Q_DECLARE_METATYPE(Parser)

class tst_HostState : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void figures_data()
    {
        const TestTable<Parser, QByteArray, QByteArray> row("parser", "text", "json");
        row("load", parseLoad, "0.61 1.58 12.00 2/187 6879\n",
            R"({"fifteen":12,"five":1.58,"one":0.61,"running":2,"tasks":187})");
        row("load without tasks", parseLoad, "0 0 0 x/1 1", R"({"fifteen":0,"five":0,"one":0})");
        row("load, broken", parseLoad, "0.61 nan 0.1 2/87 1\n", "{}");
        row("memory", parseMemory,
            "MemTotal:       24684096 kB\nMemFree:  1 kB\nSwapCached: 2 kB\nHugePages_Total:     "
            "0\n"
            "Buffers: x kB\nSwapTotal: -1 kB\nSwapFree: 3\n",
            R"({"free":1,"total":24684096})");
        row("network", parseNetwork,
            "Inter-|   Receive     |  Transmit\n face |bytes    packets errs drop|bytes packets\n"
            "    lo: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
            "eth0.5:9007199254740991 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"
            "  cut0: 1 2 3\n: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n",
            R"({"eth0.5":{"rxBytes":9007199254740991,"rxDropped":0,"rxErrors":0,"rxPackets":0,)"
            R"("txBytes":0,"txDropped":0,"txErrors":0,"txPackets":0},)"
            R"("lo":{"rxBytes":1,"rxDropped":4,"rxErrors":3,"rxPackets":2,)"
            R"("txBytes":9,"txDropped":12,"txErrors":11,"txPackets":10}})");
        row("pseudo and network file systems", mountsByPath,
            "proc /proc proc rw 0 0\ntmpfs /run tmpfs rw 0 0\nsrv:/x /net nfs4 rw 0 0\n"
            "portal /run/doc fuse.portal rw 0 0\noverlay / overlay rw 0 0\nodd line\n",
            R"({"/":"overlay"})");
        row("a device once, at its shortest path; hidden by a later mount", mountsByPath,
            "/dev/a /etc/hosts ext4 rw 0 0\n/dev/a / ext4 rw 0 0\n/dev/a /b ext4 rw 0 0\n"
            "/dev/b /d xfs rw 0 0\n/dev/c /d xfs rw 0 0\n/dev/e /e xfs rw 0 0\ntmpfs /e tmpfs rw 0 "
            "0\n",
            R"({"/":"/dev/a","/d":"/dev/c"})");
        row("escaped path", mountsByPath, "/dev/a /a\\040b\\134c\\9 ext4 rw 0 0\n",
            R"({"/a b\\c\\9":"/dev/a"})");
    }

    void figures()
    {
        QFETCH(Parser, parser);
        QFETCH(QByteArray, text);
        const QJsonDocument figures(QJsonObject::fromVariantMap(parser(text)));
        QTEST(figures.toJson(QJsonDocument::Compact), "json");
    }

    void segments()
    {
        const QByteArray texts = "/|/mnt/a.b|eth0.5||+|*|a\nb\x7f| a b |a*";
        QByteArrayList names;
        for (const QByteArray &text : texts.split('|'))
            names.append(segment(QString::fromUtf8(text)).toUtf8());
        QCOMPARE(names.join('|'), QByteArray("/|/mnt/a_b|eth0_5|_|_|_|a_b_|_a b_|a*"));
    }
};

QTEST_APPLESS_MAIN(tst_HostState)
#include "tst_hoststate.moc"
