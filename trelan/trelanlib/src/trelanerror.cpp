#include "trelanerror.h"

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QObject>

namespace bus
{

QMap<TrelanError::Error, QString> TrelanError::_errors;

namespace
{
// Guards TrelanError::_errors: clients and an embedded bus make errors in several threads.
QBasicMutex _errorsMutex;
} // namespace

TrelanError::TrelanError()
    : TrelanError(NoError)
{}

TrelanError::TrelanError(Error code)
    : _error(code)
{
    // Whoever has no error yet, a channel that is made for example, must not settle the language.
    if (code == NoError)
        return;
    prepareErrors();
    const QMutexLocker locker(&_errorsMutex);
    _description = _errors[code];
}

TrelanError::TrelanError(Error code, const QString &description)
    : _error(code)
    , _description(description)
{}

TrelanError::TrelanError(const TrelanError &other) = default;
TrelanError::~TrelanError() = default;
TrelanError &TrelanError::operator=(const TrelanError &other) = default;

bool TrelanError::operator==(const TrelanError &other) const
{
    return _error == other._error;
}

bool TrelanError::operator!=(const TrelanError &other) const
{
    return !(*this == other);
}

TrelanError::Error TrelanError::error() const
{
    return _error;
}

void TrelanError::setError(const Error &error)
{
    _error = error;
}

QString TrelanError::description() const
{
    return _description;
}

void TrelanError::setDescription(const QString &description)
{
    _description = description;
}

void TrelanError::prepareErrors()
{
    const QMutexLocker locker(&_errorsMutex);
    if (!_errors.isEmpty())
        return;

    _errors.insert(NoError, QString());
    // The misspellings belong to the texts: other programs and readers of logs look for them.
    _errors.insert(IncorrectRequestSize, QObject::tr("Incorret request size"));
    _errors.insert(IncorrectRequestData, QObject::tr("Incorrect request data"));
    _errors.insert(InvalidDataStorage, QObject::tr("Invalid data storage"));
    _errors.insert(StorageAccessError, QObject::tr("Storage access error"));
    _errors.insert(UnregisteredClient, QObject::tr("Unregisterd client"));
    _errors.insert(UnsupportedRequest, QObject::tr("Unsupported request"));
}

} // namespace bus
