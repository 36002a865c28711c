#pragma once

#include <QtCore/QString>

#include <string_view>

// Keys and operations as they travel, each spelled here and nowhere else. Internal to the
// libraries.
//
// A word is bytes where text is written or parsed, and a QString without memory of its own where a
// QVariantMap is made or searched.
#define TRELAN_WIRE_WORD(NAME, SPELLING)                                                           \
    struct Word_##NAME                                                                             \
    {                                                                                              \
        constexpr operator std::string_view() const { return SPELLING; }                           \
        operator QString() const { return QStringLiteral(SPELLING); }                              \
    };                                                                                             \
    inline constexpr Word_##NAME NAME {};

/// What travels in the place of a key.
namespace bus::keys
{

// Envelopes.
TRELAN_WIRE_WORD(OPERATION, "operation")
TRELAN_WIRE_WORD(DATA, "data")
TRELAN_WIRE_WORD(RESULT, "result")
TRELAN_WIRE_WORD(CODE, "code")
TRELAN_WIRE_WORD(DESCRIPTION, "description")

// Objects and messages. An object has its options under "opt", a message under "ops".
TRELAN_WIRE_WORD(TIME, "dt")
TRELAN_WIRE_WORD(UID, "uid")
TRELAN_WIRE_WORD(OBJECT_NAME, "nm")
TRELAN_WIRE_WORD(OBJECT_CONTENT, "cnt")
TRELAN_WIRE_WORD(OBJECT_PUBLISHER, "p")
TRELAN_WIRE_WORD(OBJECT_OPTIONS, "opt")
TRELAN_WIRE_WORD(MESSAGE_TEXT, "msg")
TRELAN_WIRE_WORD(MESSAGE_OPTIONS, "ops")
TRELAN_WIRE_WORD(MESSAGE_RECIEVER, "r")
TRELAN_WIRE_WORD(MESSAGE_SENDER, "s")
TRELAN_WIRE_WORD(MESSAGE_LIMIT, "limit")

// The acknowledgement of a message.
TRELAN_WIRE_WORD(SENDER, "sender")
TRELAN_WIRE_WORD(RECIEVER, "reciever")

// Requests.
TRELAN_WIRE_WORD(CLIENT_NAME, "name")
TRELAN_WIRE_WORD(PROMPT, "prompt")
TRELAN_WIRE_WORD(TRANSIENT, "transient")
TRELAN_WIRE_WORD(FEATURES, "features")
TRELAN_WIRE_WORD(OBJECTS, "objects")
TRELAN_WIRE_WORD(WILDCARD, "wc")
TRELAN_WIRE_WORD(WILDCARDS, "wcs")
TRELAN_WIRE_WORD(NOW, "now")
TRELAN_WIRE_WORD(TOLD, "told")
TRELAN_WIRE_WORD(REMOVALS, "removals")
TRELAN_WIRE_WORD(CLIENTS, "clients")

// What a bus answers to a handshake that asks for its features, beside "features".
TRELAN_WIRE_WORD(INSTANCE, "instance")
TRELAN_WIRE_WORD(CHANNEL, "channel")

// What a bus tells of a client, beside "name".
TRELAN_WIRE_WORD(CLIENT_ADDRESS, "address")
TRELAN_WIRE_WORD(CLIENT_CONNECTIONS, "connections")
TRELAN_WIRE_WORD(CLIENT_SUBSCRIPTIONS, "subscriptions")
TRELAN_WIRE_WORD(CLIENT_QUEUED, "queued")
TRELAN_WIRE_WORD(CLIENT_QUEUED_BYTES, "queuedBytes")
TRELAN_WIRE_WORD(CLIENT_IN, "in")
TRELAN_WIRE_WORD(CLIENT_OUT, "out")
TRELAN_WIRE_WORD(CLIENT_OWNER, "owner")
TRELAN_WIRE_WORD(CLIENT_USER, "user")
TRELAN_WIRE_WORD(CLIENT_USER_ID, "userId")
TRELAN_WIRE_WORD(CLIENT_GROUPS, "groups")
TRELAN_WIRE_WORD(CLIENT_CONTROL_GROUP, "controlGroup")
TRELAN_WIRE_WORD(CLIENT_PROCESS, "process")
TRELAN_WIRE_WORD(CLIENT_PROGRAM, "program")

// The text of a notification, of a marker behind notifications, and of a command. Notifications and
// commands say "__name__".
TRELAN_WIRE_WORD(NOTIFIED_REASON, "__reason__")
TRELAN_WIRE_WORD(NOTIFIED_NAME, "__name__")
TRELAN_WIRE_WORD(NOTIFIED_CONTENT, "__context__")
TRELAN_WIRE_WORD(NOTIFIED_STORED, "__stored__")
TRELAN_WIRE_WORD(MARKED_SUBSCRIPTION, "__sub__")
TRELAN_WIRE_WORD(COMMAND, "__cmd__")
TRELAN_WIRE_WORD(COMMAND_NAME, "__name__")
TRELAN_WIRE_WORD(COMMAND_PARAMS, "__params__")
TRELAN_WIRE_WORD(COMMAND_PARENT, "__parent__")

} // namespace bus::keys

/// What a request asks for.
namespace bus::operations
{

TRELAN_WIRE_WORD(HANDSHAKE, "handshake")
TRELAN_WIRE_WORD(PUBLISH, "pub")
TRELAN_WIRE_WORD(REMOVE, "rm")
TRELAN_WIRE_WORD(LOAD_OBJECT, "loadObject")
TRELAN_WIRE_WORD(LOAD_OBJECTS, "loadObjects")
TRELAN_WIRE_WORD(SUBSCRIBE, "sub")
TRELAN_WIRE_WORD(UNSUBSCRIBE, "unsub")
TRELAN_WIRE_WORD(SEND_MESSAGE, "sendMessage")
TRELAN_WIRE_WORD(CLIENTS, "clients")

} // namespace bus::operations

/// What a bus can do beyond what every bus can.
namespace bus::features
{

TRELAN_WIRE_WORD(CLIENTS, "clients")
TRELAN_WIRE_WORD(LIMIT, "limit")
TRELAN_WIRE_WORD(NOW, "now")
TRELAN_WIRE_WORD(OWNERS, "owners")
TRELAN_WIRE_WORD(PROMPT, "prompt")
TRELAN_WIRE_WORD(REMOVALS, "removals")
TRELAN_WIRE_WORD(TOLD, "told")
TRELAN_WIRE_WORD(TRANSIENT, "transient")

} // namespace bus::features

/// The channels as they are named in answers and in the log.
namespace bus::channels
{

TRELAN_WIRE_WORD(QUERY, "query")
TRELAN_WIRE_WORD(MESSAGE, "message")

} // namespace bus::channels

/// Why somebody is notified.
namespace bus::reasons
{

TRELAN_WIRE_WORD(SUBSCRIPTION, "sub")
TRELAN_WIRE_WORD(TOLD, "told")
TRELAN_WIRE_WORD(REMOVED, "removed")

} // namespace bus::reasons

/// Why a client is told of a stored object, if it wants to know.
namespace bus::occasions
{

TRELAN_WIRE_WORD(NOW, "now")
TRELAN_WIRE_WORD(CHANGED, "changed")

} // namespace bus::occasions

#undef TRELAN_WIRE_WORD
