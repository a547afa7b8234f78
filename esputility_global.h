#pragma once

#include <QtGlobal>

// The export macro of the widgets library (the dialog, the wizard, the widgets, the translation
// installer): its classes and functions that a host or the tests use carry it.
#if defined(ESPUTILITY_LIBRARY)
#define ESPUTILITY_EXPORT Q_DECL_EXPORT
#else
#define ESPUTILITY_EXPORT Q_DECL_IMPORT
#endif
