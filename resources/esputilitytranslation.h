#pragma once

#include <esputility/esputility_global.h>

#include <QLocale>

// Installs the library's own translation for `locale` into the running application, replacing
// the one this function installed before. Returns false, leaving no library translation
// installed, when there is no application object or the library carries no translation for
// that locale (its texts are English already).
ESPUTILITY_EXPORT bool installEspUtilityTranslation(const QLocale &locale);
