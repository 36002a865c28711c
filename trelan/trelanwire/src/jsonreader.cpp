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

// A parser takes up to fourteen times the largest text that it has seen, and keeps that.
constexpr int LARGEST_OF_KEPT_PARSER = 256 * 1024;
constexpr int LARGEST_TEXT = 16 * 1024 * 1024;

bool beginsWithMark(std::string_view utf8)
{
    return utf8.substr(0, 3) == "\xef\xbb\xbf";
}

QString fromUtf8(std::string_view utf8)
{
    return QString::fromUtf8(utf8.data(), int(utf8.size()));
}

/// Makes variants of a parsed text. Every function is false for what only Qt may judge.
class Reader
{
public:
    bool object(simdjson::dom::object from, QVariantMap &map)
    {
        int fields = 0;
        for (const auto [utf8, element] : from) {
            // At the end is where the keys of sorted text belong: it takes no search there.
            if (beginsWithMark(utf8) ||
                !value(element, *map.insert(map.cend(), fromUtf8(utf8), QVariant())))
                return false;
            ++fields;
        }
        // Which value of a key that is there twice Qt takes depends on how it sorts.
        return map.size() == fields;
    }

    /// A number that is too small for a double is an error to Qt, and zero here.
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
        // Qt drops the mark, but not if there is an escape in the same string.
        if (beginsWithMark(utf8))
            return false;
        to = QVariant(fromUtf8(utf8));
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
        Like like;
        like.isWorthIt = from.size() >= ENTRIES_ALIKE;
        for (const simdjson::dom::element element : from) {
            list.append(QVariant());
            if (!entry(element, like, list))
                return false;
        }
        to = QVariant(list);
        return true;
    }

    static constexpr size_t ENTRIES_ALIKE = 4;

    /// An object of a list, and from the second one on a map that has its keys, without values.
    struct Like
    {
        bool isWorthIt = false;
        simdjson::dom::object object;
        int place = -1;
        bool hasMap = false;
        QVariantMap map;
    };

    /// Most objects of a list have the same keys: copying a map with them takes less time than
    /// inserting one after the other.
    bool entry(simdjson::dom::element from, Like &like, QVariantList &list)
    {
        simdjson::dom::object object;
        if (!like.isWorthIt || from.get(object) != simdjson::SUCCESS)
            return value(from, list.last());
        QVariantMap map;
        const bool isLike = like.place >= 0 && haveSameKeys(object, like.object) &&
                            (like.hasMap || takeKeys(like, list));
        if (isLike)
            map = like.map;
        else
            like = {true, object, list.size() - 1, false, {}};
        const bool isUsual = isLike ? values(object, map) : this->object(object, map);
        list.last() = QVariant(map);
        return isUsual;
    }

    /// False if the keys are not in the order of maps.
    bool takeKeys(Like &like, const QVariantList &list)
    {
        QVariantMap map = list.at(like.place).toMap();
        auto at = map.cbegin();
        for (const auto member : like.object) {
            if (at.key() != fromUtf8(member.key))
                return false;
            ++at;
        }
        for (QVariant &value : map)
            value = QVariant();
        like.map = map;
        like.hasMap = true;
        return true;
    }

    /// Goes into a map that has the keys.
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

/// Whether a number may be written with a negative exponent, or with so many digits that it needs
/// none to be too small.
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
