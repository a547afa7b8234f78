#include "bench/endtoendbench.h"

#include "bench/chipprocess.h"

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QLibraryInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTimer>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int imageSize = 1024 * 1024;
constexpr int changedSector = 0x80000; // the sector a re-flash finds changed
constexpr int sectorSize = 4096;
constexpr int bitsPerByte = 10;         // 8N1
constexpr int runLimitMs = 300000;      // a run still going after this has hung
constexpr double dataPhaseLimit = 1.05; // our write's data phase over its line-rate bound
constexpr double readRateTarget = 0.97; // our read's payload rate over the line rate
const QString peerVersion = QStringLiteral("0.7.0");
const QString readDoneLine = QStringLiteral("Flash memory section has been successfully read.");
const QString readScatter = QStringLiteral("read/out.txt");
const QString readRegion = QStringLiteral("read/region-00000000-00100000.bin");

QByteArray md5(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

QString lastLine(const QByteArray &output)
{
    const QList<QByteArray> lines = output.trimmed().split('\n');
    return QString::fromLocal8Bit(lines.isEmpty() ? QByteArray() : lines.last()).trimmed();
}

// Runs `process` until it ends (or hangs); the time it ended on `clock`, -1 when it hung.
qint64 runToEnd(QProcess &process, const QElapsedTimer &clock)
{
    qint64 endedNs = -1;
    QEventLoop loop;
    QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop,
                     [&] {
                         endedNs = clock.nsecsElapsed();
                         loop.quit();
                     });
    QObject::connect(&process, &QProcess::errorOccurred, &loop, [&](QProcess::ProcessError e) {
        if (e == QProcess::FailedToStart)
            loop.quit();
    });
    QTimer::singleShot(runLimitMs, &loop, &QEventLoop::quit);
    loop.exec();
    if (endedNs < 0) {
        process.kill();
        process.waitForFinished();
    }
    return endedNs;
}

} // namespace

EndToEndBench::EndToEndBench(const Setup &setup) : m_setup(setup)
{
    m_clock.start();
}

QByteArray EndToEndBench::firmwareLikeImage(QString *error)
{
    const QString path =
        QLibraryInfo::location(QLibraryInfo::LibrariesPath) + QStringLiteral("/libQt5Core.so.5");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return QByteArray();
    }
    const QByteArray image = file.read(imageSize);
    if (image.size() != imageSize) {
        *error = QStringLiteral("%1 is shorter than 1 MiB").arg(path);
        return QByteArray();
    }
    return image;
}

double EndToEndBench::median(QList<double> values)
{
    if (values.isEmpty())
        return 0;
    std::sort(values.begin(), values.end());
    const int middle = values.size() / 2;
    return values.size() % 2 ? values.at(middle) : (values.at(middle - 1) + values.at(middle)) / 2;
}

QString EndToEndBench::saveFile(const QString &name, const QByteArray &bytes)
{
    const QString path = m_setup.workDir + QLatin1Char('/') + name;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return QString();
    return path;
}

QString EndToEndBench::peerUnavailableReason() const
{
    if (QStandardPaths::findExecutable(QStringLiteral("node")).isEmpty())
        return QStringLiteral("node is not installed");
    QFile package(m_setup.peerModules + QStringLiteral("/esptool-js/package.json"));
    if (!package.open(QIODevice::ReadOnly))
        return QStringLiteral("esptool-js is not installed in %1").arg(m_setup.peerModules);
    if (!package.readAll().contains(
            QStringLiteral("\"version\": \"%1\"").arg(peerVersion).toUtf8()))
        return QStringLiteral("%1 holds another esptool-js than %2")
            .arg(m_setup.peerModules, peerVersion);
    return QString();
}

bool EndToEndBench::checkDump(const QString &dump, Run *run)
{
    QFile file(dump);
    if (!file.open(QIODevice::ReadOnly) || md5(file.read(imageSize)) != md5(m_image)) {
        run->failure = QStringLiteral("the chip's flash does not hold the image");
        return false;
    }
    return true;
}

void EndToEndBench::dataPhase(const ChipProcess &chip, Operation operation, qint64 readDoneNs,
                              Run *run)
{
    const QVector<ChipProcess::Line> &lines = chip.lines();
    if (operation == Operation::Read) {
        for (const ChipProcess::Line &line : lines) {
            if (line.text.startsWith(QLatin1String("READ_FLASH ")) && readDoneNs > line.atNs)
                run->dataSeconds = (readDoneNs - line.atNs) / 1e9;
        }
        return;
    }
    // From the compressed write's begin to its last block, as the chip handled them.
    static const QRegularExpression wire(QStringLiteral(" wire=(\\d+) "));
    int begin = -1;
    for (int i = 0; i < lines.size(); ++i) {
        if (lines.at(i).text.startsWith(QLatin1String("FLASH_DEFL_BEGIN ")))
            begin = i;
    }
    if (begin < 0)
        return;
    for (int i = begin + 1; i < lines.size(); ++i) {
        if (!lines.at(i).text.startsWith(QLatin1String("FLASH_DEFL_DATA ")))
            continue;
        run->wireBytes += wire.match(lines.at(i).text).captured(1).toLongLong();
        run->dataSeconds = (lines.at(i).atNs - lines.at(begin).atNs) / 1e9;
    }
}

EndToEndBench::Run EndToEndBench::runOurs(Operation operation, unsigned int baud)
{
    Run run;
    const QString dump = m_setup.workDir + QStringLiteral("/dump.bin");
    QFile::remove(dump);
    QStringList chipArguments{QStringLiteral("--throttle"), QStringLiteral("--boot-mode"),
                              QStringLiteral("download"), QStringLiteral("--dump"), dump};
    if (operation != Operation::FreshWrite)
        chipArguments << QStringLiteral("--load")
                      << QStringLiteral("0:") +
                             (operation == Operation::Reflash ? m_changedPath : m_imagePath);
    ChipProcess chip(m_setup.chipProgram, chipArguments, &m_clock);
    if (!chip.start()) {
        run.failure = chip.errorString();
        return run;
    }
    const QString port = chip.devicePath();
    QStringList arguments;
    if (operation == Operation::Read) {
        QDir(m_setup.workDir + QStringLiteral("/read")).removeRecursively();
        arguments << QStringLiteral("read") << QStringLiteral("--scatter")
                  << m_setup.workDir + QLatin1Char('/') + readScatter
                  << QStringLiteral("0x0:0x%1").arg(imageSize, 0, 16);
    } else {
        arguments << QStringLiteral("write") << QStringLiteral("0x0") << m_imagePath;
    }
    // The chip is in its boot loader already, and its reset lines do not reach another process.
    arguments << QStringLiteral("--port") << port << QStringLiteral("--baud")
              << QString::number(baud) << QStringLiteral("--before") << QStringLiteral("no-reset")
              << QStringLiteral("--after") << QStringLiteral("stay") << QStringLiteral("--stub")
              << m_setup.stubPath;

    QProcess cli;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ESP_UTILITY_EXTRA_PORTS"), port);
    cli.setProcessEnvironment(environment);
    qint64 readDoneNs = -1;
    QByteArray output;
    QObject::connect(&cli, &QProcess::readyReadStandardOutput, &cli, [&] {
        const qint64 now = m_clock.nsecsElapsed();
        while (cli.canReadLine()) {
            const QByteArray line = cli.readLine();
            output += line;
            if (QString::fromLocal8Bit(line).trimmed() == readDoneLine)
                readDoneNs = now;
        }
    });
    const qint64 startedNs = m_clock.nsecsElapsed();
    cli.start(m_setup.cliProgram, arguments);
    const qint64 endedNs = runToEnd(cli, m_clock);
    output += cli.readAllStandardOutput();
    const QByteArray errors = cli.readAllStandardError();
    const bool chipEnded = chip.stop();
    if (endedNs < 0) {
        run.failure = QStringLiteral("esp-utility did not finish");
        return run;
    }
    run.seconds = (endedNs - startedNs) / 1e9;
    if (cli.exitStatus() != QProcess::NormalExit || cli.exitCode() != 0) {
        run.failure = QStringLiteral("esp-utility failed: %1")
                          .arg(lastLine(errors.isEmpty() ? output : errors));
        return run;
    }
    if (operation == Operation::Read) {
        QFile region(m_setup.workDir + QLatin1Char('/') + readRegion);
        if (!region.open(QIODevice::ReadOnly) || md5(region.readAll()) != md5(m_image)) {
            run.failure = QStringLiteral("the file read back does not hold the image");
            return run;
        }
    } else if (!chipEnded || !checkDump(dump, &run)) {
        if (run.failure.isEmpty())
            run.failure = QStringLiteral("the chip did not write its flash out");
        return run;
    }
    dataPhase(chip, operation, readDoneNs, &run);
    run.ok = true;
    return run;
}

EndToEndBench::Run EndToEndBench::runPeer(Operation operation, unsigned int baud)
{
    Run run;
    const QString dump = m_setup.workDir + QStringLiteral("/dump.bin");
    QFile::remove(dump);
    QStringList chipArguments{QStringLiteral("--throttle"), QStringLiteral("--boot-mode"),
                              QStringLiteral("download"),   QStringLiteral("--quiet"),
                              QStringLiteral("--dump"),     dump};
    if (operation == Operation::Read)
        chipArguments << QStringLiteral("--load") << QStringLiteral("0:") + m_imagePath;
    ChipProcess chip(m_setup.chipProgram, chipArguments);
    if (!chip.start()) {
        run.failure = chip.errorString();
        return run;
    }
    QStringList arguments{m_setup.peerScript,    QStringLiteral("--modules"),
                          m_setup.peerModules,   QStringLiteral("--port"),
                          chip.devicePath(),     QStringLiteral("--baud"),
                          QString::number(baud), QStringLiteral("--op")};
    if (operation == Operation::Read)
        arguments << QStringLiteral("read") << QStringLiteral("--size")
                  << QString::number(imageSize) << QStringLiteral("--expect")
                  << QString::fromLatin1(md5(m_image).toHex());
    else
        arguments << QStringLiteral("write") << QStringLiteral("--file") << m_imagePath;
    QProcess node;
    node.start(QStringLiteral("node"), arguments);
    const qint64 endedNs = runToEnd(node, m_clock);
    const QByteArray output = node.readAllStandardOutput();
    const QByteArray errors = node.readAllStandardError();
    const bool chipEnded = chip.stop();
    static const QRegularExpression seconds(QStringLiteral("^seconds=([0-9.]+)$"),
                                            QRegularExpression::MultilineOption);
    const auto match = seconds.match(QString::fromLocal8Bit(output));
    if (endedNs < 0 || node.exitCode() != 0 || !match.hasMatch()) {
        run.failure = QStringLiteral("esptool-js failed: %1")
                          .arg(lastLine(errors.isEmpty() ? output : errors));
        return run;
    }
    run.seconds = match.captured(1).toDouble();
    if (operation != Operation::Read && (!chipEnded || !checkDump(dump, &run)))
        return run;
    run.ok = true;
    return run;
}

bool EndToEndBench::run()
{
    QString error;
    m_image = firmwareLikeImage(&error);
    QByteArray changed = m_image;
    for (int i = changedSector; i < changedSector + sectorSize; ++i)
        changed[i] = char(changed.at(i) ^ 0x5A);
    m_imagePath = m_image.isEmpty() ? QString() : saveFile(QStringLiteral("image.bin"), m_image);
    m_changedPath = saveFile(QStringLiteral("changed.bin"), changed);
    if (m_imagePath.isEmpty() || m_changedPath.isEmpty()) {
        fprintf(stderr, "esp-bench: %s\n",
                qPrintable(error.isEmpty() ? QStringLiteral("cannot write the images") : error));
        return false;
    }
    m_peerMissing = peerUnavailableReason();

    struct Row
    {
        const char *name;
        Operation operation;
        unsigned int baud;
        double target; // ours over the peer's, at most
        QList<double> ours, peer, dataSeconds;
        QList<qint64> wireBytes;
        QStringList failures;
    };
    QList<Row> rows{
        {"fresh write, 1 MiB", Operation::FreshWrite, 921600, 0.9, {}, {}, {}, {}, {}},
        {"fresh write, 1 MiB", Operation::FreshWrite, 115200, 1.0, {}, {}, {}, {}, {}},
        {"re-flash, 1 sector changed", Operation::Reflash, 921600, 0.3, {}, {}, {}, {}, {}},
        {"read, 1 MiB", Operation::Read, 921600, 1.0, {}, {}, {}, {}, {}}};
    if (m_setup.quick)
        rows.removeAt(1);

    for (int repetition = 0; repetition < m_setup.repetitions; ++repetition) {
        for (Row &row : rows) {
            const Run ours = runOurs(row.operation, row.baud);
            if (ours.ok) {
                row.ours << ours.seconds;
                if (ours.dataSeconds > 0) {
                    row.dataSeconds << ours.dataSeconds;
                    row.wireBytes << ours.wireBytes;
                }
            } else {
                row.failures << QStringLiteral("ours: ") + ours.failure;
            }
            // The re-flash is held against the peer's fresh write.
            if (!m_peerMissing.isEmpty() || row.operation == Operation::Reflash)
                continue;
            const Run peer = runPeer(row.operation, row.baud);
            if (peer.ok)
                row.peer << peer.seconds;
            else
                row.failures << QStringLiteral("esptool-js: ") + peer.failure;
        }
        fprintf(stderr, "esp-bench: end-to-end repetition %d of %d done\n", repetition + 1,
                m_setup.repetitions);
    }

    printf("End to end on the throttled chip (process start -> written and verified, or read; "
           "medians of %d)\n",
           m_setup.repetitions);
    printf("ours: esp-utility uploading %s; peer: esptool-js %s with its own loader, compressed "
           "writes; both connect without a reset\n",
           qPrintable(QDir::current().relativeFilePath(m_setup.stubPath)), qPrintable(peerVersion));
    if (!m_peerMissing.isEmpty())
        printf("esptool-js is missing (%s): only our figures\n", qPrintable(m_peerMissing));
    printf("%-27s %7s %8s %13s %6s %7s  %s\n", "operation", "baud", "ours s", "esptool-js s",
           "ratio", "target", "met");
    const double peerFreshWrite = median(rows.first().peer);
    bool ok = true;
    for (const Row &row : qAsConst(rows)) {
        const double ours = median(row.ours);
        const double peer = row.operation == Operation::Reflash ? peerFreshWrite : median(row.peer);
        const bool compared = !row.ours.isEmpty() && peer > 0;
        printf("%-27s %7u %8s %12s%s %6s %7s  %s\n", row.name, row.baud,
               row.ours.isEmpty() ? "-" : qPrintable(QString::number(ours, 'f', 2)),
               peer > 0 ? qPrintable(QString::number(peer, 'f', 2)) : "-",
               row.operation == Operation::Reflash ? "*" : " ",
               compared ? qPrintable(QString::number(ours / peer, 'f', 3)) : "-",
               qPrintable(QStringLiteral("<= %1").arg(row.target, 0, 'f', 1)),
               compared ? (ours / peer <= row.target ? "yes" : "no") : "-");
    }
    printf("* held against esptool-js's fresh write at 921600\n");
    printf("Data phases of our runs (medians), as the chip saw them:\n");
    for (const Row &row : qAsConst(rows)) {
        if (row.dataSeconds.isEmpty())
            continue;
        const double seconds = median(row.dataSeconds);
        const double rate = double(row.baud) / bitsPerByte;
        if (row.operation == Operation::Read) {
            const double share = imageSize / seconds / rate;
            printf("  %-27s %7u: %7.3f s for %d bytes: %.3f of the line rate (target >= %.2f: "
                   "%s)\n",
                   row.name, row.baud, seconds, imageSize, share, readRateTarget,
                   share >= readRateTarget ? "yes" : "no");
            continue;
        }
        QList<double> wire;
        for (const qint64 bytes : row.wireBytes)
            wire << double(bytes);
        const double bound = median(wire) / rate;
        printf("  %-27s %7u: %7.3f s for %.0f bytes on the line, which take %.3f s at baud/10: "
               "%.3f (target <= %.2f: %s)\n",
               row.name, row.baud, seconds, median(wire), bound, seconds / bound, dataPhaseLimit,
               seconds / bound <= dataPhaseLimit ? "yes" : "no");
    }
    for (const Row &row : qAsConst(rows)) {
        for (const QString &failure : row.failures) {
            printf("FAILED %s %u: %s\n", row.name, row.baud, qPrintable(failure));
            ok = false;
        }
    }
    printf("\n");
    fflush(stdout);
    return ok;
}
