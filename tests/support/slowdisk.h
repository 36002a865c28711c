#pragma once

#include <QtCore/QtGlobal>

#include <dlfcn.h>

#include <mutex>

/// A disk that a test can stop. A program that includes this in one source has to link the library
/// of dlsym().
namespace slowdisk
{

inline std::mutex _disk;

/// Nothing gets to the disk as long as this is kept.
[[nodiscard]] inline std::unique_lock<std::mutex> stop()
{
    return std::unique_lock(_disk);
}

} // namespace slowdisk

/// The database calls this before it says that something is on disk.
// This replaces the system's function, so that it cannot be inline.
// NOLINTNEXTLINE(misc-definitions-in-headers)
extern "C" Q_DECL_EXPORT int fdatasync(int descriptor)
{
    static const auto _next = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "fdatasync"));
    const std::lock_guard lock(slowdisk::_disk);
    return _next(descriptor);
}
