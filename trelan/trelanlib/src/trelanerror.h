#pragma once

#include "trelanglobal.h"

#include <QtCore/QMap>
#include <QtCore/QString>

namespace bus
{

/// \brief A code of the bus protocol and a text for people.
///
/// A plain value. The texts of the known codes come from one process-wide table, which is filled,
/// and translated, when the first error is made from a code alone; a translation installed later
/// changes nothing. NoError has no text, and making it leaves the table as it is. Every method is
/// thread-safe on distinct instances, the filling included.
class TRELAN_EXPORT TrelanError
{
public:
    /// 1 to 4 are faults of a request, 256 and 512 of the storage of the bus. The gaps are meant.
    enum Error : quint16 {
        NoError = 0,
        IncorrectRequestSize = 1,
        IncorrectRequestData = 2,
        UnregisteredClient = 3,
        UnsupportedRequest = 4,
        InvalidDataStorage = 256,
        StorageAccessError = 512
    };

    /// No error, with an empty description.
    TrelanError();
    /// \a code with its text from the table; a code without an entry gets an empty description.
    TrelanError(Error code);
    /// \a code with a text of its own; the table is not consulted.
    TrelanError(Error code, const QString &description);
    TrelanError(const TrelanError &other);
    ~TrelanError();

    TrelanError &operator=(const TrelanError &other);

    /// Compares the codes only.
    bool operator==(const TrelanError &other) const;
    bool operator!=(const TrelanError &other) const;

    Error error() const;
    /// Replaces the code and leaves the description as it was.
    void setError(const Error &error);

    QString description() const;
    void setDescription(const QString &description);

    /// Fills the table of texts with the translation installed now, unless it is filled already.
    static void prepareErrors();

private:
    Error _error = NoError;
    QString _description;

    static QMap<Error, QString> _errors;
};

} // namespace bus
