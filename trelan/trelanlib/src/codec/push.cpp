#include "codec/push.h"

#include "trelanerror.h"
#include "trelanframe.h"

#include <base64.h>
#include <envelopewriter.h>
#include <frameformat.h>
#include <jsondom.h>
#include <wirekeys.h>
#include <zstream.h>

#include <charconv>
#include <string_view>

namespace bus::pushes
{

namespace
{

namespace dom = simdjson::dom;

constexpr size_t ENVELOPE_FIELDS = 2;
constexpr uint ALL_FIELDS = 0x3f;

/// Reads a time as a bus writes it, without blanks and signs.
bool takeTime(std::string_view text, qint64 &milliseconds)
{
    const auto [end, fault] =
        std::from_chars(text.data(), text.data() + text.size(), milliseconds, 10);
    return fault == std::errc() && end == text.data() + text.size();
}

/// Reads the fields of a push, each of which has to be there once.
class Reader
{
public:
    std::optional<TrelanMessage> read(dom::object data)
    {
        for (const auto [key, value] : data) {
            if (!field(key, value))
                return {};
        }
        if (_found != ALL_FIELDS)
            return {};
        TrelanMessage message {TrelanTimestamp(_time)};
        message.setMessage(json::toText(_text));
        message.setSender(json::toText(_sender));
        message.setReciever(json::toText(_reciever));
        message.setUid(json::toText(_uid));
        message.setOptions(TrelanMessage::Options(QFlag(int(_options))));
        return message;
    }

private:
    bool field(std::string_view key, dom::element value)
    {
        std::string_view time;
        if (key == keys::TIME)
            return take(0, value, time) && takeTime(time, _time);
        if (key == keys::MESSAGE_TEXT)
            return take(1, value, _text);
        if (key == keys::MESSAGE_OPTIONS)
            return isNew(2) && value.get(_options) == simdjson::SUCCESS &&
                   _options == int(_options);
        if (key == keys::MESSAGE_RECIEVER)
            return take(3, value, _reciever);
        if (key == keys::MESSAGE_SENDER)
            return take(4, value, _sender);
        return key == keys::UID && take(5, value, _uid);
    }

    bool take(int number, dom::element value, std::string_view &utf8)
    {
        // A byte order mark means different things to Qt in different strings.
        return isNew(number) && value.get(utf8) == simdjson::SUCCESS &&
               utf8.substr(0, 3) != "\xef\xbb\xbf";
    }

    bool isNew(int number)
    {
        const uint bit = 1U << number;
        const bool isNew = (_found & bit) == 0;
        _found |= bit;
        return isNew;
    }

    uint _found = 0;
    qint64 _time = 0;
    int64_t _options = 0;
    std::string_view _text;
    std::string_view _reciever;
    std::string_view _sender;
    std::string_view _uid;
};

} // namespace

std::optional<TrelanMessage> decode(const QByteArray &payload)
{
    QByteArray json;
    std::optional<TrelanMessage> message;
    if (zstream::uncompress(base64::decode(payload), TrelanFrame::maxInflatedSize(), json) !=
        zstream::Done)
        return message;
    json::parse(json, [&message](dom::element root) {
        dom::object envelope;
        dom::object data;
        std::string_view operation;
        if (root.get(envelope) == simdjson::SUCCESS && envelope.size() == ENVELOPE_FIELDS &&
            envelope[keys::OPERATION].get(operation) == simdjson::SUCCESS &&
            operation == operations::SEND_MESSAGE &&
            envelope[keys::DATA].get(data) == simdjson::SUCCESS)
            message = Reader().read(data);
        return message.has_value();
    });
    return message;
}

QByteArray acknowledgement(const TrelanMessage &message, TrelanTransport::Coding coding)
{
    if (coding == TrelanTransport::Classic) {
        return TrelanFrame::encode(TrelanFrame::Reply,
                                   TrelanFrame::reply(operations::SEND_MESSAGE, TrelanError(),
                                                      {{keys::SENDER, message.sender()},
                                                       {keys::RECIEVER, message.reciever()},
                                                       {keys::UID, message.uid()}}),
                                   coding);
    }
    QByteArray text;
    return EnvelopeWriter(text)
        .begin(keys::DATA)
        .text(keys::RECIEVER, message.reciever())
        .text(keys::SENDER, message.sender())
        .text(keys::UID, message.uid())
        .end()
        .text(keys::OPERATION, operations::SEND_MESSAGE)
        .success()
        .frame(frameformat::REPLY);
}

} // namespace bus::pushes
