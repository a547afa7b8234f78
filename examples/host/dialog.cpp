// A host application that opens the flasher dialog. With --smoke it closes the dialog as soon as
// it is on screen and exits 0 only if it was shown.
#include <esputility/espflasher.h>
#include <esputility/esputilitytranslation.h>

#include <QApplication>
#include <QLocale>
#include <QTimer>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    installEspUtilityTranslation(QLocale::system());
    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE);
    const bool smoke = app.arguments().contains(QStringLiteral("--smoke"));
    bool shown = false;
    if (smoke) {
        QTimer::singleShot(0, &flasher, [&] {
            shown = flasher.isVisible();
            flasher.reject();
        });
    }
    const int result = flasher.exec();
    return smoke ? (shown ? 0 : 1) : result;
}
