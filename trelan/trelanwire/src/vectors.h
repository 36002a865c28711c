#pragma once

#include <QtCore/QtGlobal>

#ifdef __x86_64__
#include <tmmintrin.h>
#endif

/// Instructions for sixteen bytes at a time, on processors that have them. Internal to the
/// libraries.
namespace bus::vectors
{

#ifdef __x86_64__

/// Marks a function that may only be called where hasVectors() is true.
#define TRELAN_VECTORS __attribute__((target("ssse3")))

inline bool hasVectors()
{
    static const bool _has = __builtin_cpu_supports("ssse3") != 0;
    return _has;
}

template <typename Byte>
TRELAN_VECTORS __m128i load(const Byte *from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(from));
}

template <typename Byte>
TRELAN_VECTORS void store(Byte *to, __m128i bytes)
{
    _mm_storeu_si128(reinterpret_cast<__m128i *>(to), bytes);
}

#else

inline bool hasVectors()
{
    return false;
}

#endif

} // namespace bus::vectors
