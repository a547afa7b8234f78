#include "flasher/espflasher.h"
#include "serial/qcomport.h"
#include "widgets/flashtypeselector.h"

#include "chipfixture.h"
#include "flashertestkit.h"
#include "modalanswerer.h"
#include "scattertestfiles.h"

#include "tools/imagegen/espimagebuilder.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLineEdit>
#include <QMenu>
#include <QProgressBar>
#include <QProgressDialog>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

namespace {

const QString finishedFlashing = line(green, "Finished flashing package");

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
}

} // namespace

// The operations against a virtual chip: in run mode 1 flash runs, erase and verify, and
// reading flash into files and a scatter file; run mode 0 from autoconnect to the exit code.
class TestEspFlasherFlash : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void packageRunEraseAndVerify();
    void chipVanishesMidRun();
    void busyWhileAStoppedRunHoldsAnEntry_data();
    void busyWhileAStoppedRunHoldsAnEntry();
    void composeReadSaveAndFlashAnotherChip();
    void upgrade_data();
    void upgrade();

private:
    // A dialog connected to a fresh chip, with that scatter file or package loaded.
    void connectAndLoad(const QString &scatter);
    void click(const char *button);
    // Triggers the action of that row in the tool's menu.
    void trigger(const char *tool, int row);
    // Processes events until the log holds `line` after the lines it held at the last click.
    bool awaitNew(const QString &wanted) { return waitForLogLine(flasher.get(), wanted, mark); }
    bool enabled(const char *name) { return child<QWidget>(flasher.get(), name)->isEnabled(); }
    VirtualEsp8266 &board() { return chip->chip(); }
    QString path(const QString &name) const { return QDir(dir->path()).absoluteFilePath(name); }

    QByteArray savedPorts;
    QTemporaryDir settingsDir;
    std::unique_ptr<QTemporaryDir> dir;
    FlashTestFiles files;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ChipFixture> chip;
    std::unique_ptr<ESPFlasher> flasher;
    int mark = 0;
};

void TestEspFlasherFlash::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QVERIFY(settingsDir.isValid());
    isolateSettings(settingsDir.path());
    savedPorts = qgetenv(QComPort::extraPortsVariable);
}

void TestEspFlasherFlash::init()
{
    dir = std::make_unique<QTemporaryDir>();
    files = FlashTestFiles();
    QVERIFY(files.create(dir->path()));
    answerer = std::make_unique<ModalAnswerer>();
}

void TestEspFlasherFlash::cleanup()
{
    QCOMPARE(answerer->unexpected(), QStringList());
    QCOMPARE(answerer->remaining(), 0);
    // The worker lets go of the port before the chip stops.
    flasher.reset();
    chip.reset();
    qputenv(QComPort::extraPortsVariable, savedPorts);
}

void TestEspFlasherFlash::connectAndLoad(const QString &scatter)
{
    flasher.reset();
    chip = std::make_unique<ChipFixture>();
    QVERIFY(chip->start());
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    child<QComboBox>(flasher.get(), "comPortCombo")->setCurrentText(chip->port());
    child<QPushButton>(flasher.get(), "comPortConnect")->click();
    QVERIFY2(waitForLogLine(flasher.get(), line(green, "Retrieved chip info")),
             qPrintable(logLines(flasher.get()).join('\n')));
    if (scatter.isEmpty())
        return;
    answerer->answerFile(scatter);
    QVERIFY(selectScatter(flasher.get()));
}

void TestEspFlasherFlash::click(const char *button)
{
    mark = logLines(flasher.get()).size();
    QVERIFY2(enabled(button), button);
    child<QAbstractButton>(flasher.get(), button)->click();
}

void TestEspFlasherFlash::trigger(const char *tool, int row)
{
    mark = logLines(flasher.get()).size();
    child<QToolButton>(flasher.get(), tool)->menu()->actions().at(row)->trigger();
}

// A package written: the chip holds the images, the firmware with its header patched to the
// scatter's options. The rows' menus then verify and erase regions, the buttons any region.
void TestEspFlasherFlash::packageRunEraseAndVerify()
{
    connectAndLoad(files.package);
    // Erase loads the loader first and waits for it.
    answerer->answerInput("0x1000:4096");
    click("eraseTool");
    QCOMPARE(logLines(flasher.get(), mark),
             (QStringList{line(amber, "Must load a stub first"),
                          line(green, "Start loading stub from esp8266_loader_stub.elf"),
                          line(green, "Flash stub loaded")}));
    QCOMPARE(answerer->last().title + "|" + answerer->last().text,
             QStringLiteral("Erase Flash Memory|Region [address:size]:"));
    QVERIFY(flasher->findChildren<QProgressDialog *>().isEmpty());
    QVERIFY(awaitNew(line(green, "Flash memory has been erased")));
    QCOMPARE(board().counters().erases.last().offset, 0x1000u);
    QCOMPARE(board().counters().erases.last().size, 0x1000u);

    // The loader runs already: writing starts at once.
    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    QCOMPARE(
        logLines(flasher.get(), mark),
        (QStringList{line(green, "Start writing firmware from boot.bin to 0x00000000 (flash "
                                 "memory size 4MB, mode dio, frequency 40m)"),
                     line(green, "Firmware has been successfully flashed"),
                     line(green, "Start writing user application from app.bin to "
                                 "0x00010000 (max size 4MB)"),
                     line(green, "Application has been successfully flashed"), finishedFlashing}));
    QCOMPARE(board().counters().commands.value(VirtualEsp8266::MemEnd), 1);
    QCOMPARE(board().flash(0, files.patchedFirmware.size()), files.patchedFirmware);
    QCOMPARE(board().flash(files.applicationAddress, files.application.size()), files.application);
    QCOMPARE(child<QProgressBar>(flasher.get(), "progressBar")->value(), 100);
    // Reading works on loose files only, and the loader stays as loaded.
    QVERIFY(enabled("flashTool") && !enabled("readTool") && !enabled("stubSelTool"));

    const QString firmwareMd5 = md5Hex(files.patchedFirmware);
    const QString applicationMd5 = md5Hex(files.application);
    trigger("verifyTool", 0);
    QVERIFY(awaitNew(line(green, "Checksum verified (MD5: " + firmwareMd5 + ")")));
    trigger("verifyTool", 1);
    QVERIFY(awaitNew(line(green, "Checksum verified (MD5: " + applicationMd5 + ")")));
    trigger("eraseTool", 1);
    QVERIFY(awaitNew(line(green, "Flash memory has been erased")));
    const VirtualEsp8266::EraseRecord erased = board().counters().erases.last();
    QCOMPARE(int(erased.kind), int(VirtualEsp8266::EraseKind::Region));
    QCOMPARE(erased.offset, files.applicationAddress);
    QCOMPARE(erased.size, quint32(files.application.size()));
    const QString blank = md5Hex(QByteArray(files.application.size(), '\xFF'));
    trigger("verifyTool", 1);
    QVERIFY(awaitNew(
        line(red, "Checksum verification failed (" + blank + " vs " + applicationMd5 + ")")));

    answerer->answerInput(" 0x0 : 4kb");
    click("verifyTool");
    QCOMPARE(answerer->last().title, QStringLiteral("Verify Flash Memory Contents"));
    QVERIFY(awaitNew(line(green, "MD5: " + md5Hex(files.patchedFirmware.left(4096)))));
    QCOMPARE(logLines(flasher.get(), mark).first(),
             line(green, "Requested flash memory contents md5 for [0x00000000:0x00001000] (size "
                         "4096)"));

    // Regions that cannot be read ask nothing of the chip: the next erase is the only one.
    const int erases = board().counters().erases.size();
    answerer->answerInput("0x910");
    click("eraseTool");
    answerer->answerInput("0x1000");
    click("verifyTool");
    answerer->cancelInput();
    click("eraseTool");
    const QStringList lines = logLines(flasher.get());
    QCOMPARE(lines.mid(lines.size() - 2),
             (QStringList{line(amber, "Invalid erase region format"),
                          line(amber, "Invalid region format for flash verification")}));
    // The whole chip, through the 0x911 the prompt offers.
    answerer->expect("QInputDialog",
                     [](QWidget *modal) { static_cast<QDialog *>(modal)->accept(); });
    click("eraseTool");
    QVERIFY(awaitNew(line(green, "Flash memory has been erased")));
    QCOMPARE(int(board().counters().erases.last().kind), int(VirtualEsp8266::EraseKind::Chip));
    QCOMPARE(board().flash(0, 0x400000), QByteArray(0x400000, '\xFF'));
    QCOMPARE(board().counters().erases.size(), erases + 1);
}

// The board goes away while the firmware is written: one red line, nothing claims success.
void TestEspFlasherFlash::chipVanishesMidRun()
{
    connectAndLoad(files.package);
    board().setCommandObserver([this](const VirtualEsp8266::CommandRecord &record) {
        if (record.opcode == VirtualEsp8266::FlashBegin)
            board().armVanishAfterBytes(4000);
    });
    click("flashTool");
    const QString failed = line(red, "UBoot operation write firmware (4) finished with error");
    QVERIFY(awaitNew(failed));
    QVERIFY(board().vanished());
    const QStringList lines = logLines(flasher.get(), mark);
    QCOMPARE(lines.filter(QRegularExpression("^" + QString(red))), QStringList{failed});
    QCOMPARE(lines.filter(QRegularExpression("successfully|Finished")), QStringList());
    QVERIFY(!enabled("flashTool"));
}

void TestEspFlasherFlash::busyWhileAStoppedRunHoldsAnEntry_data()
{
    QTest::addColumn<bool>("stubLoaded");
    QTest::addColumn<int>("icon");
    QTest::addColumn<QString>("failed");
    // Writing a section warns; loading the stub is critical. Both kept as they are.
    QTest::newRow("next section") << true << int(QMessageBox::Warning)
                                  << "UBoot operation write firmware (4) finished with error";
    QTest::newRow("stub") << false << int(QMessageBox::Critical)
                          << "UBoot operation load stub (2) finished with error";
}

// A failed run keeps the package entry it handed to the worker: a new attempt only reports
// that the device is busy.
void TestEspFlasherFlash::busyWhileAStoppedRunHoldsAnEntry()
{
    QFETCH(bool, stubLoaded);
    QFETCH(int, icon);
    QFETCH(QString, failed);

    connectAndLoad(files.package);
    if (stubLoaded) {
        answerer->cancelInput();
        click("verifyTool");
    }
    // The chip refuses the next command: the write, or the first step of the stub upload.
    board().armErrorStatus(1);
    click("flashTool");
    QVERIFY(awaitNew(line(red, failed)));
    answerer->answerBox(QMessageBox::Ok);
    mark = logLines(flasher.get()).size();
    QVERIFY(QMetaObject::invokeMethod(flasher.get(), "on_flashTool_clicked"));
    QCOMPARE(answerer->last().title + "|" + answerer->last().text,
             QStringLiteral("Flash Loader|The device is busy. Please try again later."));
    QCOMPARE(answerer->last().icon, icon);
    QCOMPARE(logLines(flasher.get()).size(), mark);
}

// Three regions composed in the wizard are read into files and a scatter file, which then
// serves as a template; a second chip flashed from it ends up with the same bytes.
void TestEspFlasherFlash::composeReadSaveAndFlashAnotherChip()
{
    connectAndLoad(QString());
    EspImageBuilder builder;
    builder.setFlashMode(0);      // qio
    builder.setFlashSize(4);      // 4 MB
    builder.setFlashFrequency(1); // 26 MHz
    builder.addRandomSegment(0x40100000, 0x1800, 21);
    const QByteArray image = builder.build();
    const QByteArray application = noiseBytes(0x2000, 23);
    const QByteArray tail = noiseBytes(0x1000, 24);
    board().setFlash(0x0, image);
    board().setFlash(0x10000, application);
    board().setFlash(0x3F0000, tail);

    QSettings().setValue("Scatter/Dir", settingsDir.path());
    answerer->answerFile(path("readback"));
    // The user at the composer: firmware by size, application by end address, a suffix.
    answerer->expect("EspScatterWizard", [&image](QWidget *wizard) {
        const auto region = [wizard](int type, const char *start, bool size, const QString &value,
                                     const char *file, const char *button) {
            child<QComboBox>(wizard, "regionTypeCombo")->setCurrentIndex(type);
            child<QLineEdit>(wizard, "regionStartAddress")->setText(start);
            child<QRadioButton>(wizard, size ? "regionSizeSel" : "regionEndAddressSel")->click();
            child<QLineEdit>(wizard, size ? "regionSize" : "regionEndAddress")->setText(value);
            child<QLineEdit>(wizard, "regionFileName")->setText(file);
            child<QPushButton>(wizard, button)->click();
        };
        child<QPushButton>(wizard, "finishButton")->click(); // "Begin"
        region(0, "0x0", true, QString::number(image.size()), "boot", "nextButton");
        region(1, "0x10000", false, "0x12000", "app.img", "nextButton");
        region(1, "4032kb", true, "4kb", "tail.IMG", "finishButton");
    });
    answerer->answerFile(files.stub); // no loader yet: the dialog asks for one
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerBox(QMessageBox::No);
    click("readTool");
    const QString scatter = path("readback.txt");
    QVERIFY(awaitNew(line(green, "Scatter file saved to " + scatter)));

    const QVector<ModalAnswerer::Seen> seen = answerer->seen();
    QCOMPARE(seen.at(0).title + "|" + seen.at(0).items.join(',') + "|" + seen.at(0).directory,
             "Save As|Scatter files (*.txt)|" + settingsDir.path());
    // The loader chooser starts where the scatter file goes.
    QCOMPARE(seen.at(2).title + "|" + seen.at(2).items.join(',') + "|" + seen.at(2).directory,
             "Select Flash Loader|Elf files (*.elf)|" + dir->path());
    QCOMPARE(seen.at(3).title + "|" + seen.at(3).text,
             QStringLiteral("Save Scatter|Save the scatter file?"));
    QCOMPARE(seen.at(4).text, QStringLiteral("Create a distribution package?"));
    QCOMPARE(QSettings().value("Scatter/Dir").toString(), dir->path());
    QCOMPARE(child<QLineEdit>(flasher.get(), "scatterEdit")->text(), scatter);

    const QString end = QString::number(image.size(), 16).rightJustified(8, '0');
    const QString read = line(green, "Flash memory section has been successfully read");
    QCOMPARE(logLines(flasher.get(), mark),
             (QStringList{line(green, "Start loading stub from " + files.stub),
                          line(green, "Flash stub loaded"),
                          line(green, "Start reading " + path("boot.img") +
                                          " from region [0x00000000:0x" + end + "]"),
                          read, line(green, "Extracted flash parameters: 4Mb / qio / 26MHz"),
                          line(green, "Start reading " + path("app.img") +
                                          " from region [0x00010000:0x00012000]"),
                          read,
                          line(green, "Start reading " + path("tail.IMG") +
                                          " from region [0x003f0000:0x003f1000]"),
                          read, line(green, "Finished reading package"),
                          line(green, "Scatter file saved to " + scatter)}));
    QVERIFY(enabled("flashTool") && enabled("readTool"));
    QCOMPARE(readFile(path("boot.img")), image);
    QCOMPARE(readFile(path("app.img")), application);
    QCOMPARE(readFile(path("tail.IMG")), tail);
    const QJsonObject document = QJsonDocument::fromJson(readFile(scatter)).object();
    QCOMPARE(document.value("stub").toString(), QStringLiteral("loader.elf"));
    const QJsonArray sections = document.value("sections").toArray();
    const QJsonObject flash{{"size", "4Mb"}, {"mode", "qio"}, {"frequency", "26MHz"}};
    QCOMPARE(sections.at(0).toObject(), (QJsonObject{{"type", "firmware"},
                                                     {"address", "0x00000000"},
                                                     {"md5", md5Hex(image)},
                                                     {"file", "boot.img"},
                                                     {"options", QJsonObject{{"flash", flash}}}}));
    QCOMPARE(sections.at(1).toObject(), (QJsonObject{{"type", "application"},
                                                     {"address", "0x00010000"},
                                                     {"md5", md5Hex(application)},
                                                     {"file", "app.img"}}));
    QCOMPARE(sections.at(2)["address"].toString(), QStringLiteral("0x003f0000"));

    // What was read serves as the template of another read: a file of the same name in the
    // target folder is not overwritten, and the package offer leads to the package dialog.
    const QString kept = writeTestFile(path("out"), "boot.img", "keep me");
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(path("out/copy.TXT"));
    answerer->answerInput("boot-read.img");
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(QString());
    click("readTool");
    const QString copy = path("out/copy.TXT");
    QVERIFY(awaitNew(line(green, "Scatter file saved to " + copy)));
    QTRY_COMPARE(answerer->last().title, QStringLiteral("Save Package As"));
    const QVector<ModalAnswerer::Seen> again = answerer->seen().mid(seen.size());
    QCOMPARE(
        again.at(0).title + "|" + again.at(0).text,
        QStringLiteral("Scatter File|A scatter file is already loaded. Use it as a template?"));
    QCOMPARE(again.at(1).directory, dir->path());
    QCOMPARE(again.at(2).title + "|" + again.at(2).text,
             QStringLiteral("Read Flash Memory|File with the same name already exists. Please "
                            "choose another name:"));
    QCOMPARE(readFile(kept), QByteArray("keep me"));
    QCOMPARE(readFile(path("out/boot-read.img")), image);
    QCOMPARE(QJsonDocument::fromJson(readFile(copy))["stub"].toString(),
             QStringLiteral("../loader.elf"));

    // A second board, flashed from what was read; a loose file's images are in its folder.
    connectAndLoad(copy);
    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    QVERIFY(logLines(flasher.get(), mark)
                .join('\n')
                .contains("Start writing firmware from " + path("out/boot-read.img") + " to "));
    QCOMPARE(board().flash(0x0, image.size()), image);
    QCOMPARE(board().flash(0x10000, application.size()), application);
    QCOMPARE(board().flash(0x3F0000, tail.size() + 0x100), tail + QByteArray(0x100, '\xFF'));
    QVERIFY(enabled("readTool"));

    // The expected digest of a firmware row comes from its image, read again for every verify.
    QVERIFY(QFile::remove(path("out/boot-read.img")));
    answerer->answerBox(QMessageBox::Ok);
    trigger("verifyTool", 0);
    QCOMPARE(answerer->last().title + "|" + answerer->last().text,
             QStringLiteral("Flash Loader|File boot-read.img cannot be read (No such file or "
                            "directory)"));
}

void TestEspFlasherFlash::upgrade_data()
{
    QTest::addColumn<QString>("mishap");
    QTest::addColumn<QString>("components"); // chosen, F and A; "reject"; empty: not asked
    QTest::addColumn<QString>("box");        // a box before the closing one; "@": the loader
    QTest::addColumn<QString>("closing");    // the closing box's text and default button
    QTest::addColumn<QString>("written");    // the images on the chip afterwards, F and A

    const auto row = [](const char *name, const char *mishap, const char *components,
                        const char *box, const char *closing, const char *written) {
        QTest::newRow(name) << mishap << components << box << closing << written;
    };
    // The success box closes itself after its countdown; the other boxes are answered.
    row("success", "", "FA", "", "Upgrade completed.|OK (5)", "FA");
    row("firmware only", "", "F", "", "Upgrade completed.|OK (5)", "F");
    row("application only", "", "A", "", "Upgrade completed.|OK (5)", "A");
    row("components rejected", "", "reject", "", "Upgrade cancelled.|OK (10)", "");
    row("loader removed", "loader removed", "FA", "Flash loader file @ does not exist!",
        "Cannot load the stub|OK (10)", "");
    row("chip silent", "chip silent", "FA", "", "UBoot operation failure.|OK (10)", "");
    row("package corrupt", "package corrupt", "",
        "{zip} package is invalid: The data within the package is corrupted",
        "Upgrade cancelled.|OK (10)", "");
}

// Run mode 0 as a host uses it: construct, autoconnect, exec. The dialog identifies the chip,
// asks for a package and the components, flashes them, reports in a box that closes itself,
// and closes with the outcome as its exit code.
void TestEspFlasherFlash::upgrade()
{
    QFETCH(QString, mishap);
    QFETCH(QString, components);
    QFETCH(QString, box);
    QFETCH(QString, closing);
    QFETCH(QString, written);

    QString chosen = mishap == QLatin1String("loader removed") ? files.scatter : files.package;
    if (mishap == QLatin1String("package corrupt")) {
        // One bit of the firmware off what the scatter's md5 says.
        QByteArray firmware = files.firmware;
        firmware[100] = char(firmware.at(100) ^ 0x01);
        chosen = path("damaged.zip");
        QVERIFY(files.writePackage(chosen, firmware));
    }
    chip = std::make_unique<ChipFixture>();
    QVERIFY(chip->start());
    qputenv(QComPort::extraPortsVariable, (chip->port() + "=UPGRADE-0042").toLocal8Bit());
    answerer->answerFile(chosen);
    if (!components.isEmpty()) {
        answerer->expect("FlashTypeSelector", [&](QWidget *modal) {
            if (mishap == QLatin1String("loader removed"))
                QFile::remove(files.stub);
            if (mishap == QLatin1String("chip silent"))
                board().armSilence(0);
            auto *selector = static_cast<FlashTypeSelector *>(modal);
            selector->setFirmwareChecked(components.contains('F'));
            selector->setApplicationChecked(components.contains('A'));
            auto *buttons = selector->findChild<QDialogButtonBox *>("buttonBox");
            const bool reject = components == QLatin1String("reject");
            buttons->button(reject ? QDialogButtonBox::Cancel : QDialogButtonBox::Ok)->click();
        });
    }
    if (!box.isEmpty())
        answerer->answerBox(QMessageBox::Ok);
    if (QTest::currentDataTag() == QLatin1String("success"))
        answerer->leaveBox();
    else
        answerer->answerBox(QMessageBox::Ok);

    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_UPGRADE, nullptr);
    QVERIFY(flasher->autoconnect(QStringLiteral("UPGRADE-0042")));
    QCOMPARE(flasher->exec(), int(written.isEmpty() ? QDialog::Rejected : QDialog::Accepted));
    const QStringList lines = logLines(flasher.get());
    QCOMPARE(lines.contains(finishedFlashing), !written.isEmpty());
    QCOMPARE(lines.first(), line(amber, "Connecting to " + chip->port()));
    const QVector<ModalAnswerer::Seen> seen = answerer->seen();
    if (!box.isEmpty()) {
        const QString text = seen.at(seen.size() - 2).text;
        QVERIFY2(text.startsWith(box.replace("@", files.stub).replace("{zip}", chosen)),
                 qPrintable(text));
    }
    QCOMPARE(seen.last().className + "|" + seen.last().title,
             "QAutoCloseMessageBox|Brimcote ESP Utility");
    QCOMPARE(seen.last().text + "|" + seen.last().defaultButton,
             closing.replace("|", "\nThe tool will be closed|"));
    const QByteArray firmware = board().flash(0, files.patchedFirmware.size());
    QCOMPARE(firmware,
             written.contains('F') ? files.patchedFirmware : QByteArray(firmware.size(), '\xFF'));
    const QByteArray application =
        board().flash(files.applicationAddress, files.application.size());
    QCOMPARE(application,
             written.contains('A') ? files.application : QByteArray(application.size(), '\xFF'));
}

QTEST_MAIN(TestEspFlasherFlash)
#include "tst_espflasher_flash.moc"
