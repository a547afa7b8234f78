#pragma once

#include <QtGlobal>

// The one export macro of the library: classes that a host or the tests use carry it.
#if defined(ESPUTILITY_LIBRARY)
#define ESPUTILITY_EXPORT Q_DECL_EXPORT
#else
#define ESPUTILITY_EXPORT Q_DECL_IMPORT
#endif
