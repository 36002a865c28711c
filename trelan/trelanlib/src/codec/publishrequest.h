#pragma once

#include <QtCore/QByteArray>

namespace bus
{

class TrelanObject;

/// Frames in the coding Light, written without making maps of what is no map. Internal to the
/// library; thread-safe.
namespace requests
{

/// Of the request that publishes \a object.
QByteArray publish(const TrelanObject &object);

} // namespace requests

} // namespace bus
