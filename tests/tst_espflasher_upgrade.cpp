#include "flasher/espflasher.h"
#include "flasher/esppackage.h"
#include "serial/qcomport.h"

#include "chipfixture.h"
#include "connectedflasher.h"
#include "flashertestkit.h"
#include "flashtestfiles.h"
#include "modalanswerer.h"
#include "scattertestfiles.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <memory>

using namespace FlasherTestKit;

namespace {

const char *const boardSerial = "UPGRADE-0042";

// What happens to the board or its files while the components are being chosen.
enum class Mishap { None, LoaderRemoved, ChipSilent, PackageOverwritten, ChipUnplugged };

} // namespace

Q_DECLARE_METATYPE(Mishap)

// Run mode 0 as a host uses it: construct, autoconnect, exec; the dialog identifies the chip,
// asks for a package, flashes it, reports in a box that closes itself and closes with the
// outcome as its exit code.
class TestEspFlasherUpgrade : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void upgradeIsAccepted();
    void failedUpgradeIsRejected_data();
    void failedUpgradeIsRejected();
    void corruptPackageIsRejected();

private:
    // Starts the chip and publishes its port with the board's serial number.
    void startBoard();
    QString corruptPackage();

    QByteArray savedPorts;
    QTemporaryDir settingsDir;
    std::unique_ptr<QTemporaryDir> dir;
    FlashTestFiles files;
    std::unique_ptr<ChipFixture> board;
    std::unique_ptr<ModalAnswerer> answerer;
};

void TestEspFlasherUpgrade::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QVERIFY(settingsDir.isValid());
    isolateSettings(settingsDir.path());
    savedPorts = qgetenv(QComPort::extraPortsVariable);
}

void TestEspFlasherUpgrade::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    files = FlashTestFiles();
    QString why;
    QVERIFY2(files.create(QDir(dir->path()), &why), qPrintable(why));
    answerer = std::make_unique<ModalAnswerer>();
    answerer->ignore("QProgressDialog");
    // exec() makes the dialog itself the modal window the answerer would otherwise close.
    answerer->ignore("ESPFlasher");
    startBoard();
}

void TestEspFlasherUpgrade::cleanup()
{
    if (answerer) {
        QCOMPARE(answerer->unexpected(), QStringList());
        QCOMPARE(answerer->remaining(), 0);
    }
    answerer.reset();
    board.reset();
    dir.reset();
    qputenv(QComPort::extraPortsVariable, savedPorts);
}

void TestEspFlasherUpgrade::startBoard()
{
    board = std::make_unique<ChipFixture>();
    QVERIFY(board->start());
    qputenv(QComPort::extraPortsVariable,
            (board->port() + QLatin1Char('=') + QLatin1String(boardSerial)).toLocal8Bit());
}

void TestEspFlasherUpgrade::upgradeIsAccepted()
{
    ESPFlasher flasher(ESPFlasher::RUN_MODE_UPGRADE, nullptr);
    answerer->answerFile(files.package);
    // Both kinds of image are in the package: all components stay chosen.
    answerer->expect("FlashTypeSelector",
                     [](QWidget *selector) { static_cast<QDialog *>(selector)->accept(); });
    answerer->leaveBox(); // closes itself after its countdown

    QVERIFY(flasher.autoconnect(QLatin1String(boardSerial)));
    QCOMPARE(flasher.exec(), int(QDialog::Accepted));

    QCOMPARE(board->chip().flash(files.firmwareAddress, files.patchedFirmware.size()),
             files.patchedFirmware);
    QCOMPARE(board->chip().flash(files.applicationAddress, files.application.size()),
             files.application);
    const ModalAnswerer::Seen box = answerer->last();
    QCOMPARE(box.className, QStringLiteral("QAutoCloseMessageBox"));
    QCOMPARE(box.text, QStringLiteral("Upgrade completed.\nThe tool will be closed"));
    QCOMPARE(box.title, QStringLiteral("Brimcote ESP Utility"));
    QCOMPARE(box.defaultButton, QStringLiteral("OK (5)"));

    const QStringList lines = logWithoutDots(&flasher);
    QCOMPARE(lines.mid(0, 4),
             (QStringList{line(amber, "Connecting to " + board->port()),
                          line(green, "Connected to ESP UBoot via " + board->port()),
                          line(green, "Retrieved chip info"),
                          line(green, QStringLiteral("Loaded package %1: %2")
                                          .arg(files.package, files.packageDescription))}));
    QCOMPARE(lines.mid(4),
             (QStringList{line(green, "Start loading stub from esp8266_loader_stub.elf"),
                          line(green, "Flash stub loaded"),
                          line(green, "Start writing firmware from boot.bin to 0x00000000 (flash "
                                      "memory size 4MB, mode dio, frequency 40m)"),
                          line(green, "Firmware has been successfully flashed"),
                          line(green, "Start writing user application from app.bin to "
                                      "0x00010000 (max size 4MB)"),
                          line(green, "Application has been successfully flashed"),
                          line(green, "Finished flashing package")}));
}

void TestEspFlasherUpgrade::failedUpgradeIsRejected_data()
{
    QTest::addColumn<Mishap>("mishap");
    QTest::addColumn<bool>("looseScatter");
    QTest::addColumn<bool>("accept"); // the component choice
    QTest::addColumn<QString>("box"); // a plain box before the closing one; empty: none
    QTest::addColumn<QString>("closing");
    QTest::addColumn<bool>("waitForCountdown");

    QTest::newRow("loader removed")
        << Mishap::LoaderRemoved << true << true << "Flash loader file @ does not exist!"
        << "Cannot load the stub" << true;
    QTest::newRow("chip silent") << Mishap::ChipSilent << false << true << QString()
                                 << "UBoot operation failure." << false;
    QTest::newRow("package overwritten after loading")
        << Mishap::PackageOverwritten << false << true
        << "The stub file esp8266_loader_stub.elf is not in the package"
        << "Cannot load the stub" << false;
    QTest::newRow("board unplugged mid-run") << Mishap::ChipUnplugged << false << true << QString()
                                             << "UBoot operation failure." << false;
    QTest::newRow("components declined")
        << Mishap::None << false << false << QString() << "Upgrade cancelled." << false;
}

void TestEspFlasherUpgrade::failedUpgradeIsRejected()
{
    QFETCH(Mishap, mishap);
    QFETCH(bool, looseScatter);
    QFETCH(bool, accept);
    QFETCH(QString, box);
    QFETCH(QString, closing);
    QFETCH(bool, waitForCountdown);

    ESPFlasher flasher(ESPFlasher::RUN_MODE_UPGRADE, nullptr);
    answerer->answerFile(looseScatter ? files.scatter : files.package);
    answerer->expect("FlashTypeSelector", [&](QWidget *selector) {
        switch (mishap) {
        case Mishap::None:
            break;
        case Mishap::LoaderRemoved:
            QFile::remove(files.stub);
            break;
        case Mishap::ChipSilent:
            board->chip().armSilence(0);
            break;
        case Mishap::PackageOverwritten: {
            QFile package(files.package);
            if (package.open(QIODevice::ReadWrite))
                package.write(QByteArray(int(package.size()), '\0'));
            break;
        }
        case Mishap::ChipUnplugged:
            // Past the loader upload, inside the firmware data.
            board->chip().setCommandObserver([this](const VirtualEsp8266::CommandRecord &record) {
                if (record.opcode == VirtualEsp8266::FlashBegin)
                    board->chip().armVanishAfterBytes(3000);
            });
            break;
        }
        if (accept)
            static_cast<QDialog *>(selector)->accept();
        else
            static_cast<QDialog *>(selector)->reject();
    });
    if (!box.isEmpty())
        answerer->answerBox(QMessageBox::Ok);
    if (waitForCountdown)
        answerer->leaveBox();
    else
        answerer->answerBox(QMessageBox::Ok);

    QVERIFY(flasher.autoconnect(QLatin1String(boardSerial)));
    QCOMPARE(flasher.exec(), int(QDialog::Rejected));

    const QVector<ModalAnswerer::Seen> seen = answerer->seen();
    if (!box.isEmpty()) {
        QCOMPARE(seen.at(seen.size() - 2).title, QStringLiteral("Flash Loader"));
        QCOMPARE(seen.at(seen.size() - 2).text, QString(box).replace("@", files.stub));
    }
    QCOMPARE(seen.last().className, QStringLiteral("QAutoCloseMessageBox"));
    QCOMPARE(seen.last().text, closing + QStringLiteral("\nThe tool will be closed"));
    QCOMPARE(seen.last().defaultButton, QStringLiteral("OK (10)"));

    // Nothing claims success, and nothing was written unless the board went away mid-run.
    const QStringList lines = logWithoutDots(&flasher);
    QVERIFY2(!lines.contains(line(green, "Finished flashing package")),
             qPrintable(lines.join('\n')));
    if (mishap != Mishap::ChipUnplugged) {
        QCOMPARE(board->chip().flash(0, files.firmware.size()),
                 QByteArray(files.firmware.size(), '\xFF'));
    } else {
        QVERIFY(board->chip().vanished());
        QCOMPARE(lines.last(), line(red, "UBoot operation write firmware (4) finished with error"));
    }
}

QString TestEspFlasherUpgrade::corruptPackage()
{
    const QString comment = QStringLiteral("Damaged in transit");
    const QByteArray password = EspPackage::password(comment);
    QJsonObject document = files.document();
    document.insert("stub", "esp8266_loader_stub.elf");
    QFile stub(files.stub);
    if (!stub.open(QIODevice::ReadOnly))
        return QString();
    QByteArray firmware = files.firmware;
    firmware[100] = char(firmware.at(100) ^ 0x01); // no longer what the scatter's md5 says
    const QString path = QDir(dir->path()).absoluteFilePath("damaged.zip");
    const bool written = writeTestZip(path, comment,
                                      {{"esp8266_loader_stub.elf", stub.readAll()},
                                       {"boot.bin", firmware},
                                       {"app.bin", files.application},
                                       {"scatter.txt", QJsonDocument(document).toJson()}},
                                      &password);
    return written ? path : QString();
}

// A package whose image does not match its checksum is refused when it is chosen.
void TestEspFlasherUpgrade::corruptPackageIsRejected()
{
    const QString package = corruptPackage();
    QVERIFY(!package.isEmpty());
    ESPFlasher flasher(ESPFlasher::RUN_MODE_UPGRADE, nullptr);
    answerer->answerFile(package);
    answerer->answerBox(QMessageBox::Ok);
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(flasher.autoconnect(QLatin1String(boardSerial)));
    QCOMPARE(flasher.exec(), int(QDialog::Rejected));

    const QVector<ModalAnswerer::Seen> seen = answerer->seen();
    QCOMPARE(seen.size(), 3);
    QCOMPARE(seen.at(1).title, QStringLiteral("Select scatter file"));
    QVERIFY2(seen.at(1).text.startsWith(package + " package is invalid: The data within the "
                                                  "package is corrupted"),
             qPrintable(seen.at(1).text));
    QCOMPARE(seen.at(2).text, QStringLiteral("Upgrade cancelled.\nThe tool will be closed"));
    QCOMPARE(board->chip().counters().commands.value(VirtualEsp8266::MemBegin), 0);
}

QTEST_MAIN(TestEspFlasherUpgrade)
#include "tst_espflasher_upgrade.moc"
