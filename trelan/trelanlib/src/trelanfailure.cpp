#include "trelanfailure.h"

#include <QtCore/QStringList>

namespace bus
{

namespace
{

QString kindText(TrelanFailure::Kind kind)
{
    switch (kind) {
    case TrelanFailure::None:
        break;
    case TrelanFailure::Refused:
        return QStringLiteral("refused");
    case TrelanFailure::TimedOut:
        return QStringLiteral("timed out");
    case TrelanFailure::NotConnected:
        return QStringLiteral("not connected");
    case TrelanFailure::NobodyThere:
        return QStringLiteral("nobody there");
    case TrelanFailure::AnswerError:
        return QStringLiteral("answered with an error");
    case TrelanFailure::Replaced:
        return QStringLiteral("replaced");
    }
    return {};
}

} // namespace

TrelanFailure::TrelanFailure(Kind kind, const QString &description, quint16 code)
    : _kind(kind)
    , _code(code)
    , _description(description)
{}

TrelanFailure::Kind TrelanFailure::kind() const
{
    return _kind;
}

quint16 TrelanFailure::code() const
{
    return _code;
}

QString TrelanFailure::description() const
{
    return _description;
}

QString TrelanFailure::toString() const
{
    QString text = kindText(_kind);
    if (_code != 0)
        text += QStringLiteral(" (%1)").arg(_code);
    if (!_description.isEmpty())
        text += QStringLiteral(": ") + _description;
    return text;
}

} // namespace bus
