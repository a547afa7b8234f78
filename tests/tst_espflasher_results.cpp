#include "flasher/espflasher.h"

#include "flashertestkit.h"
#include "modalanswerer.h"

#include <QGroupBox>
#include <QLineEdit>
#include <QPushButton>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

// Worker results delivered to the dialog as the worker delivers them, for the outcomes that a
// virtual chip does not readily produce.
class TestEspFlasherResults : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void md5Results_data();
    void md5Results();
    void eraseEnablesFlashingWithAScatterOnly_data();
    void eraseEnablesFlashingWithAScatterOnly();
    void stubLoadedWithNothingToContinue();

private:
    void enableGroups();

    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ESPFlasher> flasher;
};

void TestEspFlasherResults::init()
{
    answerer = std::make_unique<ModalAnswerer>();
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_UPGRADE, nullptr);
    enableGroups();
}

// As after an identification, without the upgrade that follows one in run mode 0.
void TestEspFlasherResults::enableGroups()
{
    child<QGroupBox>(flasher.get(), "infoGroup")->setEnabled(true);
    child<QGroupBox>(flasher.get(), "loaderGroup")->setEnabled(true);
}

void TestEspFlasherResults::cleanup()
{
    // None of these results ends an operation with a message box, even in run mode 0.
    QCOMPARE(answerer->unexpected(), QStringList());
    QVERIFY(answerer->seen().isEmpty());
    flasher.reset();
    answerer.reset();
}

void TestEspFlasherResults::md5Results_data()
{
    QTest::addColumn<QVariantList>("results");
    QTest::addColumn<QString>("logged");
    const QString digest = QStringLiteral("0123456789ABCDEF0123456789ABCDEF");
    QTest::newRow("digest only") << QVariantList{digest} << line(green, "MD5: " + digest);
    QTest::newRow("as expected") << QVariantList{digest, digest}
                                 << line(green, "Checksum verified (MD5: " + digest + ")");
    QTest::newRow("letter case differs") << QVariantList{digest, digest.toLower()}
                                         << line(green, "Checksum verified (MD5: " + digest + ")");
    QTest::newRow("different") << QVariantList{digest, QString(32, '0')}
                               << line(red, "Checksum verification failed (" + digest + " vs " +
                                                QString(32, '0') + ")");
    QTest::newRow("no digest") << QVariantList{} << line(amber, "MD5 could not be computed");
    QTest::newRow("three items") << QVariantList{digest, digest, digest}
                                 << line(amber, "MD5 could not be computed");
}

void TestEspFlasherResults::md5Results()
{
    QFETCH(QVariantList, results);
    QFETCH(QString, logged);
    QVERIFY(deliverFinished(flasher.get(), true, 8, results));
    QCOMPARE(logStrings(flasher.get()), QStringList{logged});
}

void TestEspFlasherResults::eraseEnablesFlashingWithAScatterOnly_data()
{
    QTest::addColumn<QString>("scatter");
    QTest::newRow("scatter loaded") << "/boards/scatter.txt";
    QTest::newRow("nothing loaded") << "";
}

void TestEspFlasherResults::eraseEnablesFlashingWithAScatterOnly()
{
    QFETCH(QString, scatter);
    child<QLineEdit>(flasher.get(), "scatterEdit")->setText(scatter);
    auto *flash = child<QPushButton>(flasher.get(), "flashTool");
    QVERIFY(!flash->isEnabled());
    QVERIFY(deliverFinished(flasher.get(), true, 7));
    QCOMPARE(logStrings(flasher.get()), QStringList{line(green, "Flash memory has been erased.")});
    QCOMPARE(flash->isEnabled(), !scatter.isEmpty());
}

// A "load stub" result that no run waits for only marks the loader as running; the empty
// table gives a run nothing to walk.
void TestEspFlasherResults::stubLoadedWithNothingToContinue()
{
    // Run mode 1: the end of the run below shows no box.
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    enableGroups();
    auto *stubTool = child<QToolButton>(flasher.get(), "stubSelTool");
    QVERIFY(stubTool->isEnabled());
    QVERIFY(deliverFinished(flasher.get(), true, 2));
    QCOMPARE(logStrings(flasher.get()), QStringList{line(green, "Flash stub loaded")});
    QVERIFY(!stubTool->isEnabled());

    // The loader now runs: a flash click walks the (empty) table at once.
    QVERIFY(QMetaObject::invokeMethod(flasher.get(), "on_flashTool_clicked", Qt::DirectConnection));
    QCOMPARE(logStrings(flasher.get()).last(), line(green, "Finished flashing package"));
}

QTEST_MAIN(TestEspFlasherResults)
#include "tst_espflasher_results.moc"
