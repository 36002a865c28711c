#pragma once

#include <QtTest/QtTest>

#include <algorithm>
#include <functional>
#include <random>

/// \brief The columns of a test's data. A call with a name and a value for each column adds a row.
template <typename... Types>
class TestTable
{
public:
    template <typename... Names>
    explicit TestTable(const Names *...names)
    {
        (QTest::addColumn<Types>(names), ...);
    }
    void operator()(const char *name, const Types &...values) const
    {
        (QTest::newRow(name) << ... << values);
    }
};

/// QSKIP(), which clang does not take without a second argument.
#define SKIP_TEST(reason)                                                                          \
    do {                                                                                           \
        QTest::qSkip(reason, __FILE__, __LINE__);                                                  \
        return;                                                                                    \
    } while (false)

/// A content that hardly compresses, and never varies. A frame of it has more than \a bytes.
inline QVariantMap noise(int bytes)
{
    std::mt19937 random(1);
    QByteArray raw(bytes, 0);
    std::generate(raw.begin(), raw.end(), std::ref(random));
    return {{QStringLiteral("noise"), QString::fromLatin1(raw.toBase64())}};
}

/// The most address space that this process ever had, in KiB.
inline int peakMemory()
{
    QFile status(QStringLiteral("/proc/self/status"));
    const QByteArray text = status.open(QIODevice::ReadOnly) ? status.readAll() : QByteArray();
    return text.mid(text.indexOf("VmPeak:") + 7, 16).simplified().split(' ')[0].toInt();
}
