// Opens the flasher dialog as a host would, connects it to a virtual ESP8266 through
// autoconnect(), loads a demo package and saves a picture of the window: as loaded, after a
// finished flash run, or with the scatter composer open over it.

#include "flasher/espflasher.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scattersection.h"
#include "resources/esputilitytranslation.h"
#include "serial/qcomport.h"
#include "tools/imagegen/espimagebuilder.h"
#include "virtualchip/virtualboard.h"
#include "wizard/espscatterwizard.h"

#include <QApplication>
#include <QComboBox>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QFileInfo>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTemporaryDir>
#include <QTextBrowser>
#include <QTextStream>
#include <QTimer>

#include <functional>

namespace {

// Longest wait for the virtual chip to be identified, in milliseconds.
constexpr int identifyTimeoutMs = 15000;
// Longest wait for the demo package to be flashed, in milliseconds.
constexpr int flashRunTimeoutMs = 60000;
// Time the window gets to lay itself out before the picture, in milliseconds.
constexpr int settleMs = 300;
// How often the file dialog is looked for, in milliseconds.
constexpr int dialogPollMs = 20;

const char *const demoSerial = "DEMO-0001";

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

bool waitFor(const std::function<bool()> &done, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}

ScatterSection section(ScatterSection::Kind kind, quint32 address, const QString &file)
{
    ScatterSection row;
    row.hasCells = true;
    row.kind = kind;
    row.kindSet = true;
    row.startAddress = address;
    row.file = file;
    if (kind == ScatterSection::Firmware) {
        row.flashMode = QStringLiteral("dio");
        row.flashSize = QStringLiteral("4MB");
        row.flashFrequency = QStringLiteral("40m");
    }
    return row;
}

// A package like the ones users flash: a firmware image, an application and the loader.
bool writeDemoPackage(const QDir &dir, const QString &stub, const QString &package)
{
    EspImageBuilder firmware;
    firmware.setFlashMode(2);
    firmware.addRandomSegment(0x40100000, 0x6000, 1);
    firmware.addRandomSegment(0x3FFE8000, 0x800, 2);
    QString error;
    if (!firmware.save(dir.absoluteFilePath(QStringLiteral("boot.bin")), &error) ||
        !EspImageBuilder::saveBytes(EspImageBuilder::application(0x3A000, 0x2000, 3),
                                    dir.absoluteFilePath(QStringLiteral("app.bin")), &error)) {
        err() << "cannot write the demo images: " << error << '\n';
        return false;
    }
    EspPackageWriter writer(
        [](EspPackageWriter::Severity, const QString &text) { err() << text << '\n'; });
    if (!writer.open(package))
        return false;
    writer.setDescription(QStringLiteral("Demo firmware 1.0"));
    return writer.addStub(stub) &&
           writer.addSection(section(ScatterSection::Firmware, 0x0, QStringLiteral("boot.bin")),
                             dir, true) &&
           writer.addSection(
               section(ScatterSection::Application, 0x10000, QStringLiteral("app.bin")), dir,
               true) &&
           writer.finish(QStringLiteral("ESP8266EX"));
}

// Answers the dialog's file chooser with `path` once it opens.
void answerFileDialog(const QString &path)
{
    auto *timer = new QTimer(qApp);
    timer->setInterval(dialogPollMs);
    QObject::connect(timer, &QTimer::timeout, [timer, path] {
        auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        timer->stop();
        timer->deleteLater();
        dialog->selectFile(path);
        if (auto *name = dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
            name->setText(path);
        static_cast<QDialog *>(dialog)->accept();
    });
    timer->start();
}

template <class T>
T *child(QObject *parent, const char *name)
{
    return parent->findChild<T *>(QLatin1String(name));
}

// Flashes the loaded package and waits for the end of the run.
bool runFlash(ESPFlasher &flasher)
{
    auto *flash = child<QPushButton>(&flasher, "flashTool");
    auto *log = child<QTextBrowser>(&flasher, "logBrowser");
    if (!flash || !log || !flash->isEnabled())
        return false;
    flash->click();
    return waitFor(
        [log] { return log->toPlainText().contains(QLatin1String("Finished flashing package")); },
        flashRunTimeoutMs);
}

// The composer over the dialog: one region confirmed, the next one being edited.
void composeRegions(EspScatterWizard &wizard)
{
    child<QPushButton>(&wizard, "finishButton")->click(); // "Begin"
    child<QRadioButton>(&wizard, "regionSizeSel")->setChecked(true);
    child<QLineEdit>(&wizard, "regionSize")->setText(QStringLiteral("12kb"));
    child<QLineEdit>(&wizard, "regionFileName")->setText(QStringLiteral("firmware"));
    child<QPushButton>(&wizard, "nextButton")->click();
    child<QComboBox>(&wizard, "regionTypeCombo")->setCurrentIndex(1);
    child<QLineEdit>(&wizard, "regionStartAddress")->setText(QStringLiteral("0x10000"));
    child<QLineEdit>(&wizard, "regionEndAddress")->setText(QStringLiteral("0x1C000"));
    child<QLineEdit>(&wizard, "regionFileName")->setText(QStringLiteral("application.img"));
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-dialog-screenshot"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Saves a picture of the flasher dialog connected to a virtual ESP8266 with a demo package loaded. Needs a display (scripts/screenshot provides a virtual one)."));
    parser.addHelpOption();
    const QCommandLineOption outputOption(
        {QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("PNG file to write."),
        QStringLiteral("file"), QStringLiteral("docs/screenshots/dialog.png"));
    const QCommandLineOption stubOption(QStringLiteral("stub"),
                                        QStringLiteral("Flash loader ELF file for the package."),
                                        QStringLiteral("file"), QStringLiteral(ESP_DEFAULT_STUB));
    const QCommandLineOption languageOption(QStringLiteral("language"),
                                            QStringLiteral("Interface language, e.g. ru."),
                                            QStringLiteral("code"));
    const QCommandLineOption sceneOption(
        QStringLiteral("scene"),
        QStringLiteral(
            "What to show: dialog (the package loaded), flash-run (after flashing the package) or composer (the scatter composer with a region being edited)."),
        QStringLiteral("scene"), QStringLiteral("dialog"));
    parser.addOptions({outputOption, stubOption, languageOption, sceneOption});
    parser.process(app);
    const QString scene = parser.value(sceneOption);
    if (scene != QLatin1String("dialog") && scene != QLatin1String("flash-run") &&
        scene != QLatin1String("composer")) {
        err() << "unknown scene " << scene << '\n';
        return 1;
    }

    if (parser.isSet(languageOption))
        installEspUtilityTranslation(QLocale(parser.value(languageOption)));

    QTemporaryDir work;
    const QString package = QDir(work.path()).absoluteFilePath(QStringLiteral("demo.zip"));
    if (!work.isValid() ||
        !writeDemoPackage(QDir(work.path()), parser.value(stubOption), package)) {
        err() << "cannot build the demo package\n";
        return 1;
    }

    VirtualBoard chip; // runs its firmware until the dialog resets it
    if (!chip.start()) {
        err() << "cannot start the virtual chip: " << chip.errorString() << '\n';
        return 1;
    }
    qputenv(QComPort::extraPortsVariable,
            (chip.devicePath() + QLatin1Char('=') + QLatin1String(demoSerial)).toLocal8Bit());

    int status = 1;
    {
        ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
        flasher.resize(900, 760);
        flasher.show();
        auto *chipField = flasher.findChild<QLineEdit *>(QStringLiteral("chipIDField"));
        if (!flasher.autoconnect(QLatin1String(demoSerial)) ||
            !waitFor([chipField] { return !chipField->text().isEmpty(); }, identifyTimeoutMs)) {
            err() << "the virtual chip was not identified\n";
        } else {
            answerFileDialog(package);
            bool loaded = false;
            QMetaObject::invokeMethod(&flasher, "on_scatterSelTool_clicked", Qt::DirectConnection,
                                      Q_RETURN_ARG(bool, loaded));
            const QString output = parser.value(outputOption);
            QDir().mkpath(QFileInfo(output).absolutePath());
            if (!loaded) {
                err() << "the demo package did not load\n";
            } else if (scene == QLatin1String("flash-run") && !runFlash(flasher)) {
                err() << "the demo package was not flashed\n";
            } else if (scene == QLatin1String("composer")) {
                EspScatterWizard wizard(&flasher);
                wizard.show();
                composeRegions(wizard);
                waitFor([] { return false; }, settleMs);
                if (wizard.grab().save(output))
                    status = 0;
                else
                    err() << "cannot write " << output << '\n';
            } else {
                waitFor([] { return false; }, settleMs);
                if (flasher.grab().save(output))
                    status = 0;
                else
                    err() << "cannot write " << output << '\n';
            }
        }
    }
    chip.stop();
    return status;
}
