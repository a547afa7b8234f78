#include "flasher/espflasher.h"
#include "serial/qcomport.h"

#include "chipfixture.h"
#include "flashertestkit.h"
#include "modalanswerer.h"
#include "ptypair.h"

#include <QComboBox>
#include <QGroupBox>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTextBrowser>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

// The dialog's frame, choosing a port and connecting, and the worker results that end no
// operation.
class TestEspFlasherConnect : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void portList();
    void autoconnect_data();
    void autoconnect();
    void connectIdentifiesVirtualChip();
    void otherResults();

private:
    void makeFlasher(ESPFlasher::RUN_MODE mode);
    // Publishes one pseudo-terminal per serial number, as a port with that USB serial number.
    void publishPorts(const QStringList &serials);
    QString port(int index) const { return ports.at(index)->slavePath(); }
    QPushButton *connectButton() { return child<QPushButton>(flasher.get(), "comPortConnect"); }

    QByteArray savedPorts;
    std::vector<std::unique_ptr<PtyPair>> ports;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ESPFlasher> flasher;
    QComboBox *combo = nullptr;
};

void TestEspFlasherConnect::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    savedPorts = qgetenv(QComPort::extraPortsVariable);
}

void TestEspFlasherConnect::init()
{
    qunsetenv(QComPort::extraPortsVariable);
    answerer = std::make_unique<ModalAnswerer>();
}

void TestEspFlasherConnect::cleanup()
{
    QCOMPARE(answerer->unexpected(), QStringList());
    QCOMPARE(answerer->remaining(), 0);
    flasher.reset();
    ports.clear();
    qputenv(QComPort::extraPortsVariable, savedPorts);
}

void TestEspFlasherConnect::makeFlasher(ESPFlasher::RUN_MODE mode)
{
    flasher = std::make_unique<ESPFlasher>(mode, nullptr);
    combo = child<QComboBox>(flasher.get(), "comPortCombo");
}

void TestEspFlasherConnect::publishPorts(const QStringList &serials)
{
    QStringList entries;
    for (const QString &serial : serials) {
        ports.push_back(std::make_unique<PtyPair>());
        entries << ports.back()->slavePath() + QLatin1Char('=') + serial;
    }
    qputenv(QComPort::extraPortsVariable, entries.join(QLatin1Char(':')).toLocal8Bit());
}

// Filled at construction, the extra ports after the enumerated ones; a scan drops a port that
// went away, and with no port left nothing can be connected. A host's guess preselects the
// first port of a serial number (exactly that one, letter case included).
void TestEspFlasherConnect::portList()
{
    publishPorts({"OTHER", "ser-1", "SER-1", "SER-1"});
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    QVERIFY(!child<QGroupBox>(flasher.get(), "infoGroup")->isEnabled());
    QVERIFY(!child<QGroupBox>(flasher.get(), "loaderGroup")->isEnabled());
    const QStringList enumerated = QComPort::availableComPorts();
    QCOMPARE(enumerated.mid(enumerated.size() - 4),
             (QStringList{port(0), port(1), port(2), port(3)}));
    QCOMPARE(combo->count(), enumerated.size());
    QCOMPARE(combo->itemText(combo->count() - 1), port(3));
    QCOMPARE(flasher->portsForSerial("SER-1"), (QStringList{port(2), port(3)}));
    // Ports without a serial number do not match a host that has none.
    QCOMPARE(flasher->portsForSerial(QString()), QStringList());
    flasher->guess("NOPE");
    QCOMPARE(combo->currentText(), enumerated.first());
    flasher->guess("SER-1");
    QCOMPARE(combo->currentText(), port(2));
    QVERIFY(logLines(flasher.get()).isEmpty());

    qputenv(QComPort::extraPortsVariable, port(0).toLocal8Bit());
    child<QToolButton>(flasher.get(), "comPortScanTool")->click();
    QCOMPARE(combo->count(), enumerated.size() - 3);
    QCOMPARE(combo->itemText(combo->count() - 1), port(0));
    QVERIFY(connectButton()->isEnabled());
    if (enumerated.size() > 4)
        return; // this machine has serial ports of its own: an empty list cannot be made
    qunsetenv(QComPort::extraPortsVariable);
    child<QToolButton>(flasher.get(), "comPortScanTool")->click();
    QVERIFY(combo->count() == 0 && !connectButton()->isEnabled());
}

void TestEspFlasherConnect::autoconnect_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QStringList>("serials");
    QTest::addColumn<QString>("prompt"); // the port chosen when asked; "cancel"; empty: no prompt
    QTest::addColumn<int>("port");       // index of the port connected to; -1: none

    const int upgrade = ESPFlasher::RUN_MODE_UPGRADE;
    const int standalone = ESPFlasher::RUN_MODE_STANDALONE;
    const QStringList none{"OTHER"};
    const QStringList one{"OTHER", "SER"};
    const QStringList two{"SER", "OTHER", "SER"};
    QTest::newRow("none, upgrade") << upgrade << none << QString() << -1;
    QTest::newRow("none, standalone") << standalone << none << QString() << -1;
    QTest::newRow("one, upgrade") << upgrade << one << QString() << 1;
    QTest::newRow("one, standalone") << standalone << one << QString() << 1;
    QTest::newRow("two, standalone: no prompt") << standalone << two << QString() << -1;
    QTest::newRow("two, upgrade: second chosen") << upgrade << two << "2" << 2;
    QTest::newRow("two, upgrade: cancelled") << upgrade << two << "cancel" << -1;
}

// Autoconnect to the port of serial number "SER", where nothing answers: the connection fails,
// and in run mode 0 the tool closes with reject after a box that counts down ten seconds.
void TestEspFlasherConnect::autoconnect()
{
    QFETCH(int, mode);
    QFETCH(QStringList, serials);
    QFETCH(QString, prompt);
    QFETCH(int, port);

    publishPorts(serials);
    makeFlasher(ESPFlasher::RUN_MODE(mode));
    if (prompt == QLatin1String("cancel"))
        answerer->cancelInput();
    else if (!prompt.isEmpty())
        answerer->answerInput(this->port(prompt.toInt()));
    const bool upgrade = mode == ESPFlasher::RUN_MODE_UPGRADE;
    if (port >= 0 && upgrade)
        answerer->answerBox(QMessageBox::Ok);
    QSignalSpy finished(flasher.get(), &QDialog::finished);

    QCOMPARE(flasher->autoconnect("SER"), port >= 0);
    if (!prompt.isEmpty()) {
        const ModalAnswerer::Seen asked = answerer->seen().first();
        QCOMPARE(asked.title + "|" + asked.text, QStringLiteral("Select port|SER port:"));
        QCOMPARE(asked.items, (QStringList{this->port(0), this->port(2)}));
    }
    if (port < 0) {
        QVERIFY(logLines(flasher.get()).isEmpty());
        QVERIFY(ports[0]->readMaster(100).isEmpty());
        return;
    }
    const QString path = this->port(port);
    QCOMPARE(combo->currentText(), path);
    // Unlike a manual connect, the port list stays enabled.
    QVERIFY(combo->isEnabled());
    // The worker talks to that port only: a SLIP frame arrives.
    QCOMPARE(ports[port]->readMaster(workerStepTimeoutMs).left(1), QByteArray("\xC0"));
    QVERIFY(ports[0]->readMaster(0).isEmpty());
    const QString failed = line(red, "UBoot operation connect (0) finished with error");
    QVERIFY(waitForLogLine(flasher.get(), failed));
    const QStringList lines = logLines(flasher.get());
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.first(), line(amber, "Connecting to " + path));
    // The worker's reason comes before the failure.
    QVERIFY2(lines.at(1).startsWith(line(amber, "Flasher error: ")), qPrintable(lines.at(1)));
    if (!upgrade)
        return;
    QVERIFY(finished.wait(workerStepTimeoutMs));
    QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
    const ModalAnswerer::Seen box = answerer->last();
    QCOMPARE(box.className + "|" + box.title, "QAutoCloseMessageBox|Brimcote ESP Utility");
    QCOMPARE(box.text + "|" + box.defaultButton,
             "UBoot operation failure.\nThe tool will be closed|OK (10)");
}

void TestEspFlasherConnect::connectIdentifiesVirtualChip()
{
    VirtualEsp8266::Config config;
    config.mac = QByteArray::fromHex("18fe34123456");
    ChipFixture fixture(config);
    QVERIFY(fixture.start());
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    combo->setCurrentText(fixture.port());
    connectButton()->click();
    QVERIFY(!combo->isEnabled());
    QVERIFY(waitForLogLine(flasher.get(), line(green, "Retrieved chip info")));

    QCOMPARE(logLines(flasher.get()),
             (QStringList{line(amber, "Connecting to " + fixture.port()),
                          line(green, "Connected to ESP UBoot via " + fixture.port()),
                          line(green, "Retrieved chip info")}));
    const std::array<quint32, 4> words = VirtualEsp8266::efuseWordsFor(config);
    const quint32 chipId = (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8);
    QCOMPARE(child<QLineEdit>(flasher.get(), "chipIDField")->text(),
             QStringLiteral("ESP8266EX / %1").arg(chipId, 8, 16, QLatin1Char('0')));
    QCOMPARE(child<QLineEdit>(flasher.get(), "macField")->text(), QStringLiteral("18FE34123456"));
    QVERIFY(child<QLineEdit>(flasher.get(), "flashIDField")->text().contains("(0xef:0x4016)"));
    QVERIFY(child<QGroupBox>(flasher.get(), "infoGroup")->isEnabled());
    QVERIFY(child<QGroupBox>(flasher.get(), "loaderGroup")->isEnabled());
    QCOMPARE(connectButton()->text(), QStringLiteral("Disconnect"));
    QVERIFY(!connectButton()->isEnabled());
    QVERIFY(!child<QToolButton>(flasher.get(), "comPortScanTool")->isEnabled());
    // The flash size guessed from the flash ID stands in when a scatter has no firmware row.
    QCOMPARE(flasher->getScatterFlashSize(), QStringLiteral("4Mb"));

    // A "get info" result of the wrong length: the chip counts as unknown and is let go.
    QVERIFY(deliverFinished(flasher.get(), true, 3, chipInfo().mid(0, 4)));
    QCOMPARE(logLines(flasher.get()).last(), line(amber, "Chip could not be identified"));
    QVERIFY(waitForLogLine(flasher.get(), line(green, "Closed connection to " + fixture.port())));
    QVERIFY(child<QLineEdit>(flasher.get(), "chipIDField")->text().isEmpty());
    QVERIFY(child<QLineEdit>(flasher.get(), "macField")->text().isEmpty());
    QVERIFY(combo->isEnabled());
    QCOMPARE(connectButton()->text(), QStringLiteral("Connect"));
}

// Progress dots, an erase, an unknown command, an operation that needs a loader with none
// named, the disconnect that closes the upgrade tool.
void TestEspFlasherConnect::otherResults()
{
    makeFlasher(ESPFlasher::RUN_MODE_UPGRADE);
    // As after an identification, without the upgrade that follows one in run mode 0.
    child<QGroupBox>(flasher.get(), "loaderGroup")->setEnabled(true);
    auto *bar = child<QProgressBar>(flasher.get(), "progressBar");
    const auto progress = [this](int total, int current) {
        QVERIFY(QMetaObject::invokeMethod(flasher.get(), "worker_progress", Q_ARG(int, total),
                                          Q_ARG(int, current)));
    };
    QVERIFY(deliverFinished(flasher.get(), true, 9));
    progress(3, 2);
    QCOMPARE(bar->value(), 67);
    progress(0, 0); // no usable figure: the bar keeps its value
    QCOMPARE(bar->value(), 67);
    // The dots extend the last line instead of starting new ones.
    QCOMPARE(child<QTextBrowser>(flasher.get(), "logBrowser")->toPlainText(),
             QStringLiteral("Unknown command 9 finished.."));
    QVERIFY(QMetaObject::invokeMethod(flasher.get(), "on_eraseTool_clicked"));
    QCOMPARE(logLines(flasher.get()).last(),
             line(red, "Stub loader is needed for this operation. Load a scatter file first"));

    // An erase enables flashing only with a scatter file loaded.
    auto *flash = child<QPushButton>(flasher.get(), "flashTool");
    QVERIFY(deliverFinished(flasher.get(), true, 7));
    QVERIFY(!flash->isEnabled());
    child<QLineEdit>(flasher.get(), "scatterEdit")->setText("/boards/scatter.txt");
    QVERIFY(deliverFinished(flasher.get(), true, 7));
    QVERIFY(flash->isEnabled());
    QCOMPARE(logLines(flasher.get()).last(), line(green, "Flash memory has been erased"));

    answerer->answerBox(QMessageBox::Ok);
    QSignalSpy finished(flasher.get(), &QDialog::finished);
    QVERIFY(deliverFinished(flasher.get(), true, 1));
    QCOMPARE(logLines(flasher.get()).last(),
             line(green, "Closed connection to " + combo->currentText()));
    QCOMPARE(answerer->last().text, QStringLiteral("Connection closed.\nThe tool will be closed"));
    QVERIFY(finished.wait());
    QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
}

QTEST_MAIN(TestEspFlasherConnect)
#include "tst_espflasher_connect.moc"
