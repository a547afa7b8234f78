#include "flasher/esppackage.h"
#include "widgets/flashtypeselector.h"

#include "chipfixture.h"
#include "flashertestkit.h"
#include "scattertestfiles.h"

#include "serial/modemlineregistry.h"
#include "tools/imagegen/espimagebuilder.h"

using namespace FlasherTestKit;

namespace {

const QString finishedFlashing = line(green, "Finished flashing package");
const QString erased = line(green, "Flash memory has been erased");
constexpr quint32 applicationAddress = 0x10000;

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
}

// A firmware image whose header says qio, 26 MHz and the flash size of that code.
QByteArray firmwareImage(quint8 sizeCode, quint32 seed)
{
    EspImageBuilder builder;
    builder.setFlashSize(sizeCode);
    builder.setFlashFrequency(1);
    builder.addRandomSegment(0x40100000, 0x2400, seed);
    return builder.build();
}

// A firmware image, an application image and a loader beside a loose scatter file, and the same
// packed into a package. The firmware's header says 1MB; the scatter asks for dio / 4MB / 40m,
// so the chip ends up holding `patched`. The package names its loader like a path on disk where
// there is none: the loader must still come from the package.
struct FlashTestFiles
{
    QByteArray firmware = firmwareImage(2, 11), patched = firmware,
               application = EspImageBuilder::application(0x5000, 0, 13);
    QString stub, scatter, package, onDisk;

    bool create(const QDir &dir)
    {
        patched[2] = 2;    // dio
        patched[3] = 0x40; // 4 MB, 40 MHz
        stub = writeTestFile(dir, "loader.elf", readFile(generatedStubPath()));
        scatter = writeTestFile(dir, "scatter.txt", document("loader.elf"));
        package = dir.absoluteFilePath("package.zip");
        onDisk = dir.absoluteFilePath("disk/loader.elf");
        const QString description = QStringLiteral("Flash test package 2.1");
        const QByteArray password = EspPackage::password(description);
        return !writeTestFile(dir, "boot.bin", firmware).isEmpty() &&
               !writeTestFile(dir, "app.bin", application).isEmpty() && !scatter.isEmpty() &&
               writeTestZip(package, description,
                            {{onDisk, readFile(stub)},
                             {"boot.bin", firmware},
                             {"app.bin", application},
                             {"scatter.txt", document(onDisk)}},
                            &password);
    }
    QByteArray document(const QString &stubName) const
    {
        const QJsonArray sections{
            section("firmware", "0x0", "boot.bin", md5Hex(firmware), "dio"),
            section("application", "0x10000", "app.bin", md5Hex(application))};
        return QJsonDocument(
                   QJsonObject{{"chip", "ESP8266EX"}, {"stub", stubName}, {"sections", sections}})
            .toJson();
    }
};

} // namespace

class TestEspFlasherFlash : public FlasherTest
{
    Q_OBJECT

private slots:
    void init();
    void packageRunEraseAndVerify();
    void failureThenReconnect_data();
    void failureThenReconnect();
    void identifyComposeReadAndFlashAnotherChip();
    void upgrade_data();
    void upgrade();
    void connectSettings_data();
    void connectSettings();
    void loaderRateAndReflash_data();
    void loaderRateAndReflash();
    void imageFile_data();
    void imageFile();

private:
    // A board with the auto-reset circuit, powered up into its firmware, or a jig: no reset
    // lines, powered up into the boot loader.
    void startChip(bool jig = false);
    // The same with a dialog on its port.
    void startBoard(bool jig = false);
    void connectAndLoad(const QString &scatter);
    void click(const char *button)
    {
        mark = log().size();
        QVERIFY2(enabled(button), button);
        find<QAbstractButton>(button)->click();
    }
    void trigger(const char *tool, int row) // the action of that row in the tool's menu
    {
        mark = log().size();
        find<QToolButton>(tool)->menu()->actions().at(row)->trigger();
    }
    // Processes events until the log holds `line` after the lines it held at the last click.
    bool awaitNew(const QString &wanted) { return waitForLog(wanted, mark); }
    QString text(const char *name) { return edit(name)->text(); }
    VirtualEsp8266 &board() { return chip->chip(); }

    FlashTestFiles files;
    std::unique_ptr<ChipFixture> chip;
    int mark = 0;
};

void TestEspFlasherFlash::init()
{
    FlasherTest::init();
    files = FlashTestFiles();
    QVERIFY(files.create(dir->path()));
}

void TestEspFlasherFlash::startChip(bool jig)
{
    chip = std::make_unique<ChipFixture>(VirtualEsp8266::Config(),
                                         jig ? VirtualBoard::Wiring::Jig
                                             : VirtualBoard::Wiring::AutoReset);
    QVERIFY(chip->start());
}

void TestEspFlasherFlash::startBoard(bool jig)
{
    flasher.reset();
    startChip(jig);
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    find<QComboBox>("comPortCombo")->setCurrentText(chip->port());
}

void TestEspFlasherFlash::connectAndLoad(const QString &scatter)
{
    startBoard();
    click("comPortConnect");
    QVERIFY(!enabled("comPortCombo"));
    QVERIFY2(waitForLog(line(green, "Retrieved chip info")), qPrintable(log().join('\n')));
    if (scatter.isEmpty())
        return;
    answerer->answerFile(scatter);
    QVERIFY(selectScatter());
}

// A package written, the firmware's header patched; then rows' and any regions verified, erased.
void TestEspFlasherFlash::packageRunEraseAndVerify()
{
    connectAndLoad(files.package);
    // Erase loads the loader first and waits for it; it clears whole sectors and says which.
    answerer->answerInput("0x1001:16");
    click("eraseTool");
    QCOMPARE(log(mark), (QStringList{line(amber, "Must load a stub first"),
                                     line(green, "Start loading stub from " + files.onDisk),
                                     line(green, "Flash stub loaded")}));
    QVERIFY(flasher->findChildren<QProgressDialog *>().isEmpty());
    QVERIFY(awaitNew(erased));
    QCOMPARE(log().last(), line(green, "Erased sectors [0x00001000:0x00002000]"));
    QCOMPARE(board().counters().erases.last().offset, 0x1000u);
    QCOMPARE(board().counters().erases.last().size, 0x1000u);

    // The loader runs already: writing starts at once.
    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    QCOMPARE(log(mark),
             (QStringList{line(green, "Start writing firmware from boot.bin to 0x00000000 (flash "
                                      "memory size 4MB, mode dio, frequency 40m)"),
                          line(green, "Firmware has been successfully flashed"),
                          line(green, "Start writing user application from app.bin to "
                                      "0x00010000 (max size 4MB)"),
                          line(green, "Application has been successfully flashed"),
                          // Each section written is compared with the flash once more at the end.
                          line(green, "Comparing the written sections with the flash once more"),
                          line(green, "boot.bin at 0x00000000 still matches (MD5: " +
                                          md5Hex(files.patched) + ")"),
                          line(green, "app.bin at 0x00010000 still matches (MD5: " +
                                          md5Hex(files.application) + ")"),
                          finishedFlashing}));
    QCOMPARE(board().counters().commands.value(VirtualEsp8266::MemEnd), 1);
    QCOMPARE(board().flash(0, files.patched.size()), files.patched);
    QCOMPARE(board().flash(applicationAddress, files.application.size()), files.application);
    // Reading works on loose files only, and the loader stays as loaded.
    QVERIFY(enabled("flashTool") && !enabled("readTool") && !enabled("stubSelTool"));

    const QString applicationMd5 = md5Hex(files.application);
    trigger("verifyTool", 0);
    QVERIFY(awaitNew(line(green, "Checksum verified (MD5: " + md5Hex(files.patched) + ")")));
    trigger("verifyTool", 1);
    QVERIFY(awaitNew(line(green, "Checksum verified (MD5: " + applicationMd5 + ")")));
    trigger("eraseTool", 1);
    QVERIFY(awaitNew(erased));
    QCOMPARE(board().counters().erases.last().offset, applicationAddress); // then found blank
    QCOMPARE(board().counters().erases.last().size, quint32(files.application.size()));
    const QString blank = md5Hex(QByteArray(files.application.size(), '\xFF'));
    trigger("verifyTool", 1);
    QVERIFY(awaitNew(
        line(red, "Checksum verification failed (" + blank + " vs " + applicationMd5 + ")")));

    answerer->answerInput(" 0x0 : 4kb");
    click("verifyTool");
    QVERIFY(awaitNew(line(green, "MD5: " + md5Hex(files.patched.left(4096)))));

    // Regions that cannot be read or run past the chip's 4 MB ask nothing of the chip: the next
    // erase is the only one.
    const int erases = board().counters().erases.size();
    const int digests = board().counters().commands.value(VirtualEsp8266::SpiFlashMd5);
    answerer->answerInput("0x910");
    click("eraseTool");
    answerer->answerInput("0x1000");
    click("verifyTool");
    answerer->answerInput("0x3FF000:0x2000");
    click("eraseTool");
    answerer->answerInput("0x3FF000:8kb");
    click("verifyTool");
    answerer->answerInput(QString());
    click("eraseTool");
    const QString past =
        "Region [0x003ff000:0x00401000] runs past the end of the flash memory (4Mb)";
    QCOMPARE(log().mid(mark - 4),
             (QStringList{line(amber, "Invalid erase region format"),
                          line(amber, "Invalid region format for flash verification"),
                          line(red, past), line(red, past)}));
    QCOMPARE(board().counters().commands.value(VirtualEsp8266::SpiFlashMd5), digests);
    // The whole chip, through the 0x911 the prompt offers.
    answerer->expect("QInputDialog",
                     [](QWidget *modal) { static_cast<QDialog *>(modal)->accept(); });
    click("eraseTool");
    QVERIFY(awaitNew(erased));
    QCOMPARE(log().last(), line(green, "Erased the whole flash memory"));
    QCOMPARE(int(board().counters().erases.last().kind), int(VirtualEsp8266::EraseKind::Chip));
    QCOMPARE(board().counters().erases.size(), erases + 1);
    const QString erase = "Erase Flash Memory|Region [address:size]:";
    const QString verify = "Verify Flash Memory Contents|Region [address:size]:";
    QCOMPARE(answerer->texts(1),
             (QStringList{erase, verify, erase, verify, erase, verify, erase, erase}));
}

void TestEspFlasherFlash::failureThenReconnect_data()
{
    QTest::addColumn<QString>("failed"); // the one red line
    QTest::newRow("chip vanishes mid-write")
        << "UBoot operation write firmware (4) finished with error";
    QTest::newRow("stub refused") << "UBoot operation load stub (2) finished with error";
    QTest::newRow("idle board unplugged") << "The connection to {port} was lost";
    // The second region read changes under way: the walk ends there, with no file of it and no
    // scatter file.
    QTest::newRow("read not confirmed") << "UBoot operation read data (6) finished with error";
}

// After a failed operation or a board that went away, the dialog carries on without being
// closed: no success is claimed for what failed, the package entry handed to the worker is let
// go, the port list and Connect work again, and a new connection flashes what is loaded.
void TestEspFlasherFlash::failureThenReconnect()
{
    QFETCH(QString, failed);
    const QString mishap = QTest::currentDataTag();
    const bool reading = mishap == "read not confirmed";
    connectAndLoad(reading ? files.scatter : files.package);
    failed.replace("{port}", chip->port());
    if (mishap == "chip vanishes mid-write") {
        board().setCommandObserver([this](const VirtualEsp8266::CommandRecord &record) {
            if (record.opcode == VirtualEsp8266::FlashBegin ||
                record.opcode == VirtualEsp8266::FlashDeflBegin)
                board().armVanishAfterBytes(4000);
        });
    } else if (mishap == "stub refused") {
        board().armErrorStatus(1); // the chip refuses the next command: the loader
    } else if (reading) {
        board().setFlash(0, files.patched);
        const auto reads = std::make_shared<int>(0);
        board().setCommandObserver([this, reads](const VirtualEsp8266::CommandRecord &record) {
            if (record.opcode == VirtualEsp8266::ReadFlash && ++*reads == 2)
                board().setFlash(applicationAddress, "changed while on its way");
        });
        QVERIFY(QDir().mkpath(path("backup")));
        answerer->answerBox(QMessageBox::Yes); // the loaded scatter file as the template
        answerer->answerFile(path("backup/copy.txt"));
    }
    if (mishap == "idle board unplugged") {
        mark = log().size();
        board().vanishNow();
    } else {
        click(reading ? "readTool" : "flashTool");
    }
    QVERIFY(awaitNew(line(FlasherTestKit::red, failed)));
    const QStringList lines = log(mark);
    QCOMPARE(lines.filter(QRegularExpression("^" + QString(FlasherTestKit::red))).size(), 1);
    // Nothing succeeded but the read's first region.
    QCOMPARE(lines.filter(QRegularExpression("successfully|Finished")).size(), int(reading));
    if (reading) {
        QCOMPARE(QDir(path("backup")).entryList(QDir::Files), QStringList{"boot.bin"});
        // The unfinished read's scatter is not left loaded for a flash run.
        QVERIFY(text("scatterEdit").isEmpty() && !enabled("flashTool"));
        QCOMPARE(find<QTableWidget>("scatterTable")->rowCount(), 0);
    }
    QVERIFY(enabled("comPortCombo") && enabled("comPortScanTool") && enabled("comPortConnect"));
    QCOMPARE(find<QPushButton>("comPortConnect")->text(), QStringLiteral("Connect"));
    QVERIFY(!enabled("loaderGroup"));

    // The board is reset, or plugged in again under a new name, and found by a new scan.
    board().setCommandObserver(nullptr);
    if (board().vanished()) {
        board().stop();
        QVERIFY(chip->start()); // under a new name, its reset lines with it
    } else {
        board().reset();
    }
    click("comPortScanTool");
    find<QComboBox>("comPortCombo")->setCurrentText(chip->port());
    QCOMPARE(find<QComboBox>("comPortCombo")->currentText(), chip->port());
    click("comPortConnect");
    QVERIFY(awaitNew(line(green, "Retrieved chip info")));
    QVERIFY(enabled("loaderGroup") && enabled("flashTool") != reading);
    if (reading) {
        answerer->answerFile(files.scatter);
        QVERIFY(selectScatter());
    }
    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    QCOMPARE(board().flash(0, files.patched.size()), files.patched);
    QCOMPARE(board().flash(applicationAddress, files.application.size()), files.application);
}

// Regions composed in the wizard read, read again with that as a template, flashed to a new chip.
void TestEspFlasherFlash::identifyComposeReadAndFlashAnotherChip()
{
    connectAndLoad(QString());
    const std::array<quint32, 4> words = VirtualEsp8266::efuseWordsFor(board().config());
    const quint32 chipId = (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8);
    QCOMPARE(text("chipIDField") + "|" + text("macField"),
             QString("ESP8266EX / %1|18FE34A1B2C3").arg(chipId, 8, 16, QChar('0')));
    QVERIFY(text("flashIDField").contains("(0xef:0x4016)"));
    QVERIFY(enabled("infoGroup") && enabled("loaderGroup") && !enabled("comPortConnect") &&
            !enabled("comPortScanTool"));
    QCOMPARE(find<QPushButton>("comPortConnect")->text(), QStringLiteral("Disconnect"));
    // The flash size guessed from the flash ID stands in while no scatter has a firmware row.
    QCOMPARE(flasher->getScatterFlashSize(), QStringLiteral("4Mb"));

    const QByteArray image = firmwareImage(4, 21); // 4 MB
    const QByteArray application = noiseBytes(0x2000, 23);
    const QByteArray tail = noiseBytes(0x1000, 24);
    board().setFlash(0x0, image);
    board().setFlash(0x10000, application);
    board().setFlash(0x3F0000, tail);

    QSettings().setValue("Scatter/Dir", settingsDir.path());
    // A region file that is there is replaced only when the user says so.
    writeTestFile(dir->path(), "boot.img", "old");
    answerer->answerFile(path("readback"));
    // The user at the composer: firmware by size, application by end address, a suffix.
    answerer->expect("EspScatterWizard", [&image](QWidget *wizard) {
        child<QPushButton>(wizard, "finishButton")->click(); // "Begin"
        fillRegion(wizard, 0, "0x0", true, QString::number(image.size()), "boot", "nextButton");
        fillRegion(wizard, 1, "0x10000", false, "0x12000", "app.img", "nextButton");
        fillRegion(wizard, 1, "4032kb", true, "4kb", "tail.IMG", "finishButton");
    });
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(files.stub); // no loader yet: the dialog asks for one
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerBox(QMessageBox::No);
    click("readTool");
    const QString scatter = path("readback.txt");
    QVERIFY(awaitNew(line(green, "Scatter file saved to " + scatter)));
    // The loader chooser starts where the scatter file goes.
    QCOMPARE(
        answerer->texts(),
        (QStringList{"Save As|Scatter files (*.txt)|" + settingsDir.path(), "Scatter File Composer",
                     "Read Flash Memory|File " + path("boot.img") + " already exists. Replace it?",
                     "Select Flash Loader|Elf files (*.elf)|" + dir->path(),
                     "Save Scatter|Save the scatter file?",
                     "Save Scatter|Create a distribution package?"}));

    const QString end = QString::number(image.size(), 16).rightJustified(8, '0');
    const QString read = line(green, "Flash memory section has been successfully read");
    const auto reading = [this](const char *file, const QString &region) {
        return line(green, "Start reading " + path(file) + " from region [" + region + "]");
    };
    QCOMPARE(log(mark), (QStringList{line(green, "Start loading stub from " + files.stub),
                                     line(green, "Flash stub loaded"),
                                     reading("boot.img", "0x00000000:0x" + end), read,
                                     line(green, "Extracted flash parameters: 4Mb / qio / 26MHz"),
                                     reading("app.img", "0x00010000:0x00012000"), read,
                                     reading("tail.IMG", "0x003f0000:0x003f1000"), read,
                                     line(green, "Finished reading package"),
                                     line(green, "Scatter file saved to " + scatter)}));
    QCOMPARE(readFile(path("boot.img")), image);

    // A file of the same name in the target folder is kept. The images and the scatter saved
    // (flash options, md5s) are checked by flashing them below.
    const int asked = answerer->seen.size();
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
    QTRY_COMPARE(answerer->seen.size(), asked + 6);
    QCOMPARE(answerer->texts(asked),
             (QStringList{"Scatter File|A scatter file is already loaded. Use it as a template?",
                          "Save As|Scatter files (*.txt)|" + dir->path(),
                          "Read Flash Memory|File with the same name already exists. Please "
                          "choose another name:",
                          "Save Scatter|Save the scatter file?",
                          "Save Scatter|Create a distribution package?",
                          "Save Package As|ZIP packages (*.zip)|" + path("out")}));
    QCOMPARE(readFile(kept), QByteArray("keep me"));
    QCOMPARE(QJsonDocument::fromJson(readFile(copy))["stub"].toString(),
             QStringLiteral("../loader.elf"));

    // A second board, flashed from what was read; a loose file's images are in its folder.
    connectAndLoad(copy);
    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    QCOMPARE(board().flash(0x0, image.size()), image);
    QCOMPARE(board().flash(0x10000, application.size()), application);
    QCOMPARE(board().flash(0x3F0000, tail.size() + 0x100), tail + QByteArray(0x100, '\xFF'));
    QVERIFY(enabled("readTool"));

    // The expected digest of a firmware row comes from its image, read again for every verify.
    QVERIFY(QFile::remove(path("out/boot-read.img")));
    answerer->answerBox(QMessageBox::Ok);
    trigger("verifyTool", 0);
    QCOMPARE(answerer->last().text,
             QStringLiteral("Flash Loader|File boot-read.img cannot be read (No such file or "
                            "directory)"));

    // A "get info" result of the wrong length: the chip counts as unknown and is let go.
    QVERIFY(deliverFinished(true, 3, chipInfo().mid(0, 4)));
    QCOMPARE(log().last(), line(amber, "Chip could not be identified"));
    QVERIFY(waitForLog(line(green, "Closed connection to " + chip->port())));
    QVERIFY(text("chipIDField").isEmpty() && text("macField").isEmpty());
    QVERIFY(enabled("comPortCombo") && enabled("comPortConnect"));
    QCOMPARE(find<QPushButton>("comPortConnect")->text(), QStringLiteral("Connect"));
}

void TestEspFlasherFlash::upgrade_data()
{
    QTest::addColumn<QString>("components"); // chosen, F and A; "reject"; empty: not asked
    QTest::addColumn<QString>("closing");    // the closing box's text and default button
    QTest::addColumn<QString>("written");    // the images on the chip afterwards, F and A
    QTest::addColumn<bool>("reset");         // the reset setting; off: a jig, in boot mode

    const auto row = [](const char *name, const char *components, const char *closing,
                        const char *written, bool reset = true) {
        QTest::newRow(name) << components << closing << written << reset;
    };
    // The "success" row's box closes itself after its countdown; other boxes are answered.
    row("success", "FA", "Upgrade completed.|OK (5)", "FA");
    row("success on a jig", "FA", "Upgrade completed.|OK (5)", "FA", false);
    row("firmware only", "F", "Upgrade completed.|OK (5)", "F");
    row("application only", "A", "Upgrade completed.|OK (5)", "A");
    row("components rejected", "reject", "Upgrade cancelled.|OK (10)", "");
    row("loader removed", "FA", "Cannot load the stub|OK (10)", "");
    row("chip silent", "FA", "UBoot operation failure.|OK (10)", "");
    row("no package chosen", "", "Upgrade cancelled.|OK (10)", "");
    // Writing the application wipes the firmware, as a careless erase would: every write
    // succeeded, but the check at the end finds out.
    row("a later write wipes an earlier one", "FA",
        "The flashed sections did not match at the end.|OK (10)", "A");
}

// Run mode 0 as a host uses it: construct, autoconnect, exec; the outcome is the exit code.
void TestEspFlasherFlash::upgrade()
{
    QFETCH(QString, components);
    QFETCH(QString, closing);
    QFETCH(QString, written);
    QFETCH(bool, reset);
    const QString mishap = QTest::currentDataTag();

    QSettings().setValue("COM/ResetBeforeConnect", reset);
    startChip(!reset);
    qputenv(QComPort::extraPortsVariable, (chip->port() + "=UPGRADE-0042").toLocal8Bit());
    const QString chosen = mishap == "loader removed" ? files.scatter : files.package;
    answerer->answerFile(components.isEmpty() ? QString() : chosen);
    if (!components.isEmpty()) {
        answerer->expect("FlashTypeSelector", [&](QWidget *modal) {
            if (mishap == "loader removed")
                QFile::remove(files.stub);
            if (mishap == "chip silent")
                board().armSilence(0);
            if (mishap == "a later write wipes an earlier one") {
                auto begins = std::make_shared<int>(0);
                board().setCommandObserver([this, begins](const auto &record) {
                    const bool begin = record.opcode == VirtualEsp8266::FlashBegin ||
                                       record.opcode == VirtualEsp8266::FlashDeflBegin;
                    if (begin && ++*begins == 2)
                        board().setFlash(0, QByteArray(files.patched.size(), '\xFF'));
                });
            }
            auto *selector = static_cast<FlashTypeSelector *>(modal);
            selector->setFirmwareChecked(components.contains('F'));
            selector->setApplicationChecked(components.contains('A'));
            components == "reject" ? selector->reject() : selector->accept();
        });
    }
    if (mishap == "loader removed")
        answerer->answerBox(QMessageBox::Ok);
    mishap == "success" ? answerer->leaveBox() : answerer->answerBox(QMessageBox::Ok);

    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_UPGRADE, nullptr);
    QVERIFY(flasher->autoconnect(QStringLiteral("UPGRADE-0042")));
    const bool completed = closing.startsWith("Upgrade completed.");
    QCOMPARE(flasher->exec(), int(completed ? QDialog::Accepted : QDialog::Rejected));
    QCOMPARE(log().contains(finishedFlashing), completed);
    // After a success the board is reset into its new firmware, unless it sits in a jig.
    const bool resetAfter = reset && completed;
    QCOMPARE(log().indexOf(line(green, "Closed connection to " + chip->port())),
             resetAfter ? log().indexOf(finishedFlashing) + 1 : -1);
    QCOMPARE(board().resetCount(), int(reset) + int(resetAfter));
    QCOMPARE(board().bootMode() == VirtualEsp8266::BootMode::Firmware, resetAfter);
    if (mishap == "a later write wipes an earlier one") {
        const QString wiped = md5Hex(QByteArray(files.patched.size(), '\xFF'));
        QCOMPARE(log().filter(QRegularExpression("^" + QString(red))),
                 (QStringList{line(red, "boot.bin at 0x00000000 has changed since it was written "
                                        "(MD5: " +
                                            wiped + " instead of " + md5Hex(files.patched) + ")"),
                              line(red, "The flash run failed: 1 of 2 written section(s) no "
                                        "longer match")}));
    }
    const QVector<ModalAnswerer::Seen> seen = answerer->seen;
    if (mishap == "loader removed")
        QCOMPARE(seen.at(seen.size() - 2).text,
                 "Flash Loader|Flash loader file " + files.stub + " does not exist!");
    // The parent's title; a success informs, anything else warns.
    QCOMPARE(seen.last().className + "|" + seen.last().text + "|" + seen.last().defaultButton,
             "QAutoCloseMessageBox|Brimcote ESP Utility|" +
                 closing.replace("|", "\nThe tool will be closed|"));
    QCOMPARE(seen.last().icon, int(completed ? QMessageBox::Information : QMessageBox::Warning));
    QCOMPARE(board().flash(0, files.patched.size()),
             written.contains('F') ? files.patched : QByteArray(files.patched.size(), '\xFF'));
    QCOMPARE(board().flash(applicationAddress, files.application.size()),
             written.contains('A') ? files.application
                                   : QByteArray(files.application.size(), '\xFF'));
}

void TestEspFlasherFlash::connectSettings_data()
{
    QTest::addColumn<bool>("reset");        // the dialog's setting
    QTest::addColumn<bool>("jig");          // no reset lines, in boot mode; else a board
    QTest::addColumn<QStringList>("lines"); // %1: the port

    const QString connecting = line(amber, "Connecting to %1");
    const QStringList connected{line(green, "Connected to ESP UBoot via %1"),
                                line(green, "Retrieved chip info")};
    QTest::newRow("reset, board in its firmware")
        << true << false << QStringList{connecting} + connected;
    QTest::newRow("no reset, jig") << false << true << QStringList{connecting} + connected;
    // A port without modem lines: skipped quietly, said once.
    QTest::newRow("reset, jig without modem lines")
        << true << true
        << QStringList{connecting,
                       line(amber, "The board is not reset: %1 has no modem lines (DTR/RTS)")} +
               connected;
    QTest::newRow("no reset, board in its firmware")
        << false << false
        << QStringList{connecting,
                       line(amber,
                            "Flasher error: esptool failed: No response for 0x08 command (1) - the "
                            "board does not answer: check that its "
                            "reset circuit (DTR/RTS) is there, or put it into boot mode "
                            "by hand (GPIO0 low while it resets)"),
                       line(red, "UBoot operation connect (0) finished with error")};
}

// The remembered reset setting decides whether the board is reset into its boot loader.
void TestEspFlasherFlash::connectSettings()
{
    QFETCH(bool, reset);
    QFETCH(bool, jig);
    QFETCH(QStringList, lines);

    QSettings().setValue("COM/ResetBeforeConnect", reset);
    startBoard(jig);
    lines.replaceInStrings("%1", chip->port());
    click("comPortConnect");
    const bool connects = lines.last().endsWith("Retrieved chip info");
    QVERIFY(waitForLog(lines.last()));
    QCOMPARE(log(), lines);
    QCOMPARE(board().resetCount() > 0, reset && !jig);
    QCOMPARE(board().bootMode() == VirtualEsp8266::BootMode::Download, connects);
    // Connected, the settings stay as they are; a failed connect gives them back with the port.
    for (const char *name : {"comPortCombo", "baudRateCombo", "resetBeforeConnectCheck",
                             "skipUnchangedCheck", "comPortScanTool", "comPortConnect"})
        QVERIFY2(enabled(name) == !connects, name);
    QVERIFY(!log().join('\n').contains("Closed connection"));
}

void TestEspFlasherFlash::loaderRateAndReflash_data()
{
    QTest::addColumn<QString>("rate");
    QTest::addColumn<bool>("refused"); // the loader refuses the change
    QTest::addColumn<bool>("skip");
    QTest::addColumn<quint32>("lineRate");
    QTest::addColumn<QString>("notice");

    QTest::newRow("921600, skipping") << "921600" << false << true << 921600u << QString();
    QTest::newRow("921600 refused, writing everything")
        << "921600" << true << false << 115200u
        << line(amber, "The board did not switch to 921600 baud; staying at 115200 baud");
    QTest::newRow("115200: no change") << "115200" << false << true << 115200u << QString();
}

// The baud combo's choice is the rate once the loader runs (a refusal costs one line, no
// failure); flashing the same package again sends only the blocks that differ unless the skip
// setting is off.
void TestEspFlasherFlash::loaderRateAndReflash()
{
    QFETCH(QString, rate);
    QFETCH(bool, refused);
    QFETCH(bool, skip);
    QFETCH(quint32, lineRate);
    QFETCH(QString, notice);

    startBoard();
    find<QComboBox>("baudRateCombo")->setCurrentText(rate);
    if (!skip)
        find<QCheckBox>("skipUnchangedCheck")->click(); // on by default
    if (refused) {
        board().setCommandObserver([this](const VirtualEsp8266::CommandRecord &record) {
            if (record.opcode == VirtualEsp8266::MemEnd)
                board().armErrorStatus(1);
        });
    }
    click("comPortConnect");
    QVERIFY(waitForLog(line(green, "Retrieved chip info")));
    QCOMPARE(board().baudRate(), 115200u); // the connection itself
    answerer->answerFile(files.package);
    QVERIFY(selectScatter());
    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    QCOMPARE(board().baudRate(), lineRate);
    QCOMPARE(board().counters().commands.value(VirtualEsp8266::ChangeBaudrate),
             int(rate != "115200"));
    QCOMPARE(log(mark).filter(QRegularExpression("^" + QString(amber))),
             notice.isEmpty() ? QStringList() : QStringList{notice});

    // One section changes on the chip: only that one is sent again.
    const int erases = board().counters().erases.size();
    board().setFlash(applicationAddress + 0x100, QByteArray(16, '\0'));
    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    // Said right after the firmware's announcement.
    QCOMPARE(log(mark).indexOf(line(amber, "1 of 1 block(s) of 64 KiB unchanged, nothing written")),
             skip ? 1 : -1);
    QStringList written; // the writes that reached the chip, by the regions they erased first
    for (const VirtualEsp8266::EraseRecord &erase : board().counters().erases.mid(erases))
        written << QString::number(erase.offset, 16);
    QCOMPARE(written, skip ? QStringList{"10000"} : (QStringList{"0", "10000"}));
    QCOMPARE(board().flash(applicationAddress, files.application.size()), files.application);
}

void TestEspFlasherFlash::imageFile_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("bytes");
    // Addresses typed in ("" cancels) and, where a box warns, its title and text (%1: the file).
    QTest::addColumn<QStringList>("answers");
    QTest::addColumn<QString>("type"); // with the flash options; "" when nothing is loaded
    QTest::addColumn<quint32>("address");

    // A firmware header (1 MB, qio, 26 MHz) is kept as it is.
    QTest::newRow("firmware") << "fw.bin" << firmwareImage(2, 31) << QStringList{"0x0"}
                              << "Firmware|qio|1Mb|26MHz" << 0u;
    // 80 MHz has no name that a firmware write keeps: the image goes as it is, as data.
    QByteArray fast = firmwareImage(4, 35);
    fast[3] = char(0x4F);
    QTest::newRow("firmware at 80 MHz")
        << "fast.bin" << fast << QStringList{"0x0"} << "Application" << 0u;
    QTest::newRow("data, mistyped address")
        << "data.BIN" << noiseBytes(0x3000, 32)
        << QStringList{"0x2g000", "Flash Image|0x2g000 is not an address", " 128kb "}
        << "Application" << 0x20000u;
    QTest::newRow("inside a sector, cancelled")
        << "data.bin" << noiseBytes(0x3000, 33)
        << QStringList{"0x1800", "Flash Image|0x00001800 is not the start of a 4 KiB flash sector",
                       ""}
        << "" << 0u;
    QTest::newRow("past the end, cancelled")
        << "data.bin" << noiseBytes(0x2000, 34)
        << QStringList{"0x3ff000",
                       "Flash Image|8192 bytes at 0x003ff000 go past the end of the flash "
                       "(4194304 bytes)",
                       ""}
        << "" << 0u;
    QTest::newRow("empty") << "empty.bin" << QByteArray()
                           << QStringList{"Select scatter file|%1 is empty"} << "" << 0u;
}

// A plain image from the file chooser: placed at the address asked for, flashed like a scatter.
void TestEspFlasherFlash::imageFile()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, bytes);
    QFETCH(QStringList, answers);
    QFETCH(QString, type);
    QFETCH(quint32, address);

    connectAndLoad(files.package);
    // The package's loader name is no file on this computer, even when one is there.
    QVERIFY(QDir().mkpath(QFileInfo(files.onDisk).absolutePath()));
    QVERIFY(!writeTestFile(QFileInfo(files.onDisk).absolutePath(), "loader.elf", "no loader")
                 .isEmpty());
    const QString image = writeTestFile(dir->path(), name, bytes);
    const int asked = answerer->seen.size();
    answerer->answerFile(image);
    QStringList expectedModals{"Select scatter file|Packages, Scatter files and Images (*.zip "
                               "*.txt *.bin),Packages and Scatter files (*.zip *.txt)|" +
                               dir->path()};
    for (const QString &answer : answers) {
        if (answer.contains('|')) {
            answerer->answerBox(QMessageBox::Ok);
            expectedModals << QString(answer).replace("%1", image);
            continue;
        }
        answerer->answerInput(answer.isEmpty() ? QString() : answer);
        expectedModals << "Flash Image|Address to write " + name + " at:";
    }
    QCOMPARE(selectScatter(), !type.isEmpty());
    QCOMPARE(answerer->texts(asked), expectedModals);
    auto *table = find<QTableWidget>("scatterTable");
    if (type.isEmpty()) { // what was loaded stays
        QCOMPARE(text("scatterEdit") + QString::number(table->rowCount()), files.package + "2");
        return;
    }

    QCOMPARE(text("scatterEdit"), image);
    QCOMPARE(text("stubEdit"), loaderStubPath()); // no scatter names one: the bundled loader
    const QTableWidgetItem *kind = table->item(0, 1);
    QStringList cells{kind->text(), kind->data(Qt::UserRole + 2).toString(),
                      kind->data(Qt::UserRole + 3).toString(),
                      kind->data(Qt::UserRole + 4).toString()};
    cells.removeAll(QString());
    for (int column : {2, 3, 4})
        cells << table->item(0, column)->text();
    QCOMPARE(table->rowCount(), 1);
    QCOMPARE(cells.join('|'), QString("%1|0x%2|0x%3|%4")
                                  .arg(type)
                                  .arg(address, 8, 16, QChar('0'))
                                  .arg(address + bytes.size(), 8, 16, QChar('0'))
                                  .arg(name));
    QCOMPARE(log().filter(line(amber, "The flash options in the header of " + name)).size(),
             int(QTest::currentDataTag() == QLatin1String("firmware at 80 MHz")));

    click("flashTool");
    QVERIFY(awaitNew(finishedFlashing));
    QCOMPARE(board().flash(address, bytes.size()), bytes);
    // The row's digest is that of the file, so verifying compares with it.
    trigger("verifyTool", 0);
    QVERIFY(awaitNew(line(green, "Checksum verified (MD5: " + md5Hex(bytes) + ")")));
}

QTEST_MAIN(TestEspFlasherFlash)
#include "tst_espflasher_flash.moc"
