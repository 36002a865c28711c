#pragma once

#include "trelanglobal.h"

#include "trelantransport.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

namespace bus
{

class TrelanError;

/// \brief Makes and takes apart what travels on both channels of the bus. Bytes only: no sockets,
/// no log, no state but one limit.
///
/// A frame is a header word, the length of the payload in decimal and the payload, separated by
/// CR LF, with nothing behind the payload. The payload is base64 over a compressed JSON object, the
/// envelope. Bytes off a stream are cut into frames by TrelanFrameReader.
///
/// All functions are static and thread-safe; each thread keeps its own compressor, which takes
/// about 300 KB and saves setting one up for every payload.
///
/// \code
/// const QByteArray bytes = TrelanFrame::encode(
///     TrelanFrame::Request, TrelanFrame::request("loadObject", { { "nm", "a.b" } }));
/// \endcode
class TRELAN_EXPORT TrelanFrame
{
public:
    enum Kind { Request, Reply };

    /// Why a payload could not be decoded.
    enum Fault {
        NoFault,
        NotInflatable, ///< not base64, not compressed, cut off or damaged
        TooLarge,      ///< inflates to more than the limit; nothing of it is kept
        NotJson        ///< inflates, but the result is no JSON text
    };

    /// A payload taken apart.
    struct Payload
    {
        Fault fault = NoFault;
        QByteArray json;      ///< the inflated bytes; empty if they could not be had
        QVariantMap envelope; ///< empty on a fault, and if the JSON text is no object
        QString errorText;    ///< the JSON parser's words, or that it is too large; for people
    };

    /// Longest piece of a header or size line, line break included. What is longer is taken in
    /// pieces of this length, none of which is a header word.
    static constexpr int MAX_LINE_LENGTH = 15;

    /// "[-REQUEST-]" or "[-REPLY-]".
    static QString headerWord(Kind kind);

    /// A header or size line as it is compared: decoded as Latin-1, blanks around it removed and
    /// blanks inside it collapsed.
    static QString lineText(const QByteArray &line);

    /// The envelope of a request.
    static QVariantMap request(const QString &operation, const QVariantMap &data);

    /// The envelope of a reply; \a error goes under "result".
    static QVariantMap reply(const QString &operation, const TrelanError &error,
                             const QVariantMap &data = QVariantMap());

    /// The "code" under "result" of a reply, as QVariant::toUInt() reads it, of which the low 16
    /// bits count. 0 where there is none; \c TrelanError::IncorrectRequestData where it is no
    /// number.
    static quint16 replyCode(const QVariantMap &result);

    /// A whole frame, as it is handed to the socket in one write. Whole numbers above 2^53 are only
    /// exact in the coding Light.
    static QByteArray encode(Kind kind, const QVariantMap &envelope,
                             TrelanTransport::Coding coding = TrelanTransport::Classic);

    /// The payload alone.
    static QByteArray encodePayload(const QVariantMap &envelope,
                                    TrelanTransport::Coding coding = TrelanTransport::Classic);

    /// A whole frame in the coding Light, of an envelope that is text already.
    static QByteArray encodeText(Kind kind, const QByteArray &json);

    /// A whole frame around a payload.
    static QByteArray frame(Kind kind, const QByteArray &payload);

    /// \brief Takes a payload apart.
    ///
    /// As tolerant as QByteArray::fromBase64() and qUncompress(): foreign characters are skipped,
    /// and the uncompressed length that the payload declares need not be right. It never decides
    /// how much memory is taken; that grows with what really comes out, up to \a maxInflatedSize.
    static Payload decodePayload(const QByteArray &payload,
                                 qint64 maxInflatedSize = TrelanFrame::maxInflatedSize());

    /// Takes a payload apart that is inflated already.
    static Payload decodeJson(const QByteArray &json);

    /// Largest number of bytes that a payload of this process may inflate to: 256 MiB unless set.
    static qint64 maxInflatedSize();
    /// At least 1; takes effect for the next payload, in every thread.
    static void setMaxInflatedSize(qint64 bytes);

    /// What qCompress(\a bytes, -1) returns, to the byte, with a compressor that is set up once.
    static QByteArray compress(const QByteArray &bytes);

    /// What qUncompress() takes, made in less time and with more bytes than by compress(): up to
    /// 1 MiB is stored as it is.
    static QByteArray compressLightly(const QByteArray &bytes);

    /// What qUncompress(\a bytes) returns, but silent, and \c NotInflatable or \c TooLarge in
    /// \a fault where there is nothing to return.
    static QByteArray uncompress(const QByteArray &bytes, qint64 maxInflatedSize, Fault *fault);
};

} // namespace bus
