#include "arrivals.h"

#include <QtCore/QFile>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

struct Arrivals::Shared
{
    sem_t complete;
    std::atomic<int> expected;
    std::atomic<int> bytes;
    std::atomic<int> count;
    std::atomic<int> faults;
    std::atomic<qint64> lastAt;
    std::atomic<int> receiver;
};

namespace
{

constexpr qint64 NS_PER_MS = 1000000;
constexpr qint64 NS_PER_S = 1000000000;

QByteArray json(const QVariantMap &content)
{
    return QJsonDocument::fromVariant(content).toJson(QJsonDocument::Compact);
}

int readingsOf(const QVariantMap &content)
{
    return content.value(QStringLiteral("readings")).toList().size();
}

} // namespace

qint64 nanoseconds()
{
    timespec time {};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * NS_PER_S + time.tv_nsec;
}

Arrivals::~Arrivals()
{
    if (_shared)
        ::munmap(_shared, sizeof(Shared));
}

bool Arrivals::create(const QString &path)
{
    const int file = ::open(QFile::encodeName(path), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    return file >= 0 && ::ftruncate(file, sizeof(Shared)) == 0 && map(file) &&
           ::sem_init(&_shared->complete, 1, 0) == 0;
}

bool Arrivals::open(const QString &path)
{
    const int file = ::open(QFile::encodeName(path), O_RDWR | O_CLOEXEC);
    if (file < 0 || !map(file))
        return false;
    _shared->receiver = ::getpid();
    return true;
}

bool Arrivals::map(int file)
{
    void *memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    if (memory == MAP_FAILED)
        return false;
    _shared = static_cast<Shared *>(memory);
    return true;
}

void Arrivals::expect(int number, int bytes)
{
    while (::sem_trywait(&_shared->complete) == 0) {}
    _shared->bytes = bytes;
    _shared->count = 0;
    _shared->expected = number;
}

bool Arrivals::await(int milliseconds)
{
    timespec end {};
    ::clock_gettime(CLOCK_REALTIME, &end);
    const qint64 total = end.tv_nsec + milliseconds * NS_PER_MS;
    end.tv_sec += total / NS_PER_S;
    end.tv_nsec = total % NS_PER_S;
    while (::sem_timedwait(&_shared->complete, &end) != 0) {
        if (errno != EINTR)
            return false;
    }
    return _shared->faults == 0;
}

qint64 Arrivals::lastAt() const
{
    return _shared->lastAt;
}

int Arrivals::receiver() const
{
    return _shared->receiver;
}

void Arrivals::count(const QVariantMap &content)
{
    const qint64 now = nanoseconds();
    arrived(now, isSound(content));
}

void Arrivals::count(int bytes)
{
    arrived(nanoseconds(), bytes == _shared->bytes);
}

void Arrivals::arrived(qint64 now, bool sound)
{
    if (!sound)
        ++_shared->faults;
    if (++_shared->count == _shared->expected) {
        _shared->lastAt = now;
        ::sem_post(&_shared->complete);
    }
}

bool Arrivals::isSound(const QVariantMap &content)
{
    const int bytes = _shared->bytes;
    if (_compared != bytes) {
        for (std::atomic<int> &readings : _readings)
            readings = -1;
        _compared = bytes;
    }
    const int seed = content.value(content::SEED, content::DIFFERENT).toInt();
    if (seed < 0 || seed > content::DIFFERENT || !isNext(seed))
        return false;
    std::atomic<int> &readings = _readings[size_t(seed)];
    if (readings >= 0)
        return readingsOf(content) == readings;
    const QVariantMap sent =
        seed < content::DIFFERENT ? content::varied(seed, bytes) : content::ofSize(bytes);
    // Not as variants: JSON knows one kind of number.
    if (json(content) != json(sent))
        return false;
    readings = readingsOf(sent);
    return true;
}

/// Each behind the one before; the first is whatever the publisher has come to.
bool Arrivals::isNext(int seed)
{
    if (seed == content::DIFFERENT)
        return true;
    const int last = _last.exchange(seed);
    return last < 0 || seed == (last + 1) % content::DIFFERENT;
}
