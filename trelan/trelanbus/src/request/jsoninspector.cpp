#include "request/jsoninspector.h"

#include <algorithm>

namespace bus
{

namespace
{

namespace dom = simdjson::dom;

constexpr int INDENTATION = 4;
constexpr int OUTER_LEVELS = 3; // around a content, in what is sent

bool isBefore(std::string_view a, std::string_view b)
{
    // Mostly the first bytes decide, which takes less time than a call.
    const bool same = a.empty() || b.empty() || a.front() == b.front();
    return same ? a < b : uchar(a.front()) < uchar(b.front());
}

} // namespace

void JsonInspector::look(dom::element value)
{
    this->value(value, 0);
}

void JsonInspector::lookAtKeys(dom::object object)
{
    _keys.clear();
    for (const auto member : object)
        _keys.push_back(member.key);
    std::sort(_keys.begin(), _keys.end());
    const auto repeated = std::adjacent_find(_keys.begin(), _keys.end());
    if (repeated == _keys.end() || _hasRepeatedKey)
        return;
    _hasRepeatedKey = true;
    _repeatedKey = QByteArray(repeated->data(), int(repeated->size()));
}

void JsonInspector::value(dom::element element, int level)
{
    switch (element.type()) {
    case dom::element_type::OBJECT:
        members(element.get_object().value_unsafe(), level + 1);
        break;
    case dom::element_type::ARRAY:
        entries(element.get_array().value_unsafe(), level + 1);
        break;
    case dom::element_type::DOUBLE:
        _hasZero |= element.get_double().value_unsafe() == 0;
        break;
    default:
        break;
    }
}

void JsonInspector::members(dom::object object, int level)
{
    int number = 0;
    bool ascend = true; // as in most texts, where all keys differ therefore
    std::string_view last;
    for (const auto member : object) {
        ascend = ascend && (number == 0 || isBefore(last, member.key));
        last = member.key;
        value(member.value, level);
        if (_hasRepeatedKey)
            return;
        ++number;
    }
    count(number, level);
    if (!ascend)
        lookAtKeys(object);
}

void JsonInspector::entries(dom::array array, int level)
{
    int number = 0;
    for (const dom::element entry : array) {
        value(entry, level);
        if (_hasRepeatedKey)
            return;
        ++number;
    }
    count(number, level);
}

/// Counts a line break and the indentation for each bracket, and for each comma in between.
void JsonInspector::count(int values, int level)
{
    _depth = qMax(_depth, level);
    const qint64 lines = 2 + qMax(0, values - 1);
    _indentation += lines * (1 + INDENTATION * (level + OUTER_LEVELS));
}

} // namespace bus
