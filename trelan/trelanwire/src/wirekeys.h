#pragma once

#include <QtCore/QString>

#include <string_view>

/// The keys of everything that travels, each spelled here and nowhere else. Internal to the
/// libraries.
///
/// A key is bytes where text is written or parsed, and a QString without memory of its own where a
/// QVariantMap is made or searched.
namespace bus::keys
{

#define TRELAN_WIRE_KEY(NAME, SPELLING)                                                            \
    struct Key_##NAME                                                                              \
    {                                                                                              \
        constexpr operator std::string_view() const { return SPELLING; }                           \
        operator QString() const { return QStringLiteral(SPELLING); }                              \
    };                                                                                             \
    inline constexpr Key_##NAME NAME {};

// Envelopes.
TRELAN_WIRE_KEY(OPERATION, "operation")
TRELAN_WIRE_KEY(DATA, "data")
TRELAN_WIRE_KEY(RESULT, "result")
TRELAN_WIRE_KEY(CODE, "code")
TRELAN_WIRE_KEY(DESCRIPTION, "description")

// Objects and messages. An object has its options under "opt", a message under "ops".
TRELAN_WIRE_KEY(TIME, "dt")
TRELAN_WIRE_KEY(UID, "uid")
TRELAN_WIRE_KEY(OBJECT_NAME, "nm")
TRELAN_WIRE_KEY(OBJECT_CONTENT, "cnt")
TRELAN_WIRE_KEY(OBJECT_PUBLISHER, "p")
TRELAN_WIRE_KEY(OBJECT_OPTIONS, "opt")
TRELAN_WIRE_KEY(MESSAGE_TEXT, "msg")
TRELAN_WIRE_KEY(MESSAGE_OPTIONS, "ops")
TRELAN_WIRE_KEY(MESSAGE_RECIEVER, "r")
TRELAN_WIRE_KEY(MESSAGE_SENDER, "s")

// The acknowledgement of a message.
TRELAN_WIRE_KEY(SENDER, "sender")
TRELAN_WIRE_KEY(RECIEVER, "reciever")

// Requests.
TRELAN_WIRE_KEY(CLIENT_NAME, "name")
TRELAN_WIRE_KEY(PROMPT, "prompt")
TRELAN_WIRE_KEY(OBJECTS, "objects")
TRELAN_WIRE_KEY(WILDCARD, "wc")
TRELAN_WIRE_KEY(WILDCARDS, "wcs")
TRELAN_WIRE_KEY(NOW, "now")

// The text of a notification and of a command. Both say "__name__".
TRELAN_WIRE_KEY(NOTIFIED_REASON, "__reason__")
TRELAN_WIRE_KEY(NOTIFIED_NAME, "__name__")
TRELAN_WIRE_KEY(NOTIFIED_CONTENT, "__context__")
TRELAN_WIRE_KEY(COMMAND, "__cmd__")
TRELAN_WIRE_KEY(COMMAND_NAME, "__name__")
TRELAN_WIRE_KEY(COMMAND_PARAMS, "__params__")
TRELAN_WIRE_KEY(COMMAND_PARENT, "__parent__")

#undef TRELAN_WIRE_KEY

} // namespace bus::keys
