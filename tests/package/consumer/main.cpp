#include <trelanerror.h>
#include <trelanobject.h>

#include <appversionmanager.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    bus::TrelanObject object;
    object.setName(QStringLiteral("a.b"));
    std::printf(
        "%s %s %s\n", qPrintable(object.name()),
        qPrintable(morvik::AppVersionManager::version(QStringLiteral("trelanclient")).version()),
        bus::TrelanError(bus::TrelanError::UnsupportedRequest).description().toUtf8().data());
    return 0;
}
