#pragma once

#include "trelanglobal.h"

#include <QtCore/QMetaType>
#include <QtCore/QString>

namespace bus
{

/// \brief Why an operation of a TrelanClient has not been done. A plain value.
class TRELAN_EXPORT TrelanFailure
{
public:
    enum Kind {
        None,         ///< it was done, or has not ended yet
        Refused,      ///< by the bus, or by the client before anything was sent: see code()
        TimedOut,     ///< it was sent, or waited, and its time is over; it may have been done
        NotConnected, ///< the bus is away, or went away before it answered; it may have been done
        NobodyThere,  ///< the bus knows no client of that name, or one that is not connected
        AnswerError,  ///< the called program has answered with an error: see description()
        Replaced      ///< a newer value of that name was published before this one could be sent
    };

    TrelanFailure() = default;
    /// \a code is one of TrelanError::Error where the bus has sent one, else 0.
    TrelanFailure(Kind kind, const QString &description, quint16 code = 0);

    Kind kind() const;
    /// The code of the bus, for Refused and NobodyThere; else 0.
    quint16 code() const;
    /// For people: what the bus, the called program or the client says about it.
    QString description() const;

    /// For people: the kind, the code and the description in one line; empty for None.
    QString toString() const;

private:
    Kind _kind = None;
    quint16 _code = 0;
    QString _description;
};

} // namespace bus

Q_DECLARE_METATYPE(bus::TrelanFailure)
