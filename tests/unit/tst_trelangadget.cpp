#include <trelangadget.h>
#include <trelanobject.h>

#include <testtable.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QPoint>

#include <cmath>
#include <limits>

using namespace bus;

struct Door
{
    Q_GADGET
    Q_PROPERTY(bool open MEMBER open)
public:
    bool open = false;
    bool operator!=(const Door &other) const { return open != other.open; } // for MEMBER
};
Q_DECLARE_METATYPE(Door)

struct Room
{
    Q_GADGET
    Q_PROPERTY(double celsius MEMBER celsius)
    Q_PROPERTY(float wind MEMBER wind)
    Q_PROPERTY(quint8 floor MEMBER floor)
    Q_PROPERTY(qint64 turns MEMBER turns)
    Q_PROPERTY(quint64 serial MEMBER serial)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(QStringList tags MEMBER tags)
    Q_PROPERTY(QVariantList list MEMBER list)
    Q_PROPERTY(QVariantMap map MEMBER map)
    Q_PROPERTY(QByteArray bytes MEMBER bytes)
    Q_PROPERTY(QDateTime at MEMBER at)
    Q_PROPERTY(Mode mode MEMBER mode)
    Q_PROPERTY(Parts parts READ getParts WRITE setParts)
    Q_PROPERTY(Door door MEMBER door)
    Q_PROPERTY(QString title READ title)
    Q_PROPERTY(int cache MEMBER cache STORED false)
public:
    enum class Mode { Off, Heating = 5 };
    Q_ENUM(Mode)
    enum Part { Window = 1, Stove = 4 };
    Q_DECLARE_FLAGS(Parts, Part)
    Q_FLAG(Parts)

    Parts getParts() const { return parts; }
    void setParts(Parts newParts) { parts = newParts; }
    QString title() const { return "room " + name; }

    double celsius = 0;
    float wind = 0;
    quint8 floor = 0;
    qint64 turns = 0;
    quint64 serial = 0;
    QString name;
    QStringList tags;
    QVariantList list;
    QVariantMap map;
    QByteArray bytes;
    QDateTime at;
    Mode mode = Mode::Off;
    Parts parts;
    Door door;
    int cache = 0;
};

struct Unknown
{
    Q_GADGET
};

struct Odd
{
    Q_GADGET
    Q_PROPERTY(Unknown unknown READ unknown)
    Q_PROPERTY(QPoint where MEMBER where)
    Q_PROPERTY(double far MEMBER far)
    Q_PROPERTY(QByteArray raw MEMBER raw)
public:
    Unknown unknown() const { return {}; }
    QPoint where;
    double far = 1;
    QByteArray raw;
};

static QVariantMap parse(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object().toVariantMap();
}

static QByteArray print(const QVariantMap &map)
{
    return QJsonDocument(QJsonObject::fromVariantMap(map)).toJson(QJsonDocument::Compact);
}

class tst_TrelanGadget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    /// Each text is what a gadget becomes that was read from it.
    void travels_data()
    {
        const TestTable<QByteArray, QByteArray> row("json", "key");
        row("number", R"(21.5)", "celsius");
        row("whole number for a double", R"(21)", "celsius");
        row("no number", R"(null)", "celsius");
        row("float", R"(0.5)", "wind");
        row("greatest of a byte", R"(255)", "floor");
        row("number of 53 bits", R"(-9007199254740991)", "turns");
        row("number above 63 bits", R"("18446744073709551615")", "serial");
        row("text", R"("kitchen")", "name");
        row("texts", R"(["a","b"])", "tags");
        row("list", R"([1,"b",null])", "list");
        row("map", R"({"a":{"b":1}})", "map");
        row("bytes", R"("bär")", "bytes");
        row("time", R"("2026-03-01T12:30:15.250Z")", "at");
        row("no time", R"(null)", "at");
        row("enum", R"("Heating")", "mode");
        row("flags", R"("Window|Stove")", "parts");
        row("no flags", R"("")", "parts");
        row("gadget", R"({"open":true})", "door");
    }
    void travels()
    {
        QFETCH(QByteArray, json);
        QFETCH(QByteArray, key);
        const QVariantMap map = parse("{\"" + key + "\":" + json + "}");
        Room room;
        room.celsius = room.wind = 1;
        room.floor = 1;
        room.turns = qint64(room.serial = 1);
        room.at = QDateTime::fromMSecsSinceEpoch(1, Qt::UTC);
        room.parts = Room::Stove;
        QString fault;
        QVERIFY2(TrelanGadget::fromMap(map, room, &fault), qPrintable(fault));
        QCOMPARE(print({{key, TrelanGadget::toMap(room, &fault).value(key)}}), print(map));
        QCOMPARE(fault, QString());
    }

    void readsOtherForms_data()
    {
        const TestTable<QVariantMap, QByteArray, QVariant> row("map", "key", "value");
        const qint64 large = std::numeric_limits<qint64>::min();
        row("64 bits", {{"turns", large}}, "turns", large);
        row("whole double", {{"floor", 3.0}}, "floor", 3);
        row("another type of number", {{"celsius", 3u}}, "celsius", 3);
        row("enum by number", {{"mode", 5}}, "mode", "Heating");
        row("flags by number", {{"parts", 5}}, "parts", "Window|Stove");
        row("milliseconds", {{"at", 250}}, "at", "1970-01-01T00:00:00.250Z");
        row("time of another zone", {{"at", "2026-03-01T12:30:15.250+02:00"}}, "at",
            "2026-03-01T10:30:15.250Z");
        row("list of texts", {{"list", QStringList {"a"}}}, "list", QVariantList {"a"});
        row("what is made of others", {{"title", 7}}, "title", "room ");
        row("what is not stored", {{"cache", "x"}}, "cache", {});
        row("what is unknown", {{"colour", "red"}}, "colour", {});
    }
    void readsOtherForms()
    {
        QFETCH(QVariantMap, map);
        QFETCH(QByteArray, key);
        QFETCH(QVariant, value);
        TrelanObject object;
        object.setContent(map);
        QString fault;
        const std::optional<Room> room = object.contentAs<Room>(&fault);
        QVERIFY2(room, qPrintable(fault));
        QCOMPARE(TrelanGadget::toMap(*room).value(key), value);
    }

    void faults_data()
    {
        const TestTable<QVariantMap, QString> row("map", "fault");
        const QString byte = "a whole number from 0 to 255 (uchar) was expected";
        const QString serial =
            "a whole number from 0 to 9223372036854775807, or a greater one as a "
            "text, (qulonglong) was expected";
        row("text for number", {{"celsius", "warm"}},
            R"("celsius" is the text "warm", and a number (double) was expected)");
        row("text that looks like a number", {{"celsius", "21.5"}},
            R"("celsius" is the text "21.5", and a number (double) was expected)");
        row("long text, with a line", {{"wind", QString("a\n").leftJustified(50, 'x')}},
            R"("wind" is the text "a\n)" + QString(38, 'x') +
                R"("..., and a number (float) was expected)");
        row("too great for a float", {{"wind", 1e300}},
            R"("wind" is the number 1e+300, and a number of at most 3.40282e+38 (float) was expected)");
        row("too great", {{"floor", 300}}, R"("floor" is the number 300, and )" + byte);
        row("too small", {{"floor", -1}}, R"("floor" is the number -1, and )" + byte);
        row("fraction", {{"floor", 1.5}}, R"("floor" is the number 1.5, and )" + byte);
        row("null", {{"floor", {}}}, R"("floor" is null, and )" + byte);
        row("rounded", {{"serial", 1e19}}, R"("serial" is the number 1e+19, and )" + serial);
        row("no digits", {{"serial", "12x"}}, R"("serial" is the text "12x", and )" + serial);
        row("number for text", {{"name", 5}},
            R"("name" is the number 5, and a text (QString) was expected)");
        row("not only texts", {{"tags", QVariantList {"a", true}}},
            R"("tags[1]" is true, and a text of a list (QStringList) was expected)");
        row("map for list", {{"list", QVariantMap()}},
            R"("list" is a map, and a list (QVariantList) was expected)");
        row("list for map", {{"map", QVariantList()}},
            R"("map" is a list, and a map (QVariantMap) was expected)");
        row("no time", {{"at", "noon"}},
            R"("at" is the text "noon", and a time as in 2026-03-01T12:30:15.250Z (QDateTime) was expected)");
        row("unknown name", {{"mode", "Cooling"}},
            R"("mode" is the text "Cooling", and one of Off, Heating (Mode) was expected)");
        row("unknown value", {{"mode", 4}},
            R"("mode" is the number 4, and one of Off, Heating (Mode) was expected)");
        row("unknown flag", {{"parts", 2}},
            R"("parts" is the number 2, and some of Window|Stove (Parts) was expected)");
        row("no map for a gadget", {{"door", true}},
            R"("door" is true, and a map (Door) was expected)");
        row("inside", {{"door", QVariantMap {{"open", 1}}}},
            R"("door.open" is the number 1, and true or false (bool) was expected)");
        row("strange type", {{"celsius", QPoint()}},
            R"("celsius" is of the type QPoint, and a number (double) was expected)");
    }
    void faults()
    {
        QFETCH(QVariantMap, map);
        QFETCH(QString, fault);
        map.insert("bytes", "new"); // comes first, and may not stay either
        Room room;
        QString said;
        QVERIFY(!TrelanGadget::fromMap(map, room, &said));
        QCOMPARE(said, fault);
        QCOMPARE(room.bytes, QByteArray());
    }

    void saysWhatCannotTravel()
    {
        Odd odd;
        QString fault;
        QCOMPARE(TrelanGadget::toMap(odd, &fault), (QVariantMap {{"far", 1.0}, {"raw", ""}}));
        QCOMPARE(fault, R"("unknown" has the type Unknown, which does not travel)");
        QVERIFY(!TrelanGadget::fromMap({{"where", 1}}, odd, &fault));
        QCOMPARE(fault, R"("where" has the type QPoint, which does not travel)");
        odd.far = INFINITY;
        odd.raw = "\xff";
        QCOMPARE(TrelanGadget::toMap(odd), QVariantMap());
    }
};

QTEST_GUILESS_MAIN(tst_TrelanGadget)

#include "tst_trelangadget.moc"
