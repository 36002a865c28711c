/// \file
/// Shows that the sanitizer still sees a race in spite of qtsync.cpp and the suppressions. Called
/// as raceprobe race|mutex|queued: a thread and its owner change a plain variable, with "race"
/// without any synchronisation.

#include <QtCore/QCoreApplication>
#include <QtCore/QMutex>
#include <QtCore/QThread>

#include <memory>

namespace
{

int _number = 0;

void change(QMutex *mutex)
{
    const QMutexLocker lock(mutex); // does nothing without one
    ++_number;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QByteArray what(argc > 1 ? argv[1] : "");
    QMutex any;
    QMutex *mutex = what == "mutex" ? &any : nullptr;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        change(mutex);
        QMetaObject::invokeMethod(
            &application, [] { QCoreApplication::exit(++_number); }, Qt::QueuedConnection);
    }));
    thread->start();
    if (what != "queued")
        change(mutex);
    const int changes = QCoreApplication::exec();
    thread->wait();
    return changes == (what == "queued" ? 2 : 3) ? 0 : 1;
}
