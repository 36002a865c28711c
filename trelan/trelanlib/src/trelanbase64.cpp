#include "trelanbase64.h"

#include <array>
#include <cstring>
#include <string_view>

namespace bus::base64
{

namespace
{

constexpr std::string_view ALPHABET =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr quint32 FOREIGN = 1U << 24; // above the three bytes of a group

using Pair = std::array<char, 2>;

/// Twelve bits at a time.
constexpr std::array<Pair, 4096> encodingTable()
{
    std::array<Pair, 4096> table {};
    for (size_t bits = 0; bits < table.size(); ++bits)
        table[bits] = {ALPHABET[bits >> 6], ALPHABET[bits & 0x3f]};
    return table;
}

/// What a character adds to the three bytes of its group.
constexpr std::array<quint32, 256> decodingTable(int shift)
{
    std::array<quint32, 256> table {};
    for (quint32 &bits : table)
        bits = FOREIGN;
    for (size_t value = 0; value < ALPHABET.size(); ++value)
        table[uchar(ALPHABET[value])] = quint32(value) << shift;
    return table;
}

constexpr auto PAIRS = encodingTable();
constexpr auto FIRST = decodingTable(18);
constexpr auto SECOND = decodingTable(12);
constexpr auto THIRD = decodingTable(6);
constexpr auto FOURTH = decodingTable(0);

} // namespace

int encodedSize(int bytes)
{
    return (bytes + 2) / 3 * 4;
}

void append(QByteArray &out, const QByteArray &bytes)
{
    const int whole = bytes.size() / 3 * 3;
    const int before = out.size();
    out.resize(before + whole / 3 * 4);
    char *to = out.data() + before;
    const auto *from = reinterpret_cast<const uchar *>(bytes.constData());
    for (const uchar *const end = from + whole; from != end; from += 3, to += 4) {
        const quint32 group = quint32(from[0]) << 16 | quint32(from[1]) << 8 | from[2];
        std::memcpy(to, PAIRS[group >> 12].data(), sizeof(Pair));
        std::memcpy(to + 2, PAIRS[group & 0xfff].data(), sizeof(Pair));
    }
    out += bytes.mid(whole).toBase64();
}

QByteArray decode(const QByteArray &text)
{
    constexpr int GROUP = 4;
    const int whole = (text.size() - 1) / GROUP * GROUP; // the last one may have padding
    if (whole == 0 || text.size() % GROUP != 0)
        return QByteArray::fromBase64(text);

    QByteArray bytes(whole / GROUP * 3, Qt::Uninitialized);
    auto *to = reinterpret_cast<uchar *>(bytes.data());
    const auto *from = reinterpret_cast<const uchar *>(text.constData());
    quint32 all = 0;
    for (const uchar *const end = from + whole; from != end; from += GROUP, to += 3) {
        const quint32 group = FIRST[from[0]] | SECOND[from[1]] | THIRD[from[2]] | FOURTH[from[3]];
        all |= group;
        to[0] = uchar(group >> 16);
        to[1] = uchar(group >> 8);
        to[2] = uchar(group);
    }
    if ((all & FOREIGN) != 0)
        return QByteArray::fromBase64(text); // which skips what it does not know
    bytes += QByteArray::fromBase64(text.mid(whole));
    return bytes;
}

} // namespace bus::base64
