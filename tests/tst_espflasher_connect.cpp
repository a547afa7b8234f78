#include "flashertestkit.h"
#include "ptypair.h"
#include "scattertestfiles.h"

using namespace FlasherTestKit;

// Choosing a port and connecting where nothing answers; worker results that end no operation.
class TestEspFlasherConnect : public FlasherTest
{
    Q_OBJECT

private slots:
    void autoconnect_data();
    void autoconnect();
    void portDetails_data();
    void portDetails();
    void settingsRemembered();
    void unopenablePort_data();
    void unopenablePort();
    void otherResults();

private:
    // A pseudo-terminal published as a port per USB serial number, then a dialog.
    void start(int mode, const QStringList &serials);
    QString port(int index) const { return ports.at(index)->slavePath(); }

    std::vector<std::unique_ptr<PtyPair>> ports;
    QComboBox *combo = nullptr;
};

void TestEspFlasherConnect::start(int mode, const QStringList &serials)
{
    QStringList entries;
    ports.clear(); // the last test's dialog is gone
    for (const QString &serial : serials) {
        ports.push_back(std::make_unique<PtyPair>());
        entries << ports.back()->slavePath() + '=' + serial;
    }
    qputenv(QComPort::extraPortsVariable, entries.join(':').toLocal8Bit());
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE(mode), nullptr);
    combo = find<QComboBox>("comPortCombo");
}

void TestEspFlasherConnect::autoconnect_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QStringList>("serials");
    QTest::addColumn<QString>("prompt"); // the port chosen when asked; "cancel"; "": no prompt
    QTest::addColumn<int>("port");       // index of the port connected to; -1: none

    const int upgrade = ESPFlasher::RUN_MODE_UPGRADE;
    const int standalone = ESPFlasher::RUN_MODE_STANDALONE;
    // The serial number matches exactly, letter case included.
    const QStringList none{"OTHER"}, one{"ser", "SER"}, two{"SER", "OTHER", "SER"};
    QTest::newRow("none") << upgrade << none << "" << -1;
    QTest::newRow("one, standalone") << standalone << one << "" << 1;
    QTest::newRow("two, standalone: no prompt") << standalone << two << "" << -1;
    QTest::newRow("two, upgrade: second chosen") << upgrade << two << "2" << 2;
    QTest::newRow("two, upgrade: cancelled") << upgrade << two << "cancel" << -1;
}

// Autoconnect to the port of serial number "SER", where nothing answers: the connection fails
// with the worker's reason. A host's guess only preselects the first port of that number.
void TestEspFlasherConnect::autoconnect()
{
    QFETCH(int, mode);
    QFETCH(QStringList, serials);
    QFETCH(QString, prompt);
    QFETCH(int, port);

    start(mode, serials);
    QVERIFY(!enabled("infoGroup") && !enabled("loaderGroup"));
    // The extra ports come after the enumerated ones; no serial number matches a host without one.
    QCOMPARE(combo->itemText(combo->count() - 1), this->port(serials.size() - 1));
    QCOMPARE(combo->itemData(combo->count() - 1, Qt::ToolTipRole).toString(),
             this->port(serials.size() - 1) + "\nSerial number: " + serials.last());
    QVERIFY(flasher->portsForSerial(QString()).isEmpty());
    if (!prompt.isEmpty())
        answerer->answerInput(prompt == "cancel" ? QString() : this->port(prompt.toInt()));
    if (port >= 0 && mode == ESPFlasher::RUN_MODE_UPGRADE)
        answerer->answerBox(QMessageBox::Ok); // the closing box the flash tests look into
    QCOMPARE(flasher->autoconnect("SER"), port >= 0);
    if (!prompt.isEmpty())
        QCOMPARE(answerer->last().text,
                 "Select port|SER port:|" + this->port(0) + ',' + this->port(2));
    if (port < 0) {
        combo->setCurrentIndex(combo->count() - 1);
        flasher->guess("SER");
        QCOMPARE(combo->currentText(),
                 this->port(serials.contains("SER") ? 0 : serials.size() - 1));
        QVERIFY(log().isEmpty());
        QVERIFY(ports[0]->readMaster(100).isEmpty());
        return;
    }
    QCOMPARE(combo->currentText(), this->port(port));
    QVERIFY(combo->isEnabled()); // unlike a manual connect
    // The worker talks to that port only: a SLIP frame arrives.
    QCOMPARE(ports[port]->readMaster(workerStepTimeoutMs).left(1), QByteArray("\xC0"));
    QVERIFY(ports[0]->readMaster(0).isEmpty());
    const QString failed = line(red, "UBoot operation connect (0) finished with error");
    QVERIFY(waitForLog(failed));
    QCOMPARE(log().size(), 4);
    QCOMPARE(log().first(), line(amber, "Connecting to " + this->port(port)));
    // A pseudo-terminal has no modem lines: the reset is skipped, and said so once.
    QCOMPARE(log().at(1), line(amber, "The board is not reset: " + this->port(port) +
                                          " has no modem lines (DTR/RTS)"));
    QVERIFY2(log().at(2).startsWith(line(amber, "Flasher error: ")), qPrintable(log().at(2)));
}

void TestEspFlasherConnect::portDetails_data()
{
    QTest::addColumn<QStringList>("entry"); // description, manufacturer, serial number
    QTest::addColumn<int>("productId");     // the vendor id is 0x1234 with one
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("details"); // lines joined by '|'

    QTest::newRow("every detail")
        << QStringList{"USB-serial bridge", "Adapter maker", "A50285BI"} << 0xab
        << "/dev/ttyUSB0 (USB-serial bridge)"
        << "/dev/ttyUSB0|Description: USB-serial bridge|Manufacturer: Adapter maker|VID:PID: "
           "1234:00ab|Serial number: A50285BI";
    QTest::newRow("nothing known") << QStringList{"", "", ""} << 0 << "/dev/ttyUSB0"
                                   << "/dev/ttyUSB0";
}

// The port list names a port by its path and describes the adapter behind it.
void TestEspFlasherConnect::portDetails()
{
    QFETCH(QStringList, entry);
    QFETCH(int, productId);
    const QComPort::PortEntry port{"ttyUSB0",         entry.at(2), "/dev/ttyUSB0",
                                   entry.at(0),       entry.at(1), quint16(productId ? 0x1234 : 0),
                                   quint16(productId)};
    QTEST(ESPFlasher::portItemText(port), "text");
    QTEST(ESPFlasher::portDetails(port).replace('\n', '|'), "details");
}

// The connection settings are remembered from one start of the dialog to the next.
void TestEspFlasherConnect::settingsRemembered()
{
    start(ESPFlasher::RUN_MODE_STANDALONE, {});
    auto *baud = find<QComboBox>("baudRateCombo");
    auto *reset = find<QCheckBox>("resetBeforeConnectCheck");
    auto *skip = find<QCheckBox>("skipUnchangedCheck");
    // A fresh installation: the rate of the connection, reset and skip on; nothing saved yet.
    QCOMPARE(baud->currentText(), QStringLiteral("115200"));
    QVERIFY(reset->isChecked() && skip->isChecked());
    QVERIFY(QSettings().allKeys().isEmpty());

    baud->setCurrentText("460800");
    reset->click();
    skip->click();
    const QSettings settings;
    QCOMPARE(settings.value("COM/Baud").toUInt(), 460800u);
    QCOMPARE(settings.value("COM/ResetBeforeConnect").toBool(), false);
    QCOMPARE(settings.value("Flash/SkipUnchanged").toBool(), false);
    start(ESPFlasher::RUN_MODE_STANDALONE, {});
    QCOMPARE(find<QComboBox>("baudRateCombo")->currentText(), QStringLiteral("460800"));
    QVERIFY(!find<QCheckBox>("resetBeforeConnectCheck")->isChecked());
    QVERIFY(!find<QCheckBox>("skipUnchangedCheck")->isChecked());

    // A rate the list does not offer is not taken over.
    QSettings().setValue("COM/Baud", 12345);
    start(ESPFlasher::RUN_MODE_STANDALONE, {});
    QCOMPARE(find<QComboBox>("baudRateCombo")->currentText(), QStringLiteral("115200"));
}

void TestEspFlasherConnect::unopenablePort_data()
{
    QTest::addColumn<QString>("reason");
    QTest::newRow("not a serial device") << "not a serial device";
    QTest::newRow("gone") << "no such port (is the board plugged in?)";
}

// A port that cannot be opened: one line says why, nothing claims it was closed, and another
// port can be chosen.
void TestEspFlasherConnect::unopenablePort()
{
    QFETCH(QString, reason);
    const bool gone = reason.startsWith("no such port");
    QString port = writeTestFile(dir->path(), "ttyFILE", "not a device");
    if (gone) {
        start(ESPFlasher::RUN_MODE_STANDALONE, {"SER"});
        port = this->port(0);
        ports.clear(); // unplugged after the list was made
    } else {
        qputenv(QComPort::extraPortsVariable, port.toLocal8Bit());
        flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
        combo = find<QComboBox>("comPortCombo");
    }
    combo->setCurrentIndex(combo->count() - 1);
    QCOMPARE(combo->currentText(), port);
    find<QPushButton>("comPortConnect")->click();
    const QString failed = line(red, "UBoot operation connect (0) finished with error");
    QVERIFY(waitForLog(failed));
    QCOMPARE(log(), (QStringList{line(amber, "Connecting to " + port),
                                 line(amber, "Flasher error: Cannot open " + port + ": " + reason),
                                 failed}));
    for (const char *name : {"comPortCombo", "comPortScanTool", "baudRateCombo",
                             "resetBeforeConnectCheck", "skipUnchangedCheck", "comPortConnect"})
        QVERIFY2(enabled(name), name);
    QCOMPARE(find<QPushButton>("comPortConnect")->text(), QStringLiteral("Connect"));
}

void TestEspFlasherConnect::otherResults()
{
    start(ESPFlasher::RUN_MODE_UPGRADE, {});
    // As after an identification, without the upgrade that follows one in run mode 0.
    find<QWidget>("loaderGroup")->setEnabled(true);
    const auto progress = [this](int total, int current) {
        return QMetaObject::invokeMethod(flasher.get(), "worker_progress", Q_ARG(int, total),
                                         Q_ARG(int, current))
                   ? find<QProgressBar>("progressBar")->value()
                   : -1;
    };
    QVERIFY(deliverFinished(true, 9));
    QCOMPARE(progress(3, 2), 67);
    QCOMPARE(progress(0, 0), 67); // no usable figure: the bar keeps its value
    // The dots extend the last line instead of starting new ones.
    QCOMPARE(find<QTextBrowser>("logBrowser")->toPlainText(),
             QStringLiteral("Unknown command 9 finished.."));
    QVERIFY(invoke("on_eraseTool_clicked"));
    QCOMPARE(log().last(),
             line(red, "Stub loader is needed for this operation. Load a scatter file first"));

    // An erase enables flashing only with a scatter file loaded.
    QVERIFY(deliverFinished(true, 7));
    QVERIFY(!enabled("flashTool"));
    edit("scatterEdit")->setText("/boards/scatter.txt");
    QVERIFY(deliverFinished(true, 7));
    QVERIFY(enabled("flashTool"));

    // The closing itself is that of every failed upgrade (flash tests).
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(deliverFinished(true, 1));
    QCOMPARE(answerer->last().text,
             "Brimcote ESP Utility|Connection closed.\nThe tool will be closed");
}

QTEST_MAIN(TestEspFlasherConnect)
#include "tst_espflasher_connect.moc"
