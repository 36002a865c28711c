#pragma once

#include <content.h>

#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <array>
#include <atomic>

/// Nanoseconds of a clock that all processes of the machine share.
qint64 nanoseconds();

/// \brief What has arrived at the receivers, seen by the publisher, which is another process.
///
/// Lies in memory that both have mapped, so that to tell of an arrival costs next to nothing, and
/// wakes the publisher once, at the last one it waits for.
class Arrivals
{
public:
    Arrivals() = default;
    ~Arrivals();
    Q_DISABLE_COPY(Arrivals)

    /// The publisher makes the file, receivers open it.
    bool create(const QString &path);
    bool open(const QString &path);

    /// \name Publisher
    /// @{
    /// Counts anew: \a number arrivals of content of \a bytes.
    void expect(int number, int bytes);
    /// False if they do not come in \a milliseconds, or something else came.
    bool await(int milliseconds);
    /// When the last of them came, in nanoseconds().
    qint64 lastAt() const;
    /// The process that has opened the file last, 0 if none has.
    int receiver() const;
    /// @}

    /// \name Receivers, from any thread
    /// @{
    /// The first content of each size is compared with what was sent, the others by a glance. Of
    /// contents that are sent in turn that is each of them, and a single receiver gets them in
    /// turn.
    void count(const QVariantMap &content);
    void count(int bytes); ///< where there is nothing but bytes
    /// @}

private:
    struct Shared;

    bool map(int file);
    void arrived(qint64 now, bool sound);
    bool isSound(const QVariantMap &content);
    bool isNext(int seed);

    Shared *_shared = nullptr;
    std::atomic<int> _compared {0}; // the size whose contents were compared
    // In contents of that size, -1 where none was compared; behind those in turn, the one by
    // itself.
    std::array<std::atomic<int>, content::DIFFERENT + 1> _readings {};
    std::atomic<int> _last {-1}; // of those in turn
};
