#pragma once

#include <QtGlobal>

// The export macro of the core library (serial link, protocol client, image format, worker,
// scatter, package and plan rules): its classes and functions that other programs use carry it.
#if defined(ESPUTILITY_CORE_LIBRARY)
#define ESPUTILITY_CORE_EXPORT Q_DECL_EXPORT
#else
#define ESPUTILITY_CORE_EXPORT Q_DECL_IMPORT
#endif
