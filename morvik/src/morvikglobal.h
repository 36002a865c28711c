#pragma once

#include <QtCore/qglobal.h>

/// Marks what `libmorvikcore` exports; everything else stays hidden inside the library.
#if defined(MORVIK_LIBRARY)
#define MORVIK_EXPORT Q_DECL_EXPORT
#else
#define MORVIK_EXPORT Q_DECL_IMPORT
#endif
