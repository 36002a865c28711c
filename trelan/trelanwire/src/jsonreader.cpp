#include "jsonreader.h"

#include "jsondom.h"
#include "jsonnumber.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QJsonParseError>

#include <string_view>

namespace bus::json
{

namespace
{

static_assert(SPARE >= int(simdjson::SIMDJSON_PADDING));

// A parser keeps up to fourteen times the size of the largest text that it has parsed.
constexpr int LARGEST_OF_KEPT_PARSER = 256 * 1024;
constexpr int LARGEST_TEXT = 16 * 1024 * 1024;

bool beginsWithMark(std::string_view utf8)
{
    return utf8.substr(0, 3) == "\xef\xbb\xbf";
}

/// Makes variants of a parsed text. Every function returns false for what only Qt may judge.
class Reader
{
public:
    bool object(simdjson::dom::object from, QVariantMap &map)
    {
        int fields = 0;
        for (const auto [utf8, element] : from) {
            // A key of a sorted text belongs at the end, where inserting takes no search.
            if (beginsWithMark(utf8) ||
                !value(element, *map.insert(map.cend(), toText(utf8), QVariant())))
                return false;
            ++fields;
        }
        // If a key is there twice, Qt's way of sorting decides which value it takes.
        return map.size() == fields;
    }

    /// Whether a number was read as zero. One that is too small for a double is an error to Qt.
    bool hasZero() const { return _hasZero; }

private:
    bool value(simdjson::dom::element from, QVariant &to)
    {
        using simdjson::dom::element_type;
        switch (from.type()) {
        case element_type::STRING:
            return string(from.get_string().value_unsafe(), to);
        case element_type::INT64:
            to = QVariant(qlonglong(from.get_int64().value_unsafe()));
            return true;
        case element_type::UINT64: // only what is no int64
            to = QVariant(double(from.get_uint64().value_unsafe()));
            return true;
        case element_type::DOUBLE:
            number(from.get_double().value_unsafe(), to);
            return true;
        case element_type::BOOL:
            to = QVariant(from.get_bool().value_unsafe());
            return true;
        case element_type::NULL_VALUE:
            to = QVariant::fromValue(nullptr);
            return true;
        case element_type::OBJECT: {
            QVariantMap map;
            const bool usual = object(from.get_object().value_unsafe(), map);
            to = QVariant(map);
            return usual;
        }
        case element_type::ARRAY:
            return array(from.get_array().value_unsafe(), to);
        }
        return false;
    }

    bool string(std::string_view utf8, QVariant &to)
    {
        // Qt drops a byte order mark unless the string has an escape.
        if (beginsWithMark(utf8))
            return false;
        to = QVariant(toText(utf8));
        return true;
    }

    void number(double from, QVariant &to)
    {
        _hasZero = _hasZero || from == 0;
        to = isInteger(from) ? QVariant(qlonglong(from)) : QVariant(from);
    }

    bool array(simdjson::dom::array from, QVariant &to)
    {
        QVariantList list;
        list.reserve(int(from.size()));
        ListPattern pattern;
        pattern.isWorthIt = from.size() >= ENTRIES_ALIKE;
        for (const simdjson::dom::element element : from) {
            list.append(QVariant());
            if (!entry(element, pattern, list))
                return false;
        }
        to = QVariant(list);
        return true;
    }

    static constexpr size_t ENTRIES_ALIKE = 4;

    /// The last object of a list whose keys were new, and a map that has its keys without values.
    struct ListPattern
    {
        bool isWorthIt = false;
        simdjson::dom::object object;
        int place = -1;
        bool hasMap = false; // made for the first object that follows the pattern
        QVariantMap map;
    };

    /// Most objects of a list have the keys of the object before: copying a map that has them takes
    /// less time than inserting one key after the other.
    bool entry(simdjson::dom::element from, ListPattern &pattern, QVariantList &list)
    {
        simdjson::dom::object object;
        if (!pattern.isWorthIt || from.get(object) != simdjson::SUCCESS)
            return value(from, list.last());
        QVariantMap map;
        const bool follows = pattern.place >= 0 && haveSameKeys(object, pattern.object) &&
                             (pattern.hasMap || takeKeys(pattern, list));
        if (follows)
            map = pattern.map;
        else
            pattern = {true, object, list.size() - 1, false, {}};
        const bool isUsual = follows ? values(object, map) : this->object(object, map);
        list.last() = QVariant(map);
        return isUsual;
    }

    /// False if the keys are not in the order of maps.
    bool takeKeys(ListPattern &pattern, const QVariantList &list)
    {
        QVariantMap map = list.at(pattern.place).toMap();
        auto at = map.cbegin();
        for (const auto member : pattern.object) {
            if (at.key() != toText(member.key))
                return false;
            ++at;
        }
        for (QVariant &value : map)
            value = QVariant();
        pattern.map = map;
        pattern.hasMap = true;
        return true;
    }

    /// Reads the values of an object into a map that has its keys already.
    bool values(simdjson::dom::object from, QVariantMap &map)
    {
        auto at = map.begin();
        for (const auto member : from) {
            if (!value(member.value, *at))
                return false;
            ++at;
        }
        return true;
    }

    static bool haveSameKeys(simdjson::dom::object a, simdjson::dom::object b)
    {
        auto one = a.begin();
        auto other = b.begin();
        while (one != a.end() && other != b.end() && one.key() == other.key()) {
            ++one;
            ++other;
        }
        return !(one != a.end()) && !(other != b.end());
    }

    bool _hasZero = false;
};

/// Whether the text may have a number that is too small for a double: one with a negative exponent,
/// or with very many zeros.
bool mayHaveTinyNumber(const QByteArray &text)
{
    static const QByteArray MANY_ZEROS(300, '0');
    for (int at = text.indexOf("-"); at > 0; at = text.indexOf('-', at + 1)) {
        if ((text.at(at - 1) | 0x20) == 'e' && at > 1 && text.at(at - 2) <= '9')
            return true;
    }
    return text.contains(MANY_ZEROS);
}

} // namespace

QString toText(std::string_view utf8)
{
    unsigned char all = 0;
    for (const char byte : utf8)
        all |= static_cast<unsigned char>(byte);
    constexpr unsigned char BEYOND_ASCII = 0x80;
    const int size = int(utf8.size());
    return all < BEYOND_ASCII ? QString::fromLatin1(utf8.data(), size)
                              : QString::fromUtf8(utf8.data(), size);
}

bool parse(const QByteArray &text, const std::function<bool(simdjson::dom::element)> &read)
{
    bool isRead = false;
    const auto error = parse(text, {MAX_DEPTH, LARGEST_TEXT},
                             [&](simdjson::dom::element root) { isRead = read(root); });
    return error == simdjson::SUCCESS && isRead;
}

simdjson::error_code parse(const QByteArray &text, const Limits &limits,
                           const std::function<void(simdjson::dom::element)> &read)
{
    constexpr size_t FIRST_CAPACITY = 1024;
    const auto parseWith = [&](simdjson::dom::parser &parser, size_t capacity) {
        simdjson::error_code error = simdjson::SUCCESS;
        if (parser.max_depth() != limits.depth || parser.capacity() == 0)
            error = parser.allocate(capacity, limits.depth);
        const bool mustCopy = text.capacity() - text.size() < SPARE;
        simdjson::dom::element root;
        if (error == simdjson::SUCCESS)
            error = parser.parse(text.constData(), size_t(text.size()), mustCopy).get(root);
        if (error == simdjson::SUCCESS)
            read(root);
        return error;
    };
    if (text.size() > limits.bytes)
        return simdjson::CAPACITY;
    if (text.size() > LARGEST_OF_KEPT_PARSER) {
        simdjson::dom::parser parser;
        return parseWith(parser, size_t(text.size()));
    }
    static thread_local simdjson::dom::parser _parser;
    return parseWith(_parser, FIRST_CAPACITY);
}

bool convert(const QByteArray &text, simdjson::dom::element root, QVariantMap &object)
{
    if (!root.is_object())
        return root.is_array(); // anything else is no document to Qt
    Reader reader;
    return reader.object(root.get_object().value_unsafe(), object) &&
           !(reader.hasZero() && mayHaveTinyNumber(text));
}

bool read(const QByteArray &text, QVariantMap &object, QString *errorText)
{
    object.clear();
    if (parse(text, [&](simdjson::dom::element root) { return convert(text, root, object); }))
        return true;

    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    object = document.object().toVariantMap();
    if (error.error == QJsonParseError::NoError)
        return true;
    if (errorText)
        *errorText = error.errorString();
    return false;
}

} // namespace bus::json
