#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace bus
{

/// \brief The newest values that a client has published, for a bus that has lost them. Internal to
/// the library; pure, one thread. Bounded: the oldest go first.
class KeptObjects
{
public:
    static constexpr int MAX_OBJECTS = 10000;
    static constexpr qint64 MAX_BYTES = 16 * 1024 * 1024;

    /// \a frame is the request that publishes the value.
    void keep(const QString &name, const QByteArray &frame)
    {
        forget(name);
        _numbers.insert(name, ++_last);
        _frames.insert(_last, {name, frame});
        _bytes += frame.size();
        while (_numbers.size() > MAX_OBJECTS || (_bytes > MAX_BYTES && _numbers.size() > 1))
            forget(QString(_frames.first().name));
    }

    void forget(const QString &name)
    {
        const quint64 number = _numbers.take(name);
        _bytes -= _frames.take(number).frame.size();
    }

    /// In the order in which they were published.
    QStringList names() const
    {
        QStringList names;
        for (const Kept &kept : _frames)
            names.append(kept.name);
        return names;
    }

    /// Empty if the name is not kept any more.
    QByteArray frame(const QString &name) const
    {
        return _frames.value(_numbers.value(name)).frame;
    }

private:
    struct Kept
    {
        QString name;
        QByteArray frame;
    };

    QHash<QString, quint64> _numbers;
    QMap<quint64, Kept> _frames;
    quint64 _last = 0;
    qint64 _bytes = 0;
};

} // namespace bus
