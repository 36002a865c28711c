#include "jsonwriter.h"

#include "jsonnumber.h"
#include "vectors.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QLocale>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

namespace bus::json
{

namespace
{

constexpr qint64 MAX_EXACT = 1LL << 53; // the largest up to which a double has every integer

constexpr char HEX[] = "0123456789abcdef";
constexpr std::string_view ESCAPED = "\"\\\b\f\n\r\t";
constexpr std::string_view LETTERS = "\"\\bfnrt";
constexpr int LONGEST_ESCAPE = 6;

/// How a byte of UTF-8 is written.
struct Escape
{
    char byte = 0;
    bool hasSlash = false;
    bool isLong = false;
};

std::array<Escape, 256> makeEscapes()
{
    std::array<Escape, 256> escapes;
    for (size_t byte = 0; byte < escapes.size(); ++byte) {
        const auto found = byte < 0x80 ? ESCAPED.find(char(byte)) : std::string_view::npos;
        const bool isShort = found != std::string_view::npos;
        escapes.at(byte) = {isShort ? LETTERS[found] : char(byte), isShort || byte < ' ',
                            !isShort && byte < ' '};
    }
    return escapes;
}

#ifdef __x86_64__

// Escapes eight bytes at a time without a branch for each: JSON inside of a string has a quote
// every few bytes, and the processor would guess each of those branches wrong.
constexpr int BLOCK = 8;
constexpr signed char SLASH = BLOCK; // where a slash is, behind the bytes of a block

/// For each set of bytes of a block that get a slash, where every byte of the result comes from.
constexpr auto makePlaces()
{
    std::array<std::array<signed char, size_t(2 * BLOCK)>, 256> places {};
    for (size_t set = 0; set < places.size(); ++set) {
        size_t to = 0;
        for (int byte = 0; byte < BLOCK; ++byte) {
            if ((set >> byte & 1U) != 0)
                places[set][to++] = SLASH;
            places[set][to++] = static_cast<signed char>(byte);
        }
    }
    return places;
}

constexpr auto makeSizes()
{
    std::array<uchar, 256> sizes {};
    for (size_t set = 0; set < sizes.size(); ++set) {
        sizes[set] = BLOCK;
        for (size_t rest = set; rest != 0; rest >>= 1U)
            sizes[set] = uchar(sizes[set] + (rest & 1U));
    }
    return sizes;
}

/// Puts slashes in front of quotes and slashes, and stops at a block with a control character.
/// There has to be room for two bytes for each byte of the text.
TRELAN_VECTORS void escapeBlocks(const char *&from, const char *end, char *&to)
{
    static constexpr auto PLACES = makePlaces();
    static constexpr auto SIZES = makeSizes();
    const __m128i slashes = _mm_set1_epi8('\\');
    for (; end - from >= BLOCK; from += BLOCK) {
        const __m128i bytes =
            _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(from)), slashes);
        const __m128i marked =
            _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')), _mm_cmpeq_epi8(bytes, slashes));
        const __m128i low = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(' ' - 1)), bytes);
        if (_mm_movemask_epi8(low) != 0)
            break;
        const auto set = size_t(_mm_movemask_epi8(marked) & 0xff);
        vectors::store(to, _mm_shuffle_epi8(bytes, vectors::load(PLACES[set].data())));
        to += SIZES[set];
    }
}

#else

void escapeBlocks(const char *& /*from*/, const char * /*end*/, char *& /*to*/) {}

#endif

/// How a whole number above 2^53 is written: as the double that is next to it, as Qt does it, or
/// exactly.
enum Numbers { Nearest, Exact };

/// Writes a document as QJsonDocument does, except for whole numbers that are to be exact.
class Writer
{
public:
    Writer(QByteArray &out, QJsonDocument::JsonFormat format, Numbers numbers)
        : _out(out)
        , _isCompact(format == QJsonDocument::Compact)
        , _numbers(numbers)
        , _at(out.data() + out.size())
        , _end(_at)
    {}

    /// False if the map is nested too deeply; what is written is of no use then.
    bool object(const QVariantMap &map, int level)
    {
        begin('{');
        bool isUsual = level < MAX_DEPTH;
        for (auto entry = map.cbegin(); isUsual && entry != map.cend(); ++entry) {
            separate(entry == map.cbegin(), level + 1);
            string(entry.key());
            append(_isCompact ? ":" : ": ");
            isUsual = value(entry.value(), level + 1);
        }
        end('}', map.isEmpty(), level);
        return isUsual;
    }

    void string(const QString &text);

    void append(std::string_view text)
    {
        char *const to = room(int(text.size()));
        _at = std::copy(text.cbegin(), text.cend(), to);
    }

    void finish() { _out.resize(int(_at - _out.constData())); }

    /// Whether Numbers made no difference.
    bool isExact() const { return _isExact; }

private:
    bool value(const QVariant &value, int level);
    bool array(const QVariantList &list, int level);
    void array(const QStringList &list, int level);
    template <typename Integer>
    void integer(Integer number);
    void number(double number);
    void whole(qint64 number);
    bool shortFraction(double number);
    void fraction(double number);
    void rare(double number, char form);
    void other(const QVariant &value, int level);
    const QChar *escape(const QChar *from, const QChar *end);

    template <typename Integer>
    void digits(Integer number)
    {
        constexpr int MOST_DIGITS = 20;
        char *const to = room(MOST_DIGITS);
        _at = std::to_chars(to, to + MOST_DIGITS, number).ptr;
    }

    void begin(char bracket)
    {
        append({&bracket, 1});
        if (!_isCompact)
            append("\n");
    }

    /// Writes what goes in front of an entry.
    void separate(bool isFirst, int level)
    {
        if (!isFirst)
            append(_isCompact ? "," : ",\n");
        indent(level);
    }

    void end(char bracket, bool isEmpty, int level)
    {
        if (!_isCompact && !isEmpty)
            append("\n");
        indent(level);
        append({&bracket, 1});
    }

    void indent(int level)
    {
        const int blanks = _isCompact ? 0 : 4 * level;
        _at = std::fill_n(room(blanks), blanks, ' ');
    }

    /// Where the next bytes go; makes room for so many of them.
    char *room(qint64 bytes)
    {
        if (_end - _at < bytes)
            grow(bytes);
        return _at;
    }

    void grow(qint64 bytes);

    QByteArray &_out;
    const bool _isCompact;
    const Numbers _numbers;
    bool _isExact = true;
    char *_at; // behind what is written
    char *_end;
};

void Writer::grow(qint64 bytes)
{
    constexpr qint64 FIRST = 512;
    constexpr qint64 MOST = std::numeric_limits<int>::max() - 64;
    const qint64 used = _at - _out.constData();
    if (used + bytes > MOST)
        qBadAlloc(); // no QByteArray can hold it; Qt does this, too
    _out.resize(int(qBound(used + bytes, qMax(FIRST, used * 2), MOST)));
    _at = _out.data() + used;
    _end = _out.data() + _out.size();
}

void Writer::string(const QString &text)
{
    constexpr int QUOTES = 2;
    const QChar *from = text.constData();
    const QChar *const end = from + text.size();
    *room(qint64(text.size()) + QUOTES) = '"';
    ++_at;
    // There is room for the rest of the text as long as no character takes more than a byte;
    // escape() makes more.
    while (from != end) {
        const ushort unit = from->unicode();
        if (unit >= ' ' && unit < 0x80 && unit != '"' && unit != '\\') {
            *_at++ = char(unit);
            ++from;
        } else {
            from = escape(from, end);
        }
    }
    *_at++ = '"';
}

/// Writes a character that takes more than a byte. Returns the place behind it.
const QChar *Writer::escape(const QChar *from, const QChar *end)
{
    constexpr int QUOTE = 1;
    room(LONGEST_ESCAPE + (end - from) + QUOTE);
    const auto put = [this](uint byte) { *_at++ = char(byte); };
    const auto putRest = [put](uint bits) { put(0x80 | (bits & 0x3f)); };

    uint unit = from++->unicode();
    if (unit >= 0x80 && unit < 0x800) {
        put(0xc0 | unit >> 6);
        putRest(unit);
    } else if (unit >= 0x80 && !QChar::isSurrogate(unit)) {
        put(0xe0 | unit >> 12);
        putRest(unit >> 6);
        putRest(unit);
    } else if (QChar::isHighSurrogate(unit) && from != end && from->isLowSurrogate()) {
        unit = QChar::surrogateToUcs4(ushort(unit), from++->unicode());
        put(0xf0 | unit >> 18);
        putRest(unit >> 12);
        putRest(unit >> 6);
        putRest(unit);
    } else if (const auto found = ESCAPED.find(char(unit));
               unit < 0x80 && found != std::string_view::npos) {
        put('\\');
        put(uchar(LETTERS[found]));
    } else {
        put('\\');
        put('u');
        for (const int shift : {12, 8, 4, 0})
            put(uchar(HEX[unit >> shift & 0xf]));
    }
    return from;
}

template <typename Type>
const Type &get(const QVariant &value)
{
    return *static_cast<const Type *>(value.constData());
}

QVariantMap sorted(const QVariantHash &hash)
{
    QVariantMap map;
    for (auto entry = hash.cbegin(); entry != hash.cend(); ++entry)
        map.insert(entry.key(), entry.value());
    return map;
}

bool Writer::value(const QVariant &value, int level)
{
    switch (value.userType()) {
    case QMetaType::QString:
        string(get<QString>(value));
        return true;
    case QMetaType::Int:
        digits(get<int>(value));
        return true;
    case QMetaType::UInt:
        digits(get<uint>(value));
        return true;
    case QMetaType::LongLong:
        integer(get<qlonglong>(value));
        return true;
    case QMetaType::ULongLong:
        integer(get<qulonglong>(value));
        return true;
    case QMetaType::Double:
        number(get<double>(value));
        return true;
    case QMetaType::Bool:
        append(get<bool>(value) ? "true" : "false");
        return true;
    case QMetaType::Nullptr:
    case QMetaType::UnknownType:
        append("null");
        return true;
    case QMetaType::QVariantMap:
        return object(get<QVariantMap>(value), level);
    case QMetaType::QVariantList:
        return array(get<QVariantList>(value), level);
    case QMetaType::QStringList:
        array(get<QStringList>(value), level);
        return true;
    case QMetaType::QVariantHash:
        return object(sorted(get<QVariantHash>(value)), level);
    default:
        other(value, level);
        return true;
    }
}

bool Writer::array(const QVariantList &list, int level)
{
    begin('[');
    bool isUsual = level < MAX_DEPTH;
    for (auto entry = list.cbegin(); isUsual && entry != list.cend(); ++entry) {
        separate(entry == list.cbegin(), level + 1);
        isUsual = value(*entry, level + 1);
    }
    end(']', list.isEmpty(), level);
    return isUsual;
}

void Writer::array(const QStringList &list, int level)
{
    begin('[');
    for (auto entry = list.cbegin(); entry != list.cend(); ++entry) {
        separate(entry == list.cbegin(), level + 1);
        string(*entry);
    }
    end(']', list.isEmpty(), level);
}

/// A value that a program has given as a whole number.
template <typename Integer>
void Writer::integer(Integer number)
{
    const bool isExact = number <= MAX_EXACT && (number >= 0 || qint64(number) >= -MAX_EXACT);
    _isExact = _isExact && isExact;
    if (isExact || _numbers == Exact)
        digits(number);
    else
        this->number(double(number));
}

/// A double without a fraction.
void Writer::whole(qint64 number)
{
    if (number > MAX_EXACT || number < -MAX_EXACT)
        rare(double(number), 'f');
    else
        digits(number);
}

void Writer::number(double number)
{
    constexpr double BEYOND_QUINT64 = 2 * INTEGERS_END;
    if (isInteger(number))
        whole(qint64(number));
    else if (!qIsFinite(number))
        append("null");
    else if (std::abs(number) >= INTEGERS_END)
        rare(number, std::abs(number) < BEYOND_QUINT64 ? 'f' : 'g');
    else if (!shortFraction(number))
        fraction(number);
}

void Writer::rare(double number, char form)
{
    const QByteArray text = QByteArray::number(number, form, QLocale::FloatingPointShortest);
    append({text.constData(), size_t(text.size())});
}

/// Writes a number with up to four digits behind the point, as most measured ones are. False for
/// any other number.
bool Writer::shortFraction(double number)
{
    // No two texts of up to 15 digits are the same double, so that the text found is the shortest.
    // Dividing two exact numbers is rounded in the way in which reading the text is rounded.
    constexpr double MOST = 1e15;
    constexpr std::array<int, 4> SCALES {10, 100, 1000, 10000};
    const double absolute = std::abs(number);
    for (const int scale : SCALES) {
        if (absolute * scale >= MOST)
            return false;
        const qint64 digits = std::llround(absolute * scale);
        if (double(digits) / scale != absolute)
            continue;
        if (number < 0)
            append("-");
        this->digits(digits / scale);
        append(".");
        // The digits behind the point may begin with zeros: a one in front keeps their places.
        const qint64 behind = digits % scale + scale;
        constexpr int MOST_DIGITS = 5;
        std::array<char, MOST_DIGITS> text {};
        const char *const end = std::to_chars(text.data(), text.data() + MOST_DIGITS, behind).ptr;
        append({text.data() + 1, size_t(end - text.data()) - 1});
        return true;
    }
    return false;
}

/// Writes the shortest text that is read as the same number, in the form that Qt prefers.
void Writer::fraction(double number)
{
    // Sign, digits with a point behind the first, exponent.
    constexpr int LONGEST = 32;
    std::array<char, LONGEST> buffer {};
    const char *const end =
        std::to_chars(buffer.data(), buffer.data() + LONGEST, number, std::chars_format::scientific)
            .ptr;
    std::string_view text(buffer.data(), size_t(end - buffer.data()));
    const size_t mark = text.rfind('e');
    int exponent = 0;
    std::from_chars(&text[mark + 2], end, exponent);
    if (text[mark + 1] == '-')
        exponent = -exponent;

    const bool isNegative = text.front() == '-';
    text = text.substr(isNegative ? 1 : 0, mark - (isNegative ? 1 : 0));
    const int digits = text.size() == 1 ? 1 : int(text.size()) - 1;
    if (exponent < -4)
        return rare(number, 'g');
    if (isNegative)
        append("-");
    if (exponent < 0) {
        append(std::string_view("0.000").substr(0, size_t(1 - exponent)));
        append(text.substr(0, 1));
        append(digits > 1 ? text.substr(2) : std::string_view());
        return;
    }
    append(text.substr(0, 1));
    append(text.substr(2, size_t(exponent)));
    append(".");
    append(text.substr(2 + size_t(exponent)));
}

/// Leaves the value to Qt, in a list of its own, since Qt writes nothing smaller than a list.
void Writer::other(const QVariant &value, int level)
{
    const QJsonDocument document = QJsonDocument::fromVariant(QVariantList {value});
    QByteArray text =
        document.toJson(_isCompact ? QJsonDocument::Compact : QJsonDocument::Indented);
    if (_isCompact) {
        text = text.mid(1, text.size() - 2); // without the brackets
    } else {
        text = text.mid(6, text.size() - 9); // without their line breaks and the indent, too
        text.replace("\n", "\n" + QByteArray(4 * (level - 1), ' '));
    }
    append({text.constData(), size_t(text.size())});
}

/// Appends a document. Returns whether Numbers made no difference.
bool write(const QVariantMap &map, QJsonDocument::JsonFormat format, Numbers numbers,
           QByteArray &out)
{
    const int before = out.size();
    Writer writer(out, format, numbers);
    if (!writer.object(map, 0)) {
        out.resize(before);
        out += QJsonDocument::fromVariant(map).toJson(format);
        return true; // Exact is written in the same way
    }
    if (format == QJsonDocument::Indented)
        writer.append("\n");
    writer.finish();
    return writer.isExact();
}

} // namespace

QByteArray indented(const QVariantMap &map)
{
    QByteArray text;
    write(map, QJsonDocument::Indented, Nearest, text);
    return text;
}

QByteArray compact(const QVariantMap &map)
{
    QByteArray text;
    appendCompact(text, map);
    return text;
}

bool appendCompact(QByteArray &out, const QVariantMap &map)
{
    return write(map, QJsonDocument::Compact, Nearest, out);
}

QByteArray exact(const QVariantMap &map)
{
    QByteArray text;
    appendExact(text, map);
    return text;
}

void appendExact(QByteArray &out, const QVariantMap &map)
{
    write(map, QJsonDocument::Compact, Exact, out);
}

void appendString(QByteArray &out, const QString &text)
{
    Writer writer(out, QJsonDocument::Compact, Nearest);
    writer.string(text);
    writer.finish();
}

void appendString(QByteArray &out, const QByteArray &utf8)
{
    // No branch depends on a byte, unless it takes a long escape.
    static const std::array<Escape, 256> _escapes = makeEscapes();
    constexpr int QUOTES = 2;
    constexpr int AT_ONCE = 8;
    const int before = out.size();
    out.resize(before + 2 * utf8.size() + QUOTES + LONGEST_ESCAPE);
    char *at = out.data() + before;
    *at++ = '"';
    const char *const end = utf8.constData() + utf8.size();
    for (const char *from = utf8.constData(); from != end;) {
        if (vectors::hasVectors())
            escapeBlocks(from, end, at);
        for (const char *const next = from + qMin<qint64>(AT_ONCE, end - from); from != next;) {
            const Escape &escape = _escapes[uchar(*from++)];
            *at = '\\';
            at += int(escape.hasSlash);
            *at++ = escape.byte;
            if (Q_LIKELY(!escape.isLong))
                continue;
            const char rest[] = {'u', '0', '0', HEX[escape.byte >> 4], HEX[escape.byte & 0xf]};
            const int used = int(at - out.constData()) - 1;
            out.resize(used + LONGEST_ESCAPE * 2 + 2 * int(end - from) + QUOTES);
            at = std::copy(std::begin(rest), std::end(rest), out.data() + used);
        }
    }
    *at++ = '"';
    out.resize(int(at - out.constData()));
}

} // namespace bus::json
