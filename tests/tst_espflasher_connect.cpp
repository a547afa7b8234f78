#include "flashertestkit.h"
#include "ptypair.h"

using namespace FlasherTestKit;

// Choosing a port and connecting where nothing answers; worker results that end no operation.
class TestEspFlasherConnect : public FlasherTest
{
    Q_OBJECT

private slots:
    void autoconnect_data();
    void autoconnect();
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
    QCOMPARE(log().size(), 3);
    QCOMPARE(log().first(), line(amber, "Connecting to " + this->port(port)));
    QVERIFY2(log().at(1).startsWith(line(amber, "Flasher error: ")), qPrintable(log().at(1)));
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
