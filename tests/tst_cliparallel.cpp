#include "chipfixture.h"
#include "cliprocess.h"
#include "scattertestfiles.h"

#include "tools/imagegen/espimagebuilder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr quint32 applicationAddress = 0x10000;
// The failing board vanishes after this many received bytes: past the loader (about 10 KiB on
// the wire) and the firmware, inside the application write.
constexpr qint64 vanishAfterBytes = 30000;

QByteArray firmwareImage()
{
    EspImageBuilder builder;
    builder.setFlashMode(2);
    builder.setFlashSize(4);
    builder.setFlashFrequency(0);
    builder.addRandomSegment(0x40100000, 0x1000, 31);
    return builder.build();
}

QByteArray applicationImage()
{
    return EspImageBuilder::application(0x8000, 0, 32);
}

QString writeScatter(const QDir &dir)
{
    writeTestFile(dir, "fw.bin", firmwareImage());
    writeTestFile(dir, "app.bin", applicationImage());
    QFile::copy(generatedStubPath(), dir.absoluteFilePath("loader.elf"));
    const QJsonObject firmware{
        {"type", "firmware"},
        {"address", "0x0"},
        {"file", "fw.bin"},
        {"md5", md5Hex(firmwareImage())},
        {"options",
         QJsonObject{
             {"flash", QJsonObject{{"mode", "dio"}, {"size", "4MB"}, {"frequency", "40m"}}}}}};
    const QJsonObject application{{"type", "application"},
                                  {"address", "0x10000"},
                                  {"file", "app.bin"},
                                  {"md5", md5Hex(applicationImage())}};
    const QJsonObject document{{"chip", "ESP8266EX"},
                               {"stub", "loader.elf"},
                               {"sections", QJsonArray{firmware, application}}};
    return writeTestFile(dir, "scatter.txt", QJsonDocument(document).toJson());
}

// The summary row of one port: "<port>  <chip>  <mac>  <result>".
QString summaryRow(const QString &out, const QString &port)
{
    const QRegularExpression row(QStringLiteral("^%1 +(.*)$").arg(QRegularExpression::escape(port)),
                                 QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = row.match(out);
    return match.hasMatch() ? match.captured(1) : QString();
}

VirtualEsp8266::Config configWithMac(const char *mac)
{
    VirtualEsp8266::Config config;
    config.mac = QByteArray::fromHex(mac);
    return config;
}

} // namespace

class TestCliParallel : public QObject
{
    Q_OBJECT

private slots:
    void oneOfThreeBoardsVanishesMidWrite()
    {
        QTemporaryDir dir;
        const QString scatter = writeScatter(QDir(dir.path()));
        ChipFixture first(configWithMac("18fe34000001"));
        ChipFixture failing(configWithMac("18fe34000002"));
        ChipFixture third(configWithMac("18fe34000003"));
        QVERIFY(first.start() && failing.start() && third.start());
        failing.chip().armVanishAfterBytes(vanishAfterBytes);

        const CliRun run = runCli({"flash", scatter, "--port", first.port(), "--port",
                                   failing.port(), "--port", third.port()});
        QVERIFY2(run.finished, qPrintable(run.transcript()));
        QCOMPARE(run.exitCode, 1);

        const QString firstRow = summaryRow(run.out, first.port());
        const QString failingRow = summaryRow(run.out, failing.port());
        const QString thirdRow = summaryRow(run.out, third.port());
        QVERIFY2(firstRow.contains(QRegularExpression("18FE34000001 +ok \\(2 section")),
                 qPrintable(run.transcript()));
        QVERIFY2(thirdRow.contains(QRegularExpression("18FE34000003 +ok \\(2 section")),
                 qPrintable(run.transcript()));
        QVERIFY2(failingRow.contains(QRegularExpression("18FE34000002 +FAILED: write data")),
                 qPrintable(run.transcript()));

        // Lines of several boards carry their port.
        QVERIFY(run.out.contains(
            QString("[%1] Application has been successfully flashed.").arg(first.port())));
        QVERIFY(run.err.contains(QString("[%1] UBoot operation write data (5) finished with error")
                                     .arg(failing.port())));
        QVERIFY(!run.out.contains(
            QString("[%1] Application has been successfully flashed.").arg(failing.port())));

        QVERIFY(failing.chip().vanished());
        for (ChipFixture *chip : {&first, &third}) {
            QCOMPARE(chip->chip().flash(0, firmwareImage().size()), firmwareImage());
            QCOMPARE(chip->chip().flash(applicationAddress, applicationImage().size()),
                     applicationImage());
        }
        // The failing board got its firmware, but not the whole application.
        QCOMPARE(failing.chip().flash(0, firmwareImage().size()), firmwareImage());
        QVERIFY(failing.chip().flash(applicationAddress, applicationImage().size()) !=
                applicationImage());
    }

    void virtualBoardsInTheProgram()
    {
        const CliRun run = runCli({"info", "--virtual", "3"});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        const QRegularExpression started(QStringLiteral("^Virtual ESP8266 started on (\\S+)$"),
                                         QRegularExpression::MultilineOption);
        QStringList ports;
        for (auto it = started.globalMatch(run.out); it.hasNext();)
            ports << it.next().captured(1);
        QCOMPARE(ports.size(), 3);
        QStringList macs;
        for (const QString &port : ports) {
            const QString row = summaryRow(run.out, port);
            QVERIFY2(row.contains(" ok"), qPrintable(run.transcript()));
            macs << row.section(QRegularExpression(" +"), 3, 3);
        }
        macs.removeDuplicates();
        QCOMPARE(macs.size(), 3);
    }
};

QTEST_GUILESS_MAIN(TestCliParallel)
#include "tst_cliparallel.moc"
