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
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

namespace {

using Mode = ESPFlasher::RUN_MODE;

// Longest wait for the worker's answer over a pseudo-terminal, in milliseconds; only a fault
// lets it run out.
constexpr int workerAnswerMs = 15000;

// Restores the extra-ports variable when a test ends.
class ExtraPortsGuard
{
public:
    ExtraPortsGuard() : m_saved(qgetenv(QComPort::extraPortsVariable)) {}
    ~ExtraPortsGuard() { qputenv(QComPort::extraPortsVariable, m_saved); }

private:
    QByteArray m_saved;
};

// Publishes pseudo-terminals as ports with USB serial numbers.
void publishPorts(const QVector<QPair<const PtyPair *, QString>> &ports)
{
    QStringList entries;
    for (const auto &port : ports)
        entries << port.first->slavePath() + QLatin1Char('=') + port.second;
    qputenv(QComPort::extraPortsVariable, entries.join(QLatin1Char(':')).toLocal8Bit());
}

bool containsLine(QWidget *flasher, const QString &expected)
{
    return logStrings(flasher).contains(expected);
}

QString connectFailed()
{
    return line(red, "UBoot operation connect (0) finished with error");
}

} // namespace

class TestEspFlasherConnect : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void portsForSerialMatchesExactly();
    void guessPicksFirstMatch();
    void autoconnectWithoutMatch_data();
    void autoconnectWithoutMatch();
    void autoconnectOneMatch_data();
    void autoconnectOneMatch();
    void autoconnectTwoMatchesStandalone();
    void autoconnectTwoMatchesUpgrade_data();
    void autoconnectTwoMatchesUpgrade();
    void manualConnectToSilentPort();

    void connectIdentifiesVirtualChip();
    void silentChipFails_data();
    void silentChipFails();
    void upgradeModeAsksForScatterAfterIdentification();
    void unidentifiedChipIsDisconnected_data();
    void unidentifiedChipIsDisconnected();
    void disconnectClosesUpgradeTool();

    void failedCommands_data();
    void failedCommands();
    void progressDrawsDots_data();
    void progressDrawsDots();
    void workerErrorsAreNotices();

private:
    ESPFlasher *makeFlasher(Mode mode);
    void selectPort(const QString &port);

    ExtraPortsGuard guard;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ESPFlasher> flasher;
    QComboBox *combo = nullptr;
};

void TestEspFlasherConnect::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
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
    answerer.reset();
}

ESPFlasher *TestEspFlasherConnect::makeFlasher(Mode mode)
{
    flasher = std::make_unique<ESPFlasher>(mode, nullptr);
    combo = child<QComboBox>(flasher.get(), "comPortCombo");
    return flasher.get();
}

void TestEspFlasherConnect::selectPort(const QString &port)
{
    child<QToolButton>(flasher.get(), "comPortScanTool")->click();
    combo->setCurrentText(port);
    QCOMPARE(combo->currentText(), port);
}

void TestEspFlasherConnect::portsForSerialMatchesExactly()
{
    PtyPair a, b, c, d;
    publishPorts({{&a, "SER-1"}, {&b, "OTHER"}, {&c, "SER-1"}, {&d, "ser-1"}});
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    QCOMPARE(flasher->portsForSerial("SER-1"), (QStringList{a.slavePath(), c.slavePath()}));
    QCOMPARE(flasher->portsForSerial("ser-1"), QStringList{d.slavePath()});
    QCOMPARE(flasher->portsForSerial("SER"), QStringList());
    // Ports without a serial number do not match a host that has none.
    QCOMPARE(flasher->portsForSerial(QString()), QStringList());
}

void TestEspFlasherConnect::guessPicksFirstMatch()
{
    PtyPair a, b, c;
    publishPorts({{&a, "OTHER"}, {&b, "SER-2"}, {&c, "SER-2"}});
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    selectPort(a.slavePath());

    flasher->guess("NOPE");
    QCOMPARE(combo->currentText(), a.slavePath());
    flasher->guess("SER-2");
    QCOMPARE(combo->currentText(), b.slavePath());
    QVERIFY(logLines(flasher.get()).isEmpty());
}

void TestEspFlasherConnect::autoconnectWithoutMatch_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("upgrade") << int(ESPFlasher::RUN_MODE_UPGRADE);
    QTest::newRow("standalone") << int(ESPFlasher::RUN_MODE_STANDALONE);
}

void TestEspFlasherConnect::autoconnectWithoutMatch()
{
    QFETCH(int, mode);
    PtyPair a;
    publishPorts({{&a, "SER-1"}});
    makeFlasher(Mode(mode));
    QVERIFY(!flasher->autoconnect("SER-9"));
    QVERIFY(logLines(flasher.get()).isEmpty());
    QVERIFY(answerer->seen().isEmpty());
    QVERIFY(a.readMaster(100).isEmpty());
}

void TestEspFlasherConnect::autoconnectOneMatch_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("upgrade") << int(ESPFlasher::RUN_MODE_UPGRADE);
    QTest::newRow("standalone") << int(ESPFlasher::RUN_MODE_STANDALONE);
    QTest::newRow("another non-upgrade value") << 7;
}

void TestEspFlasherConnect::autoconnectOneMatch()
{
    QFETCH(int, mode);
    PtyPair other, board;
    publishPorts({{&other, "OTHER"}, {&board, "SER-1"}});
    makeFlasher(Mode(mode));
    const bool upgrade = mode == ESPFlasher::RUN_MODE_UPGRADE;
    if (upgrade)
        answerer->answerBox(QMessageBox::Ok);
    QSignalSpy finished(flasher.get(), &QDialog::finished);

    QVERIFY(flasher->autoconnect("SER-1"));
    QCOMPARE(combo->currentText(), board.slavePath());
    // Unlike a manual connect, the port list stays enabled.
    QVERIFY(combo->isEnabled());
    QCOMPARE(logStrings(flasher.get()),
             QStringList{line(amber, "Connecting to " + board.slavePath())});

    // The worker talks to that port (a SLIP frame arrives), and nothing answers.
    const QByteArray sent = board.readMaster(workerAnswerMs);
    QVERIFY(!sent.isEmpty());
    QCOMPARE(sent.at(0), '\xC0');
    QVERIFY(other.readMaster(0).isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(containsLine(flasher.get(), connectFailed()), workerAnswerMs);

    if (upgrade) {
        QVERIFY(finished.wait(workerAnswerMs));
        QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
        QCOMPARE(answerer->last().text,
                 QStringLiteral("UBoot operation failure.\nThe tool will be closed"));
        QCOMPARE(answerer->last().className, QStringLiteral("QAutoCloseMessageBox"));
    } else {
        QVERIFY(!finished.wait(300));
    }
}

void TestEspFlasherConnect::autoconnectTwoMatchesStandalone()
{
    PtyPair a, b;
    publishPorts({{&a, "SER-2"}, {&b, "SER-2"}});
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    const QString before = combo->currentText();
    QVERIFY(!flasher->autoconnect("SER-2"));
    QVERIFY(answerer->seen().isEmpty());
    QVERIFY(logLines(flasher.get()).isEmpty());
    QCOMPARE(combo->currentText(), before);
}

void TestEspFlasherConnect::autoconnectTwoMatchesUpgrade_data()
{
    QTest::addColumn<bool>("choose");
    QTest::newRow("second port chosen") << true;
    QTest::newRow("cancelled") << false;
}

void TestEspFlasherConnect::autoconnectTwoMatchesUpgrade()
{
    QFETCH(bool, choose);
    PtyPair a, other, b;
    publishPorts({{&a, "SER-2"}, {&other, "SER-3"}, {&b, "SER-2"}});
    makeFlasher(ESPFlasher::RUN_MODE_UPGRADE);
    if (choose) {
        answerer->answerInput(b.slavePath());
        answerer->answerBox(QMessageBox::Ok); // the failure of the silent port
    } else {
        answerer->cancelInput();
    }

    QCOMPARE(flasher->autoconnect("SER-2"), choose);
    const ModalAnswerer::Seen prompt = answerer->seen().first();
    QCOMPARE(prompt.className, QStringLiteral("QInputDialog"));
    QCOMPARE(prompt.title, QStringLiteral("Select port"));
    QCOMPARE(prompt.text, QStringLiteral("SER-2 port:"));
    QCOMPARE(prompt.items, (QStringList{a.slavePath(), b.slavePath()}));

    if (!choose) {
        QVERIFY(logLines(flasher.get()).isEmpty());
        QVERIFY(a.readMaster(100).isEmpty() && b.readMaster(0).isEmpty());
        return;
    }
    QCOMPARE(combo->currentText(), b.slavePath());
    QCOMPARE(logStrings(flasher.get()).first(), line(amber, "Connecting to " + b.slavePath()));
    QVERIFY(!b.readMaster(workerAnswerMs).isEmpty());
    QVERIFY(a.readMaster(0).isEmpty());
    QSignalSpy finished(flasher.get(), &QDialog::finished);
    QVERIFY(finished.wait(workerAnswerMs));
}

void TestEspFlasherConnect::manualConnectToSilentPort()
{
    PtyPair board;
    publishPorts({{&board, "SER-1"}});
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    selectPort(board.slavePath());

    child<QPushButton>(flasher.get(), "comPortConnect")->click();
    QVERIFY(!combo->isEnabled());
    QCOMPARE(logStrings(flasher.get()),
             QStringList{line(amber, "Connecting to " + board.slavePath())});
    QVERIFY(!board.readMaster(workerAnswerMs).isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(containsLine(flasher.get(), connectFailed()), workerAnswerMs);

    // The worker's reason comes first, the failure line last; nothing else changes.
    const QStringList lines = logStrings(flasher.get());
    QCOMPARE(lines.last(), connectFailed());
    QVERIFY2(lines.at(lines.size() - 2).startsWith(line(amber, "Flasher error: ")),
             qPrintable(lines.join('\n')));
    QVERIFY(!combo->isEnabled());
    QVERIFY(child<QPushButton>(flasher.get(), "comPortConnect")->isEnabled());
    QCOMPARE(child<QPushButton>(flasher.get(), "comPortConnect")->text(),
             QStringLiteral("Connect"));
    QVERIFY(!child<QGroupBox>(flasher.get(), "infoGroup")->isEnabled());
}

void TestEspFlasherConnect::connectIdentifiesVirtualChip()
{
    VirtualEsp8266::Config config;
    config.mac = QByteArray::fromHex("18fe34123456");
    ChipFixture fixture(config);
    QVERIFY2(fixture.start(), qPrintable(fixture.chip().errorString()));
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    selectPort(fixture.port());

    child<QPushButton>(flasher.get(), "comPortConnect")->click();
    QTRY_VERIFY_WITH_TIMEOUT(containsLine(flasher.get(), line(green, "Retrieved chip info")),
                             workerAnswerMs);

    const std::array<quint32, 4> words = VirtualEsp8266::efuseWordsFor(config);
    const quint32 chipId = (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8);
    QCOMPARE(logStrings(flasher.get()),
             (QStringList{line(amber, "Connecting to " + fixture.port()),
                          line(green, "Connected to ESP UBoot via " + fixture.port()),
                          line(green, "Retrieved chip info")}));
    QCOMPARE(child<QLineEdit>(flasher.get(), "chipIDField")->text(),
             QStringLiteral("ESP8266EX / %1").arg(chipId, 8, 16, QLatin1Char('0')));
    QCOMPARE(child<QLineEdit>(flasher.get(), "macField")->text(), QStringLiteral("18FE34123456"));
    const QString flashId = child<QLineEdit>(flasher.get(), "flashIDField")->text();
    QVERIFY2(flashId.contains("(0xef:0x4016)"), qPrintable(flashId));

    QVERIFY(child<QGroupBox>(flasher.get(), "infoGroup")->isEnabled());
    QVERIFY(child<QGroupBox>(flasher.get(), "loaderGroup")->isEnabled());
    auto *connectButton = child<QPushButton>(flasher.get(), "comPortConnect");
    QCOMPARE(connectButton->text(), QStringLiteral("Disconnect"));
    QVERIFY(!connectButton->isEnabled());
    QVERIFY(!child<QToolButton>(flasher.get(), "comPortScanTool")->isEnabled());
    QVERIFY(!child<QComboBox>(flasher.get(), "baudRateCombo")->isEnabled());

    // The flash size guessed from the flash ID stands in when a scatter has no firmware row.
    QCOMPARE(flasher->getScatterFlashSize(), QStringLiteral("4Mb"));
}

void TestEspFlasherConnect::silentChipFails_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("upgrade") << int(ESPFlasher::RUN_MODE_UPGRADE);
    QTest::newRow("standalone") << int(ESPFlasher::RUN_MODE_STANDALONE);
}

void TestEspFlasherConnect::silentChipFails()
{
    QFETCH(int, mode);
    ChipFixture fixture;
    QVERIFY(fixture.start());
    fixture.chip().armSilence(0);
    makeFlasher(Mode(mode));
    selectPort(fixture.port());
    const bool upgrade = mode == ESPFlasher::RUN_MODE_UPGRADE;
    if (upgrade)
        answerer->answerBox(QMessageBox::Ok);
    QSignalSpy finished(flasher.get(), &QDialog::finished);

    child<QPushButton>(flasher.get(), "comPortConnect")->click();
    QTRY_VERIFY_WITH_TIMEOUT(containsLine(flasher.get(), connectFailed()), workerAnswerMs);
    QVERIFY(fixture.chip().counters().bytesIn > 0);
    QVERIFY(child<QLineEdit>(flasher.get(), "chipIDField")->text().isEmpty());
    QVERIFY(!child<QGroupBox>(flasher.get(), "loaderGroup")->isEnabled());
    if (upgrade) {
        QVERIFY(finished.wait(workerAnswerMs));
        QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
    }
}

// Run mode 0: an identified chip goes straight on to choosing a scatter file.
void TestEspFlasherConnect::upgradeModeAsksForScatterAfterIdentification()
{
    ChipFixture fixture;
    QVERIFY(fixture.start());
    makeFlasher(ESPFlasher::RUN_MODE_UPGRADE);
    answerer->answerFile(QString());
    answerer->answerBox(QMessageBox::Ok);
    QSignalSpy finished(flasher.get(), &QDialog::finished);

    selectPort(fixture.port());
    child<QPushButton>(flasher.get(), "comPortConnect")->click();
    QVERIFY(finished.wait(workerAnswerMs));
    QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));

    QCOMPARE(answerer->seen().size(), 2);
    QCOMPARE(answerer->seen().first().title, QStringLiteral("Select scatter file"));
    QCOMPARE(answerer->last().text, QStringLiteral("Upgrade cancelled.\nThe tool will be closed"));
    QVERIFY(containsLine(flasher.get(), line(green, "Retrieved chip info")));
}

void TestEspFlasherConnect::unidentifiedChipIsDisconnected_data()
{
    QTest::addColumn<int>("items");
    QTest::newRow("4 items") << 4;
    QTest::newRow("6 items") << 6;
}

// A "get info" result of the wrong length: the chip counts as unknown and is let go.
void TestEspFlasherConnect::unidentifiedChipIsDisconnected()
{
    QFETCH(int, items);

    ChipFixture fixture;
    QVERIFY(fixture.start());
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    selectPort(fixture.port());
    child<QPushButton>(flasher.get(), "comPortConnect")->click();
    QTRY_VERIFY_WITH_TIMEOUT(containsLine(flasher.get(), line(green, "Retrieved chip info")),
                             workerAnswerMs);

    QVariantList info = chipInfo();
    while (info.size() > items)
        info.removeLast();
    while (info.size() < items)
        info.append(QStringLiteral("extra"));
    QVERIFY(deliverFinished(flasher.get(), true, 3, info));
    QCOMPARE(logStrings(flasher.get()).last(), line(amber, "Chip could not be identified"));

    // The worker disconnects and the dialog returns to its disconnected state.
    const QString closed = line(green, "Closed connection to " + fixture.port());
    QTRY_VERIFY_WITH_TIMEOUT(containsLine(flasher.get(), closed), workerAnswerMs);
    QCOMPARE(logStrings(flasher.get()).last(), closed);
    QVERIFY(child<QLineEdit>(flasher.get(), "chipIDField")->text().isEmpty());
    QVERIFY(child<QLineEdit>(flasher.get(), "macField")->text().isEmpty());
    QVERIFY(child<QLineEdit>(flasher.get(), "flashIDField")->text().isEmpty());
    QVERIFY(combo->isEnabled());
    auto *connectButton = child<QPushButton>(flasher.get(), "comPortConnect");
    QCOMPARE(connectButton->text(), QStringLiteral("Connect"));
    QVERIFY(connectButton->isEnabled());

    // The port is free again: a new connect reaches the chip.
    connectButton->click();
    QTRY_VERIFY_WITH_TIMEOUT(logStrings(flasher.get()).last() == line(green, "Retrieved chip info"),
                             workerAnswerMs);
}

void TestEspFlasherConnect::disconnectClosesUpgradeTool()
{
    makeFlasher(ESPFlasher::RUN_MODE_UPGRADE);
    child<QLineEdit>(flasher.get(), "chipIDField")->setText("ESP8266EX / 00a1b2c3");
    answerer->answerBox(QMessageBox::Ok);
    QSignalSpy finished(flasher.get(), &QDialog::finished);
    QVERIFY(deliverFinished(flasher.get(), true, 1));
    QCOMPARE(logStrings(flasher.get()),
             QStringList{line(green, "Closed connection to " + combo->currentText())});
    QVERIFY(child<QLineEdit>(flasher.get(), "chipIDField")->text().isEmpty());
    QCOMPARE(answerer->last().text, QStringLiteral("Connection closed.\nThe tool will be closed"));
    QVERIFY(finished.wait());
    QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
}

void TestEspFlasherConnect::failedCommands_data()
{
    QTest::addColumn<int>("command");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("mode");
    const char *const names[] = {"connect",   "disconnect",     "load stub",
                                 "get info",  "write firmware", "write data",
                                 "read data", "erase flash",    "flash md5"};
    for (int command = 0; command < 9; ++command) {
        QTest::addRow("%s", names[command]) << command << QString::fromLatin1(names[command])
                                            << int(ESPFlasher::RUN_MODE_STANDALONE);
    }
    QTest::newRow("unknown code") << 12 << "unknown" << int(ESPFlasher::RUN_MODE_STANDALONE);
    QTest::newRow("upgrade mode") << 4 << "write firmware" << int(ESPFlasher::RUN_MODE_UPGRADE);
}

void TestEspFlasherConnect::failedCommands()
{
    QFETCH(int, command);
    QFETCH(QString, name);
    QFETCH(int, mode);

    makeFlasher(Mode(mode));
    const bool upgrade = mode == ESPFlasher::RUN_MODE_UPGRADE;
    if (upgrade)
        answerer->answerBox(QMessageBox::Ok);
    QSignalSpy finished(flasher.get(), &QDialog::finished);
    QVERIFY(deliverFinished(flasher.get(), false, command));
    QCOMPARE(
        logStrings(flasher.get()),
        QStringList{line(
            red,
            QStringLiteral("UBoot operation %1 (%2) finished with error").arg(name).arg(command))});
    if (upgrade) {
        QCOMPARE(answerer->last().text,
                 QStringLiteral("UBoot operation failure.\nThe tool will be closed"));
        // The failure box counts down ten seconds on its OK button.
        QCOMPARE(answerer->last().defaultButton, QStringLiteral("OK (10)"));
        QCOMPARE(answerer->last().title, QStringLiteral("Brimcote ESP Utility"));
        QVERIFY(finished.wait());
        QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
    } else {
        QVERIFY(answerer->seen().isEmpty());
    }
}

void TestEspFlasherConnect::progressDrawsDots_data()
{
    QTest::addColumn<int>("total");
    QTest::addColumn<int>("current");
    QTest::addColumn<int>("percent");
    QTest::newRow("quarter") << 200 << 50 << 25;
    QTest::newRow("rounded") << 3 << 2 << 67;
    QTest::newRow("half rounds up") << 8 << 1 << 13;
    QTest::newRow("done") << 4096 << 4096 << 100;
    QTest::newRow("zero total keeps the bar") << 0 << 0 << 40;
    QTest::newRow("zero total, some done") << 0 << 5 << 40;
}

void TestEspFlasherConnect::progressDrawsDots()
{
    QFETCH(int, total);
    QFETCH(int, current);
    QFETCH(int, percent);

    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    auto *bar = child<QProgressBar>(flasher.get(), "progressBar");
    bar->setValue(40);
    QVERIFY(deliverFinished(flasher.get(), true, 9));
    const auto progress = [this](int t, int c) {
        return QMetaObject::invokeMethod(flasher.get(), "worker_progress", Qt::DirectConnection,
                                         Q_ARG(int, t), Q_ARG(int, c));
    };
    QVERIFY(progress(total, current));
    QVERIFY(progress(total, current));
    QCOMPARE(bar->value(), percent);
    // The dots extend the last line instead of starting new ones.
    QCOMPARE(logStrings(flasher.get()), QStringList{line(amber, "Unknown command 9 finished..")});
}

void TestEspFlasherConnect::workerErrorsAreNotices()
{
    makeFlasher(ESPFlasher::RUN_MODE_UPGRADE);
    QVERIFY(QMetaObject::invokeMethod(flasher.get(), "worker_error", Qt::DirectConnection,
                                      Q_ARG(QString, QStringLiteral("esptool failed: x (1)"))));
    QCOMPARE(logStrings(flasher.get()),
             QStringList{line(amber, "Flasher error: esptool failed: x (1)")});
    QVERIFY(answerer->seen().isEmpty());
}

QTEST_MAIN(TestEspFlasherConnect)
#include "tst_espflasher_connect.moc"
