#include "flasher/espflasher.h"

#include "connectedflasher.h"
#include "flashertestkit.h"
#include "flashtestfiles.h"
#include "modalanswerer.h"
#include "scattertestfiles.h"

#include <QFile>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLineEdit>
#include <QMenu>
#include <QProgressBar>
#include <QProgressDialog>
#include <QPushButton>
#include <QSignalSpy>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

namespace {

constexpr quint32 flashBytes = 4 * 1024 * 1024;

QString finishedFlashing()
{
    return line(green, "Finished flashing package");
}

// The log of a run of the test package, progress dots left out.
QStringList packageRunLines(bool withStub)
{
    QStringList lines;
    if (withStub) {
        lines << line(green, "Start loading stub from esp8266_loader_stub.elf")
              << line(green, "Flash stub loaded");
    }
    lines << line(green, "Start writing firmware from boot.bin to 0x00000000 (flash memory size "
                         "4MB, mode dio, frequency 40m)")
          << line(green, "Firmware has been successfully flashed")
          << line(green, "Start writing user application from app.bin to 0x00010000 (max size "
                         "4MB)")
          << line(green, "Application has been successfully flashed") << finishedFlashing();
    return lines;
}

int commandsWithOpcode(VirtualEsp8266 &chip, quint8 opcode)
{
    return chip.counters().commands.value(opcode);
}

} // namespace

class TestEspFlasherFlash : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void packageRunWritesTheImages();
    void looseScatterRun();
    void menuActionsVerifyAndErase();
    void verifyWithoutSavedChecksum();
    void verifyOfAnUnreadableFirmware_data();
    void verifyOfAnUnreadableFirmware();
    void eraseButton_data();
    void eraseButton();
    void verifyButton_data();
    void verifyButton();
    void operationsLoadTheStubFirst();
    void escapeEndsTheWaitForTheLoader();
    void stubNeededWithoutScatter();
    void uncheckedRowsAreSkipped();
    void stubSources_data();
    void stubSources();
    void vanishedImageFailsInTheWorker();
    void packageDamagedBeforeAWrite();
    void chipVanishesMidRun();
    void busyWhileAStoppedRunHoldsAnEntry_data();
    void busyWhileAStoppedRunHoldsAnEntry();

private:
    void connectAndLoad(const QString &scatter);
    void click(const char *button);
    void loadStubThroughVerify();
    QTableWidget *table() const { return child<QTableWidget>(bench->dialog(), "scatterTable"); }
    QAction *menuAction(const char *tool, int row) const;
    ESPFlasher *dialog() const { return bench->dialog(); }

    QTemporaryDir settingsDir;
    std::unique_ptr<QTemporaryDir> dir;
    FlashTestFiles files;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ConnectedFlasher> bench;
};

void TestEspFlasherFlash::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QVERIFY(settingsDir.isValid());
    isolateSettings(settingsDir.path());
}

void TestEspFlasherFlash::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    files = FlashTestFiles();
    QString why;
    QVERIFY2(files.create(QDir(dir->path()), &why), qPrintable(why));
    answerer = std::make_unique<ModalAnswerer>();
    answerer->ignore("QProgressDialog");
}

void TestEspFlasherFlash::cleanup()
{
    if (answerer) {
        QCOMPARE(answerer->unexpected(), QStringList());
        QCOMPARE(answerer->remaining(), 0);
    }
    bench.reset();
    answerer.reset();
    dir.reset();
}

void TestEspFlasherFlash::connectAndLoad(const QString &scatter)
{
    bench = std::make_unique<ConnectedFlasher>();
    QString why;
    QVERIFY2(bench->connect(&why), qPrintable(why));
    answerer->answerFile(scatter);
    QVERIFY(selectScatter(dialog()));
    QCOMPARE(table()->rowCount(), 2);
}

void TestEspFlasherFlash::click(const char *button)
{
    auto *target = child<QAbstractButton>(dialog(), button);
    QVERIFY(target);
    QVERIFY2(target->isEnabled(), button);
    target->click();
}

QAction *TestEspFlasherFlash::menuAction(const char *tool, int row) const
{
    const QMenu *menu = child<QToolButton>(dialog(), tool)->menu();
    if (!menu || row >= menu->actions().size())
        return nullptr;
    return menu->actions().at(row);
}

// Verifying the first row loads the stub and waits for it, then asks for an MD5.
void TestEspFlasherFlash::loadStubThroughVerify()
{
    QAction *verify = menuAction("verifyTool", 0);
    QVERIFY(verify);
    verify->trigger();
    QVERIFY(waitForLogLine(dialog(), line(green, "Flash stub loaded")));
    QTRY_VERIFY_WITH_TIMEOUT(logWithoutDots(dialog()).last().contains("Checksum verif"),
                             workerStepTimeoutMs);
}

// A package flashed in run mode 1: the chip holds the images, the firmware with the header
// patched to the scatter's flash options; the dialog stays open and ready for the next run.
void TestEspFlasherFlash::packageRunWritesTheImages()
{
    connectAndLoad(files.package);
    QSignalSpy finished(dialog(), &QDialog::finished);
    const int before = logLineCount(dialog());
    click("flashTool");
    QVERIFY(waitForLogLine(dialog(), finishedFlashing(), before));

    QCOMPARE(logWithoutDots(dialog(), before), packageRunLines(true));
    QCOMPARE(bench->chip().flash(files.firmwareAddress, files.patchedFirmware.size()),
             files.patchedFirmware);
    QCOMPARE(bench->chip().flash(files.applicationAddress, files.application.size()),
             files.application);
    QVERIFY(files.patchedFirmware != files.firmware);

    QCOMPARE(child<QProgressBar>(dialog(), "progressBar")->value(), 100);
    QVERIFY(child<QPushButton>(dialog(), "flashTool")->isEnabled());
    // Reading works on loose files only, and the loader stays as loaded.
    QVERIFY(!child<QToolButton>(dialog(), "readTool")->isEnabled());
    QVERIFY(!child<QToolButton>(dialog(), "stubSelTool")->isEnabled());
    QVERIFY(answerer->seen().size() == 1); // the file dialog only
    QVERIFY(dialog()->findChildren<QProgressDialog *>().isEmpty());

    // The stub is still running: a second run writes at once.
    const int second = logLineCount(dialog());
    click("flashTool");
    QVERIFY(waitForLogLine(dialog(), finishedFlashing(), second));
    QCOMPARE(logWithoutDots(dialog(), second), packageRunLines(false));
    QCOMPARE(commandsWithOpcode(bench->chip(), VirtualEsp8266::MemEnd), 1);
    QCOMPARE(finished.count(), 0);
}

void TestEspFlasherFlash::looseScatterRun()
{
    connectAndLoad(files.scatter);
    const int before = logLineCount(dialog());
    click("flashTool");
    QVERIFY(waitForLogLine(dialog(), finishedFlashing()));
    const QStringList lines = logWithoutDots(dialog(), before);
    QCOMPARE(lines.first(), line(green, "Start loading stub from " + files.stub));
    QCOMPARE(lines.at(2), line(green, QStringLiteral("Start writing firmware from %1 to 0x00000000 "
                                                     "(flash memory size 4MB, mode dio, "
                                                     "frequency 40m)")
                                          .arg(QDir(dir->path()).absoluteFilePath("boot.bin"))));
    QCOMPARE(bench->chip().flash(0, files.patchedFirmware.size()), files.patchedFirmware);
    QCOMPARE(bench->chip().flash(0x10000, files.application.size()), files.application);
    // With a loose scatter file reading is offered again.
    QVERIFY(child<QToolButton>(dialog(), "readTool")->isEnabled());
}

// After a run the rows' menu actions verify the chip against the scatter: the firmware row
// against the image as patched by its options. Erasing makes verification fail.
void TestEspFlasherFlash::menuActionsVerifyAndErase()
{
    connectAndLoad(files.package);
    QCOMPARE(menuAction("verifyTool", 0)->text(), QStringLiteral("Verify boot.bin region"));
    QCOMPARE(menuAction("eraseTool", 1)->text(), QStringLiteral("Erase app.bin region"));
    click("flashTool");
    QVERIFY(waitForLogLine(dialog(), finishedFlashing()));

    const QString firmwareMd5 = md5Hex(files.patchedFirmware);
    const QString applicationMd5 = md5Hex(files.application);
    menuAction("verifyTool", 0)->trigger();
    QVERIFY(waitForLogLine(dialog(), line(green, "Checksum verified (MD5: " + firmwareMd5 + ")")));
    menuAction("verifyTool", 1)->trigger();
    QVERIFY(
        waitForLogLine(dialog(), line(green, "Checksum verified (MD5: " + applicationMd5 + ")")));

    // The verify actions log nothing before the answer; neither does an erase.
    const int beforeErase = logLineCount(dialog());
    menuAction("eraseTool", 1)->trigger();
    QVERIFY(waitForLogLine(dialog(), line(green, "Flash memory has been erased")));
    QCOMPARE(logLineCount(dialog()), beforeErase + 1);
    const VirtualEsp8266::EraseRecord erased = bench->chip().counters().erases.last();
    QCOMPARE(int(erased.kind), int(VirtualEsp8266::EraseKind::Region));
    QCOMPARE(erased.offset, files.applicationAddress);
    QCOMPARE(erased.size, quint32(files.application.size()));
    const QByteArray blank(files.application.size(), '\xFF');
    QCOMPARE(bench->chip().flash(files.applicationAddress, blank.size()), blank);

    menuAction("verifyTool", 1)->trigger();
    QVERIFY(waitForLogLine(dialog(), line(red, QStringLiteral("Checksum verification failed (%1 "
                                                              "vs %2)")
                                                   .arg(md5Hex(blank), applicationMd5))));
    // The firmware is untouched.
    menuAction("verifyTool", 0)->trigger();
    QTRY_COMPARE_WITH_TIMEOUT(logWithoutDots(dialog()).last(),
                              line(green, "Checksum verified (MD5: " + firmwareMd5 + ")"),
                              workerStepTimeoutMs);

    // The whole chip, through the button and the 0x911 it offers.
    answerer->answerInput("0x911");
    const int wholeChip = logLineCount(dialog());
    click("eraseTool");
    QVERIFY(waitForLogLine(dialog(), line(green, "Flash memory has been erased"), wholeChip));
    QCOMPARE(int(bench->chip().counters().erases.last().kind),
             int(VirtualEsp8266::EraseKind::Chip));
    QCOMPARE(bench->chip().flash(0, flashBytes), QByteArray(flashBytes, '\xFF'));
    menuAction("verifyTool", 0)->trigger();
    QTRY_VERIFY_WITH_TIMEOUT(
        logWithoutDots(dialog()).last().startsWith(line(red, "Checksum verification failed (")),
        workerStepTimeoutMs);
    QCOMPARE(answerer->last().title, QStringLiteral("Erase Flash Memory"));
}

// A row without a saved md5 only shows the chip's digest.
void TestEspFlasherFlash::verifyWithoutSavedChecksum()
{
    QJsonObject document = files.document();
    QJsonArray sections = document.value("sections").toArray();
    QJsonObject application = sections.at(1).toObject();
    application.remove("md5");
    sections[1] = application;
    document.insert("sections", sections);
    const QString path =
        writeTestFile(QDir(dir->path()), "nomd5.txt", QJsonDocument(document).toJson());
    bench = std::make_unique<ConnectedFlasher>();
    QString why;
    QVERIFY2(bench->connect(&why), qPrintable(why));
    answerer->answerFile(path);
    answerer->answerBox(QMessageBox::Yes);
    QVERIFY(selectScatter(dialog()));

    bench->chip().setFlash(files.applicationAddress, files.application);
    menuAction("verifyTool", 1)->trigger();
    QVERIFY(waitForLogLine(dialog(), line(green, "MD5: " + md5Hex(files.application))));
}

void TestEspFlasherFlash::verifyOfAnUnreadableFirmware_data()
{
    QTest::addColumn<bool>("remove");
    QTest::addColumn<QString>("boxText");
    QTest::addColumn<QString>("logLine");
    QTest::newRow("not an image any more")
        << false << QString() << line(amber, "Cannot verify - firmware file boot.bin is invalid");
    QTest::newRow("file vanished")
        << true << "File boot.bin cannot be read (No such file or directory)" << QString();
}

// The expected digest of a firmware row comes from its image, read again for every verify.
void TestEspFlasherFlash::verifyOfAnUnreadableFirmware()
{
    QFETCH(bool, remove);
    QFETCH(QString, boxText);
    QFETCH(QString, logLine);

    connectAndLoad(files.scatter);
    loadStubThroughVerify();
    const QString image = QDir(dir->path()).absoluteFilePath("boot.bin");
    if (remove) {
        QVERIFY(QFile::remove(image));
        answerer->answerBox(QMessageBox::Ok);
    } else {
        QVERIFY(!writeTestFile(QDir(dir->path()), "boot.bin", patternBytes(600, 9)).isEmpty());
    }
    const int before = logLineCount(dialog());
    const int md5Requests = commandsWithOpcode(bench->chip(), VirtualEsp8266::SpiFlashMd5);
    menuAction("verifyTool", 0)->trigger();
    if (remove) {
        QCOMPARE(answerer->last().title, QStringLiteral("Flash Loader"));
        QCOMPARE(answerer->last().text, boxText);
        QCOMPARE(logLineCount(dialog()), before);
    } else {
        QCOMPARE(logWithoutDots(dialog(), before), QStringList{logLine});
    }
    // Nothing was asked of the chip: a known request afterwards is the next one it sees.
    answerer->answerInput("0x0:0x1000");
    click("verifyTool");
    QVERIFY(
        waitForLogLine(dialog(), line(green, "MD5: " + md5Hex(bench->chip().flash(0, 0x1000)))));
    QCOMPARE(commandsWithOpcode(bench->chip(), VirtualEsp8266::SpiFlashMd5), md5Requests + 1);
}

void TestEspFlasherFlash::eraseButton_data()
{
    QTest::addColumn<bool>("answer");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("kind"); // -1: nothing erased
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size");
    QTest::addColumn<QString>("notice");
    const int chip = int(VirtualEsp8266::EraseKind::Chip);
    const int region = int(VirtualEsp8266::EraseKind::Region);
    QTest::newRow("offered 0x911") << true << "0x911" << chip << 0u << 0u << QString();
    QTest::newRow("0x911 with blanks") << true << " 0x911 " << chip << 0u << 0u << QString();
    QTest::newRow("2321") << true << "2321" << chip << 0u << 0u << QString();
    QTest::newRow("address:size") << true << "0x1000:4096" << region << 0x1000u << 0x1000u
                                  << QString();
    QTest::newRow("suffixes and blanks")
        << true << " 8kb : 0x2000 " << region << 0x2000u << 0x2000u << QString();
    QTest::newRow("bad size") << true << "0x1000:zz" << -1 << 0u << 0u << QString();
    QTest::newRow("another single value")
        << true << "0x910" << -1 << 0u << 0u << line(amber, "Invalid erase region format");
    QTest::newRow("cancelled") << false << QString() << -1 << 0u << 0u << QString();
}

void TestEspFlasherFlash::eraseButton()
{
    QFETCH(bool, answer);
    QFETCH(QString, text);
    QFETCH(int, kind);
    QFETCH(uint, offset);
    QFETCH(uint, size);
    QFETCH(QString, notice);

    connectAndLoad(files.scatter);
    loadStubThroughVerify();
    const QByteArray pattern = patternBytes(0x8000, 4);
    bench->chip().setFlash(0, pattern);
    bench->chip().clearCounters();
    auto *bar = child<QProgressBar>(dialog(), "progressBar");
    bar->setValue(55);

    if (answer)
        answerer->answerInput(text);
    else
        answerer->cancelInput();
    const int before = logLineCount(dialog());
    click("eraseTool");
    QCOMPARE(answerer->last().title, QStringLiteral("Erase Flash Memory"));
    QCOMPARE(answerer->last().text, QStringLiteral("Region [address:size]:"));
    QCOMPARE(bar->value(), 0);

    if (kind < 0) {
        QCOMPARE(logWithoutDots(dialog(), before),
                 notice.isEmpty() ? QStringList() : QStringList{notice});
        // Commands run in order: once a later request is answered, no erase was queued.
        answerer->answerInput("0x0:0x1000");
        click("verifyTool");
        QVERIFY(waitForLogLine(dialog(), line(green, "MD5: " + md5Hex(pattern.left(0x1000)))));
        QVERIFY(bench->chip().counters().erases.isEmpty());
        return;
    }
    QVERIFY(waitForLogLine(dialog(), line(green, "Flash memory has been erased")));
    QCOMPARE(logWithoutDots(dialog(), before),
             QStringList{line(green, "Flash memory has been erased")});
    const QVector<VirtualEsp8266::EraseRecord> erases = bench->chip().counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(int(erases.first().kind), kind);
    if (kind == int(VirtualEsp8266::EraseKind::Chip)) {
        QCOMPARE(bench->chip().flash(0, flashBytes), QByteArray(flashBytes, '\xFF'));
        return;
    }
    QCOMPARE(erases.first().offset, offset);
    QCOMPARE(erases.first().size, size);
    QCOMPARE(bench->chip().flash(offset, size), QByteArray(int(size), '\xFF'));
    QCOMPARE(bench->chip().flash(0, offset), pattern.left(int(offset)));
    QCOMPARE(bench->chip().flash(offset + size, 0x100), pattern.mid(int(offset + size), 0x100));
}

void TestEspFlasherFlash::verifyButton_data()
{
    QTest::addColumn<bool>("answer");
    QTest::addColumn<QString>("text");
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size"); // 0: nothing asked of the chip
    QTest::addColumn<QStringList>("lines");
    QTest::newRow("address:size")
        << true << "0x0:0x1000" << 0u << 0x1000u
        << QStringList{line(green,
                            "Requested flash memory contents md5 for [0x00000000:0x00001000] (size "
                            "4096)")};
    QTest::newRow("blanks and a suffix")
        << true << " 0x10000 : 16kb" << 0x10000u << 0x4000u
        << QStringList{line(green,
                            "Requested flash memory contents md5 for [0x00010000:0x00004000] (size "
                            "16384)")};
    QTest::newRow("no colon") << true << "0x1000" << 0u << 0u
                              << QStringList{line(amber, "Invalid region format for flash "
                                                         "verification")};
    QTest::newRow("bad size") << true << "0x1000:zz" << 0u << 0u << QStringList();
    QTest::newRow("empty") << true << "" << 0u << 0u << QStringList();
    QTest::newRow("cancelled") << false << "" << 0u << 0u << QStringList();
}

void TestEspFlasherFlash::verifyButton()
{
    QFETCH(bool, answer);
    QFETCH(QString, text);
    QFETCH(uint, offset);
    QFETCH(uint, size);
    QFETCH(QStringList, lines);

    connectAndLoad(files.scatter);
    loadStubThroughVerify();
    bench->chip().setFlash(0, noiseBytes(0x20000, 5));
    const int md5Requests = commandsWithOpcode(bench->chip(), VirtualEsp8266::SpiFlashMd5);
    if (answer)
        answerer->answerInput(text);
    else
        answerer->cancelInput();
    const int before = logLineCount(dialog());
    click("verifyTool");
    QCOMPARE(answerer->last().title, QStringLiteral("Verify Flash Memory Contents"));
    QCOMPARE(logWithoutDots(dialog(), before), lines);
    if (size == 0) {
        answerer->answerInput("0x0:0x10");
        click("verifyTool");
        QVERIFY(
            waitForLogLine(dialog(), line(green, "MD5: " + md5Hex(bench->chip().flash(0, 16)))));
        QCOMPARE(commandsWithOpcode(bench->chip(), VirtualEsp8266::SpiFlashMd5), md5Requests + 1);
        return;
    }
    const QString md5 = line(green, "MD5: " + md5Hex(bench->chip().flash(offset, size)));
    QVERIFY(waitForLogLine(dialog(), md5));
    QCOMPARE(logWithoutDots(dialog(), before), lines << md5);
}

// Erase and verify need the stub: they load it and wait for it in a progress dialog.
void TestEspFlasherFlash::operationsLoadTheStubFirst()
{
    connectAndLoad(files.package);
    answerer->answerInput("0x911");
    const int before = logLineCount(dialog());
    click("eraseTool");
    // The wait is over when the prompt comes: the stub is loaded by then.
    QCOMPARE(logWithoutDots(dialog(), before),
             (QStringList{line(amber, "Must load a stub first"),
                          line(green, "Start loading stub from esp8266_loader_stub.elf"),
                          line(green, "Flash stub loaded")}));
    QCOMPARE(commandsWithOpcode(bench->chip(), VirtualEsp8266::MemEnd), 1);
    QVERIFY(bench->chip().stubRunning());
    QVERIFY(dialog()->findChildren<QProgressDialog *>().isEmpty());
    QVERIFY(waitForLogLine(dialog(), line(green, "Flash memory has been erased")));

    // A flash run afterwards starts writing at once; the loader stays.
    const int run = logLineCount(dialog());
    click("flashTool");
    QVERIFY(waitForLogLine(dialog(), finishedFlashing()));
    QCOMPARE(logWithoutDots(dialog(), run), packageRunLines(false));
    QCOMPARE(commandsWithOpcode(bench->chip(), VirtualEsp8266::MemEnd), 1);
}

// Escape closes the wait for the loader without waiting for the worker, and the operation that
// needed the loader does not go on.
void TestEspFlasherFlash::escapeEndsTheWaitForTheLoader()
{
    connectAndLoad(files.package);
    bench->chip().armSilence(0);
    // This time the progress dialog is answered, not passed over.
    answerer = std::make_unique<ModalAnswerer>();
    QString label;
    answerer->expect("QProgressDialog", [&label](QWidget *modal) {
        label = static_cast<QProgressDialog *>(modal)->labelText();
        QTest::keyClick(modal, Qt::Key_Escape);
    });
    const int before = logLineCount(dialog());
    click("verifyTool");
    QCOMPARE(label, QStringLiteral("Waiting for the flash loader"));
    QVERIFY(dialog()->findChildren<QProgressDialog *>().isEmpty());
    // The silent chip has not even been given up on yet.
    QCOMPARE(logWithoutDots(dialog(), before),
             (QStringList{line(amber, "Must load a stub first"),
                          line(green, "Start loading stub from esp8266_loader_stub.elf")}));
    QVERIFY(waitForLogLine(dialog(), line(red, "UBoot operation load stub (2) finished with error"),
                           before));
    QVERIFY(!bench->chip().stubRunning());
}

void TestEspFlasherFlash::stubNeededWithoutScatter()
{
    bench = std::make_unique<ConnectedFlasher>();
    QString why;
    QVERIFY2(bench->connect(&why), qPrintable(why));
    const int before = logLineCount(dialog());
    click("eraseTool");
    click("verifyTool");
    const QString needed =
        line(red, "Stub loader is needed for this operation. Load a scatter file first");
    QCOMPARE(logWithoutDots(dialog(), before), (QStringList{needed, needed}));
    QVERIFY(answerer->seen().isEmpty());
    QVERIFY(dialog()->findChildren<QProgressDialog *>().isEmpty());
}

void TestEspFlasherFlash::uncheckedRowsAreSkipped()
{
    connectAndLoad(files.package);
    table()->item(0, 0)->setCheckState(Qt::Unchecked);
    const int before = logLineCount(dialog());
    click("flashTool");
    QVERIFY(waitForLogLine(dialog(), finishedFlashing()));
    QStringList expected = packageRunLines(true);
    expected.replace(2, line(amber, "Skipping section 1"));
    expected.removeAt(3);
    QCOMPARE(logWithoutDots(dialog(), before), expected);
    QCOMPARE(bench->chip().flash(0, 0x100), QByteArray(0x100, '\xFF'));
    QCOMPARE(bench->chip().flash(files.applicationAddress, files.application.size()),
             files.application);

    // The header gives every row its state.
    table()->horizontalHeaderItem(0)->setCheckState(Qt::Unchecked);
    table()->horizontalHeader()->sectionClicked(0);
    const int writes = commandsWithOpcode(bench->chip(), VirtualEsp8266::FlashBegin);
    const int second = logLineCount(dialog());
    click("flashTool");
    QCOMPARE(logWithoutDots(dialog(), second),
             (QStringList{line(amber, "Skipping section 1"), line(amber, "Skipping section 2"),
                          finishedFlashing()}));
    QCOMPARE(commandsWithOpcode(bench->chip(), VirtualEsp8266::FlashBegin), writes);

    // An empty table completes at once.
    table()->setRowCount(0);
    const int third = logLineCount(dialog());
    click("flashTool");
    QCOMPARE(logWithoutDots(dialog(), third), QStringList{finishedFlashing()});
    QCOMPARE(child<QProgressBar>(dialog(), "progressBar")->value(), 100);
}

void TestEspFlasherFlash::stubSources_data()
{
    QTest::addColumn<bool>("package");
    QTest::addColumn<QString>("stub"); // what the loader field holds; "@" is the loader's path
    QTest::addColumn<bool>("removeLoader");
    QTest::addColumn<QString>("announced"); // empty: refused with `box`
    QTest::addColumn<QString>("box");
    QTest::newRow("package entry")
        << true << "esp8266_loader_stub.elf" << false << "esp8266_loader_stub.elf" << QString();
    QTest::newRow("absolute path beside a package") << true << "@" << false << "@" << QString();
    QTest::newRow("entry missing") << true << "elsewhere.elf" << false << QString()
                                   << "The stub file elsewhere.elf is not in the package";
    QTest::newRow("loose, relative to the scatter file")
        << false << "loader.elf" << false << "@" << QString();
    QTest::newRow("loose, file vanished")
        << false << "@" << true << QString() << "Flash loader file @ does not exist!";
    QTest::newRow("loose, empty field")
        << false << "" << false << QString() << "Flash loader file # does not exist!";
}

void TestEspFlasherFlash::stubSources()
{
    QFETCH(bool, package);
    QFETCH(QString, stub);
    QFETCH(bool, removeLoader);
    QFETCH(QString, announced);
    QFETCH(QString, box);

    connectAndLoad(package ? files.package : files.scatter);
    const auto expand = [this](QString text) {
        return text.replace("@", files.stub).replace("#", dir->path());
    };
    child<QLineEdit>(dialog(), "stubEdit")->setText(expand(stub));
    if (removeLoader)
        QVERIFY(QFile::remove(files.stub));
    if (!box.isEmpty())
        answerer->answerBox(QMessageBox::Ok);

    const int before = logLineCount(dialog());
    click("flashTool");
    if (!box.isEmpty()) {
        QCOMPARE(answerer->last().title, QStringLiteral("Flash Loader"));
        QCOMPARE(answerer->last().text, expand(box));
        QCOMPARE(logLineCount(dialog()), before);
        QCOMPARE(commandsWithOpcode(bench->chip(), VirtualEsp8266::MemBegin), 0);
        return;
    }
    QVERIFY(waitForLogLine(dialog(), finishedFlashing()));
    QCOMPARE(logWithoutDots(dialog(), before).first(),
             line(green, "Start loading stub from " + expand(announced)));
    QVERIFY(bench->chip().stubRunning());
}

// A loose image that vanished after loading is noticed by the worker.
void TestEspFlasherFlash::vanishedImageFailsInTheWorker()
{
    connectAndLoad(files.scatter);
    QVERIFY(QFile::remove(QDir(dir->path()).absoluteFilePath("app.bin")));
    const int before = logLineCount(dialog());
    click("flashTool");
    const QString failed = line(red, "UBoot operation write data (5) finished with error");
    QVERIFY(waitForLogLine(dialog(), failed));
    const QStringList lines = logWithoutDots(dialog(), before);
    QCOMPARE(lines.last(), failed);
    QVERIFY2(lines.at(lines.size() - 2).startsWith(line(amber, "Flasher error: ")),
             qPrintable(lines.join('\n')));
    QVERIFY(!lines.contains(finishedFlashing()));
    QCOMPARE(bench->chip().flash(0, files.patchedFirmware.size()), files.patchedFirmware);
    // A stopped run leaves the buttons as the run left them.
    QVERIFY(!child<QPushButton>(dialog(), "flashTool")->isEnabled());
    QVERIFY(!child<QToolButton>(dialog(), "readTool")->isEnabled());
}

// The package file is overwritten while it is open: the entry of the next row cannot be found.
void TestEspFlasherFlash::packageDamagedBeforeAWrite()
{
    connectAndLoad(files.package);
    loadStubThroughVerify();
    QFile package(files.package);
    QVERIFY(package.open(QIODevice::ReadWrite));
    QVERIFY(package.write(QByteArray(int(package.size()), '\0')) == package.size());
    package.close();

    answerer->answerBox(QMessageBox::Ok);
    const int before = logLineCount(dialog());
    click("flashTool");
    QCOMPARE(answerer->last().title, QStringLiteral("Flash Loader"));
    QCOMPARE(answerer->last().text, QStringLiteral("File boot.bin is not in the package"));
    // Run mode 1: no closing box; the run ends where it was.
    QCOMPARE(logLineCount(dialog()), before);
    QVERIFY(!child<QPushButton>(dialog(), "flashTool")->isEnabled());
}

// The board goes away in the middle of writing the firmware: one red line, and nothing after it
// claims success.
void TestEspFlasherFlash::chipVanishesMidRun()
{
    connectAndLoad(files.package);
    loadStubThroughVerify();
    bench->chip().armVanishAfterBytes(4000);
    const int before = logLineCount(dialog());
    click("flashTool");
    const QString failed = line(red, "UBoot operation write firmware (4) finished with error");
    QVERIFY(waitForLogLine(dialog(), failed));
    QVERIFY(bench->chip().vanished());

    const QVector<LogLine> lines = logLines(dialog()).mid(before);
    int red = 0;
    for (const LogLine &entry : lines) {
        if (entry.colour == QLatin1String(FlasherTestKit::red))
            ++red;
        QVERIFY2(!entry.text.contains("successfully") && !entry.text.contains("Finished"),
                 qPrintable(entry.text));
    }
    QCOMPARE(red, 1);
    QCOMPARE(logWithoutDots(dialog(), before).first(),
             line(green, "Start writing firmware from boot.bin to 0x00000000 (flash memory size "
                         "4MB, mode dio, frequency 40m)"));
    QVERIFY(child<QProgressBar>(dialog(), "progressBar")->value() < 100);
    QVERIFY(!child<QPushButton>(dialog(), "flashTool")->isEnabled());
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

// A run that failed keeps the package entry it handed to the worker, so a new attempt only
// reports that the device is busy until the package is loaded again.
void TestEspFlasherFlash::busyWhileAStoppedRunHoldsAnEntry()
{
    QFETCH(bool, stubLoaded);
    QFETCH(int, icon);
    QFETCH(QString, failed);

    connectAndLoad(files.package);
    if (stubLoaded)
        loadStubThroughVerify();
    // The chip refuses the next command: the write, or the first step of the stub upload.
    bench->chip().armErrorStatus(1);
    click("flashTool");
    QVERIFY(waitForLogLine(dialog(), line(red, failed)));
    // Only writing a section disables the buttons; a failed stub load leaves them as they were.
    QCOMPARE(child<QPushButton>(dialog(), "flashTool")->isEnabled(), !stubLoaded);

    int shownIcon = -1;
    answerer->expect("QMessageBox", [&shownIcon](QWidget *modal) {
        auto *box = static_cast<QMessageBox *>(modal);
        shownIcon = box->icon();
        box->button(QMessageBox::Ok)->click();
    });
    const int before = logLineCount(dialog());
    QVERIFY(QMetaObject::invokeMethod(dialog(), "on_flashTool_clicked", Qt::DirectConnection));
    QCOMPARE(answerer->last().title, QStringLiteral("Flash Loader"));
    QCOMPARE(answerer->last().text, QStringLiteral("The device is busy. Please try again later."));
    QCOMPARE(shownIcon, icon);
    QCOMPARE(logLineCount(dialog()), before);
    QCOMPARE(child<QPushButton>(dialog(), "flashTool")->isEnabled(), !stubLoaded);

    // Loading the package again lets go of the entry: the next attempt reaches the worker
    // (which, after the refused command, fails everything until the next connect).
    answerer->answerFile(files.package);
    QVERIFY(selectScatter(dialog()));
    const int reloaded = logLineCount(dialog());
    click("flashTool");
    QTRY_VERIFY_WITH_TIMEOUT(logWithoutDots(dialog(), reloaded).contains(line(red, failed)),
                             workerStepTimeoutMs);
    const QStringList lines = logWithoutDots(dialog(), reloaded);
    QCOMPARE(lines.count(line(red, failed)), 1);
    QVERIFY2(lines.first().startsWith(line(green, "Start ")), qPrintable(lines.join('\n')));
}

QTEST_MAIN(TestEspFlasherFlash)
#include "tst_espflasher_flash.moc"
