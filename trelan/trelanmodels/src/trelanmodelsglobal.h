#pragma once

#include <QtCore/qglobal.h>

/// Marks what `libtrelanmodels` exports; everything else stays hidden inside the library.
#if defined(TRELANMODELS_LIBRARY)
#define TRELANMODELS_EXPORT Q_DECL_EXPORT
#else
#define TRELANMODELS_EXPORT Q_DECL_IMPORT
#endif
