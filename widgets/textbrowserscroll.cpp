#include "widgets/textbrowserscroll.h"

#include <QScrollBar>
#include <QTextBrowser>

void textBrowserScroll(QTextBrowser *browser)
{
    if (!browser)
        return;
    QScrollBar *bar = browser->verticalScrollBar();
    bar->setValue(bar->maximum());
}
