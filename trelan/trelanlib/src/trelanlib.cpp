#include "trelanlib.h"

#include "trelancommand.h"
#include "trelanmessage.h"
#include "trelanobject.h"

#include <appversionmanager.h>

#include <QtCore/QDateTime>
#include <QtCore/QLocale>
#include <QtCore/QSharedPointer>
#include <QtNetwork/QAbstractSocket>

/// Translations may be looked for before the static objects of the resource's own file are made.
/// The macro wants the global namespace; it does no harm twice.
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
    // Sockets are made in several threads; two that register these at once make Qt warn.
    qRegisterMetaType<QAbstractSocket::SocketError>();
    qRegisterMetaType<QAbstractSocket::SocketState>();

    initTranslations();
    morvik::AppVersionManager::addLocalisation(LIBRARY_NAME);
}

TrelanLib::~TrelanLib() = default;

} // namespace bus
