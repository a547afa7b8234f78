#include "resources/esputilitytranslation.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTranslator>

#include <memory>

namespace {

// Where the build embeds the compiled translations, and their file name stem.
const char *const translationDirectory = ":/esptool/translations";
const char *const translationStem = "esputility";

// The translator this library installed; owned by the application object.
QPointer<QTranslator> &installedTranslator()
{
    static QPointer<QTranslator> translator;
    return translator;
}

} // namespace

bool installEspUtilityTranslation(const QLocale &locale)
{
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return false;
    if (QTranslator *previous = installedTranslator().data()) {
        QCoreApplication::removeTranslator(previous);
        delete previous;
    }

    auto translator = std::make_unique<QTranslator>(application);
    if (!translator->load(locale, QLatin1String(translationStem), QStringLiteral("_"),
                          QLatin1String(translationDirectory)) ||
        !QCoreApplication::installTranslator(translator.get()))
        return false;
    installedTranslator() = translator.release();
    return true;
}
