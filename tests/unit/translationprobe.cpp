// Loads the library, whose path is the second argument, in the way that the first one names, and
// prints its text for an unsupported request. The program is not linked with the library, since the
// moment of loading matters.

#include <QtCore/QCoreApplication>
#include <QtCore/QLibrary>
#include <QtCore/QTranslator>

#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

int main(int argc, char *argv[])
{
    const QString path = QString::fromLocal8Bit(argv[2]);
    const auto load = [&path] { QLibrary(path).load(); };
    const auto isMode = [&](const char *mode) { return std::strcmp(argv[1], mode) == 0; };

    if (isMode("before") || isMode("again"))
        load();
    auto application = std::make_unique<QCoreApplication>(argc, argv);
    if (isMode("again")) {
        application.reset();
        application = std::make_unique<QCoreApplication>(argc, argv);
    }
    if (isMode("after"))
        load();
    if (isMode("thread")) {
        std::thread(load).join();
        QCoreApplication::processEvents();
    }
    std::printf("%s|%d\n",
                qUtf8Printable(QCoreApplication::translate("QObject", "Unsupported request")),
                int(application->findChildren<QTranslator *>().size()));
    return QLibrary(path).isLoaded() ? 0 : 1; // an English text does not prove that it was loaded
}
