#pragma once

#include <QtCore/QByteArray>

#include <simdjson.h>

#include <string_view>
#include <vector>

namespace bus
{

/// \brief Looks at every value of a parsed text, for what the parser does not look at.
class JsonInspector
{
public:
    /// Looks at a value. Stops at the first object that has a key twice.
    void look(simdjson::dom::element value);
    /// Looks at the keys of an object, and not at its values.
    void lookAtKeys(simdjson::dom::object object);

    /// Whether a key was twice in an object, and which.
    bool hasRepeatedKey() const { return _hasRepeatedKey; }
    QByteArray repeatedKey() const { return _repeatedKey; }
    /// Whether a number that may be too small for a double became zero.
    bool hasZero() const { return _hasZero; }

    int depth() const { return _depth; }
    /// Bytes that are added when the value is indented inside an envelope.
    qint64 indentation() const { return _indentation; }

private:
    void value(simdjson::dom::element element, int level);
    void members(simdjson::dom::object object, int level);
    void entries(simdjson::dom::array array, int level);
    void count(int values, int level);

    std::vector<std::string_view> _keys; // of one object
    bool _hasRepeatedKey = false;
    QByteArray _repeatedKey;
    bool _hasZero = false;
    int _depth = 0;
    qint64 _indentation = 0;
};

} // namespace bus
