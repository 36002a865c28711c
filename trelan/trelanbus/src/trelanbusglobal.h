#pragma once

#include <QtCore/qglobal.h>

/// Marks what `libtrelanbus` exports; everything else stays hidden inside the library.
#if defined(TRELANBUS_LIBRARY)
#define TRELANBUS_EXPORT Q_DECL_EXPORT
#else
#define TRELANBUS_EXPORT Q_DECL_IMPORT
#endif
