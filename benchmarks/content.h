#pragma once

#include <QtCore/QJsonDocument>
#include <QtCore/QVariantMap>

#include <random>

/// What all measurements send: content as a monitoring program publishes it, the same on every
/// machine and in every run.
namespace content
{

/// Sizes of compact JSON that are measured: a reading, a status, a table.
constexpr int SMALL = 300;
constexpr int MEDIUM = 4 * 1024;
constexpr int LARGE = 64 * 1024;

inline int jsonSize(const QVariantMap &map)
{
    return QJsonDocument::fromVariant(map).toJson(QJsonDocument::Compact).size();
}

/// What \a entry adds to a list.
inline int entrySize(const QVariant &entry)
{
    const QByteArray list =
        QJsonDocument::fromVariant(QVariantList {entry}).toJson(QJsonDocument::Compact);
    return list.size() - int(qstrlen("[]"));
}

/// The reading number \a index: a name, a unit, two figures and a flag. The figures move like real
/// ones, so that they compress neither as noise nor as a constant.
inline QVariantMap reading(int index)
{
    static const QStringList UNITS {QStringLiteral("percent"), QStringLiteral("bytes"),
                                    QStringLiteral("celsius"), QStringLiteral("packets")};
    const quint32 noise = (quint32(index) * 2654435761U) >> 16;
    return {
        {QStringLiteral("id"), QStringLiteral("net.eth%1.queue%2").arg(index % 7).arg(index)},
        {QStringLiteral("unit"), UNITS.at(index % UNITS.size())},
        {QStringLiteral("value"), double(noise % 10000) / 100.0},
        {QStringLiteral("at"), 1700000000000LL + index * 250 + int(noise % 16)},
        {QStringLiteral("ok"), noise % 11 != 0},
    };
}

/// \a map with so many entries from \a next that its compact JSON has \a size bytes; words fill
/// what is left.
template <typename Next>
QVariantMap filledUp(QVariantMap map, const Next &next, int size)
{
    const QString note = QStringLiteral("note");
    const QString entries = QStringLiteral("readings");
    map[note] = QString();
    map[entries] = QVariantList();
    int left = size - jsonSize(map);
    QVariantList list;
    while (true) {
        const QVariant entry = next(list.size());
        const int needed = entrySize(entry) + (list.isEmpty() ? 0 : 1); // and a comma
        if (needed > left)
            break;
        list.append(entry);
        left -= needed;
    }
    map[entries] = list;
    const QString words = QStringLiteral("maintenance window on the second tuesday of the month; ");
    map[note] = words.repeated(left / words.size() + 1).left(left);
    return map;
}

/// Content whose compact JSON has \a size bytes, for any size from 150 on.
inline QVariantMap ofSize(int size)
{
    return filledUp({{QStringLiteral("host"), QStringLiteral("box-17")},
                     {QStringLiteral("kernel"), QStringLiteral("6.1.0-18-amd64")}},
                    reading, size);
}

/// How many contents varied() knows, each from a seed of its own.
constexpr int DIFFERENT = 16;
const QString SEED = QStringLiteral("seed"); ///< the key that tells them apart

/// Figures that look like chance, and are the same everywhere.
class Figures
{
public:
    explicit Figures(int seed)
        : _engine(quint32(seed + 1) * 7919U)
    {}
    int below(int bound) { return int(_engine() >> 8U) % bound; }
    double hundredths() { return below(1000000) / 100.0; }

private:
    std::minstd_rand _engine;
};

/// A piece of the content of \a seed, which decides its shape. No null, which D-Bus cannot carry.
inline QVariant piece(int seed, Figures &figures)
{
    static const QStringList TEXTS {
        QStringLiteral("K\u00fchlwasser l\u00e4uft, 21\u00a0\u00b0C"),
        QStringLiteral("C:\\logs\\\"today\".txt\n\tline 2"),
        QStringLiteral("\u6e29\u5ea6\u8b66\u544a \U0001F525 \u043d\u0430\u0441\u043e\u0441"),
        QStringLiteral("plain words, and nothing else")};
    const QString id = QStringLiteral("s%1").arg(figures.below(10000));
    switch (seed % 5) {
    case 0: // a reading
        return reading(figures.below(100000));
    case 1: // maps in maps
        return QVariantMap {
            {id, QVariantMap {{QStringLiteral("limits"),
                               QVariantMap {{QStringLiteral("low"), -figures.hundredths()},
                                            {QStringLiteral("high"), figures.hundredths()}}}}}};
    case 2: // numbers, whole and others
        return QVariantList {figures.hundredths(), figures.below(256), -figures.below(100000),
                             1700000000000LL + figures.below(1000000), figures.hundredths() / 1e6};
    case 3: // texts with letters of other languages, and what has to be escaped
        return TEXTS.at(figures.below(TEXTS.size()));
    default: // switches, and what is empty
        return QVariantMap {{id, figures.below(2) == 0},
                            {QStringLiteral("armed"), figures.below(3) == 0},
                            {QStringLiteral("alarms"), QVariantList()},
                            {QStringLiteral("user"), QString()}};
    }
}

/// Content number \a seed of those that a program publishes in turn, of \a size bytes as above.
inline QVariantMap varied(int seed, int size)
{
    Figures figures(seed);
    return filledUp(
        {{SEED, seed}, {QStringLiteral("at"), 1700000000000LL + figures.below(100000)}},
        [&](int /*index*/) { return piece(seed, figures); }, size);
}

} // namespace content
