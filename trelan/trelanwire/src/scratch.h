#pragma once

#include <QtCore/QByteArray>

namespace bus
{

/// \brief Lends a buffer that is used again and again, empty at first.
///
/// Fresh memory of some dozen KiB comes from the system, page by page, and goes back to it: for a
/// large content that takes as long as encoding it. Internal to the library.
///
/// \code
/// static thread_local QByteArray _buffer;
/// const Scratch scratch(_buffer);
/// _buffer += ...
/// \endcode
class Scratch
{
public:
    explicit Scratch(QByteArray &buffer)
        : _buffer(buffer)
    {
        _buffer.reserve(qMax(_buffer.capacity(), LEAST)); // or resize() would free it
        _buffer.resize(0);
    }
    ~Scratch()
    {
        if (_buffer.capacity() > MOST_KEPT)
            _buffer = QByteArray();
    }
    Q_DISABLE_COPY(Scratch)

private:
    static constexpr int LEAST = 1024;
    static constexpr int MOST_KEPT = 256 * 1024;

    QByteArray &_buffer;
};

} // namespace bus
