#pragma once

#include <QtCore/QByteArray>

namespace bus
{

/// \brief Lends a buffer that is used again and again. It is empty at first. Internal to the
/// libraries.
///
/// Fresh memory of some dozen KiB comes from the system page by page and goes back to it, which
/// takes as long as encoding a large content.
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
        _buffer.reserve(qMax(_buffer.capacity(), LEAST)); // without it resize() frees the memory
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
