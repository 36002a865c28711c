#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <string_view>

namespace bus
{

/// \brief Writes an envelope, or the text of a notification, as compact JSON without making a map
/// of it first. Internal to the libraries.
///
/// The keys come out in the order in which they are written; they are those of wirekeys.h, or other
/// text that needs no escapes.
///
/// \code
/// QByteArray text;
/// const QByteArray frame = EnvelopeWriter(text)
///                              .text(keys::OPERATION, operation)
///                              .begin(keys::DATA)
///                              .raw(keys::OBJECT_CONTENT, contentJson)
///                              .time(keys::TIME, milliseconds)
///                              .end()
///                              .frame(frameformat::REQUEST);
/// \endcode
///
/// Envelopes that differ at their ends only share a text that beginning() has closed, and each has
/// an ending, which is written by a writer of its own:
///
/// \code
/// EnvelopeWriter(text).begin(keys::DATA).number(keys::MESSAGE_OPTIONS, options).beginning();
/// EnvelopeWriter(ending, 2).text(keys::UID, uid).finish();
/// \endcode
class EnvelopeWriter
{
public:
    /// Appends to \a out, which has to outlive the writer.
    explicit EnvelopeWriter(QByteArray &out);
    /// Goes on behind a beginning that has left \a openObjects objects open.
    EnvelopeWriter(QByteArray &out, int openObjects);
    Q_DISABLE_COPY(EnvelopeWriter)

    EnvelopeWriter &text(std::string_view key, const QString &value);
    /// \a utf8 has to be sound UTF-8.
    EnvelopeWriter &text(std::string_view key, const QByteArray &utf8);
    EnvelopeWriter &number(std::string_view key, qint64 value);
    /// A time travels as a string of decimal milliseconds since the epoch.
    EnvelopeWriter &time(std::string_view key, qint64 milliseconds);
    /// \a json has to be one JSON value.
    EnvelopeWriter &raw(std::string_view key, const QByteArray &json);
    /// Whole numbers come out exactly, as json::exact() writes them.
    EnvelopeWriter &map(std::string_view key, const QVariantMap &value);
    /// Opens an object under \a key; what follows goes into it until end().
    EnvelopeWriter &begin(std::string_view key);
    EnvelopeWriter &end();
    /// The "result" of a reply that is no failure.
    EnvelopeWriter &success();

    /// Writes what goes between a beginning and its endings.
    void beginning();
    /// Closes all open objects.
    void finish();
    /// Closes all open objects and makes a frame of all that is in the buffer.
    QByteArray frame(std::string_view word);

private:
    void key(std::string_view key);

    QByteArray &_out;
    int _openObjects;
    bool _isFirst = true; // of its object
};

} // namespace bus
