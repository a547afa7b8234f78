#pragma once

#include "esputility_global.h"

class QTextBrowser;

// Keeps the newest log line in view.
ESPUTILITY_EXPORT void textBrowserScroll(QTextBrowser *browser);
