#pragma once

#include <QtCore/qglobal.h>

/// Marks what `libtrelanclient` exports; everything else stays hidden inside the library.
#if defined(TRELAN_LIBRARY)
#define TRELAN_EXPORT Q_DECL_EXPORT
#else
#define TRELAN_EXPORT Q_DECL_IMPORT
#endif
