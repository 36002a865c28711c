#include "trelanlib.h"

#include "trelancommand.h"
#include "trelanconnectionstate.h"
#include "trelanfailure.h"
#include "trelanmessage.h"
#include "trelanobject.h"
#include "trelanpending.h"

#include <appversionmanager.h>

#include <QtCore/QDateTime>
#include <QtCore/QLocale>
#include <QtCore/QSharedPointer>
#include <QtNetwork/QAbstractSocket>
#include <QtNetwork/QNetworkSession>

/// Registers the resource with the translations by hand: they may be looked for before the static
/// objects of the resource's own file are made. A second registration does no harm. The function is
/// global, since the macro does not work inside a namespace.
static void initTranslations()
{
    Q_INIT_RESOURCE(trelanclient);
}

namespace bus
{

namespace
{

const QString LIBRARY_NAME = QStringLiteral("trelanclient");
const QString LIBRARY_VERSION = QStringLiteral("1.2.1");

/// The compiler writes the date in English and pads the day with a blank, whatever the locale.
QString buildDate()
{
    const QString text = QStringLiteral("%1 %2")
                             .arg(QStringLiteral(__DATE__), QStringLiteral(__TIME__))
                             .simplified();
    return QLocale(QStringLiteral("en"))
        .toDateTime(text, QStringLiteral("MMM d yyyy hh:mm:ss"))
        .toString(Qt::ISODate);
}

// Qt's sockets register these types when they are first used, and Qt warns when two threads do so
// at once. QNetworkSession is deprecated, but sockets still register it.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
void registerSocketTypes()
{
    qRegisterMetaType<QAbstractSocket::SocketError>();
    qRegisterMetaType<QAbstractSocket::SocketState>();
    qRegisterMetaType<QSharedPointer<QNetworkSession>>();
}
QT_WARNING_POP

} // namespace

// The order matters: the constructor of busLib asks whether _version is valid already.
morvik::AppVersion TrelanLib::_version;
static TrelanLib busLib; // NOLINT(cert-err58-cpp): its construction is its purpose

TrelanLib::TrelanLib()
{
    if (!_version.isValid()) {
        const morvik::AppVersion version(LIBRARY_VERSION, buildDate());
        _version = morvik::AppVersionManager::addVersion(LIBRARY_NAME, version);
    }

    qRegisterMetaType<TrelanMessage>("TrelanMessage");
    qRegisterMetaType<TrelanObject>("TrelanObject");
    qRegisterMetaType<TrelanCommand>("TrelanCommand");
    qRegisterMetaType<QSharedPointer<TrelanMessage>>("QSharedPointer<TrelanMessage>");
    qRegisterMetaType<QSharedPointer<TrelanObject>>("QSharedPointer<TrelanObject>");
    qRegisterMetaType<QSharedPointer<TrelanCommand>>("QSharedPointer<TrelanCommand>");
    qRegisterMetaType<TrelanConnectionState>("TrelanConnectionState");
    qRegisterMetaType<TrelanPending>("TrelanPending");
    qRegisterMetaType<TrelanFailure>("TrelanFailure");
    registerSocketTypes();

    initTranslations();
    morvik::AppVersionManager::addLocalisation(LIBRARY_NAME);
}

TrelanLib::~TrelanLib() = default;

} // namespace bus
