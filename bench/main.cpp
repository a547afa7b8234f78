// esp-bench: throughput of the protocol client against the virtual ESP8266, and the command
// line end to end side by side with esptool-js.
//
// The chip runs as a child process (esp-virtual-chip), so the CPU times printed here are the
// host's alone: the client, its serial port and its event loops. Throttled, the chip moves bytes
// no faster than the line rate, which gives the payload rate a user would see; unthrottled, the
// figures show the host's own overhead.
#include "bench/endtoendbench.h"
#include "bench/throughputbench.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int bitsPerByte = 10; // 8N1: start bit, 8 data bits, stop bit
constexpr unsigned int kib = 1024;
constexpr unsigned int mib = 1024 * 1024;

using Measurement = ThroughputBench::Measurement;

void printThrottled(const QList<Measurement> &results)
{
    printf("Throttled chip (line rate, 8N1: the bound is baud / 10 bytes per second)\n");
    printf("%-15s %-6s %7s %8s %8s %10s %10s %6s %10s  %s\n", "operation", "loader", "baud",
           "bytes", "seconds", "payload/s", "bound/s", "ratio", "host CPU s", "check");
    for (const Measurement &m : results) {
        const double rate = m.bytes / m.seconds;
        const double bound = double(m.baud) / bitsPerByte;
        printf("%-15s %-6s %7u %8lld %8.2f %10.0f %10.0f %6.3f %10.3f  %s\n",
               qPrintable(m.operation), qPrintable(m.loader), m.baud, m.bytes, m.seconds, rate,
               bound, rate / bound, m.cpuSeconds, qPrintable(m.check));
    }
}

void printUnthrottled(const QList<Measurement> &results)
{
    printf("Unthrottled chip (host overhead only)\n");
    printf("%-15s %-6s %8s %8s %12s %10s %12s  %s\n", "operation", "loader", "bytes", "seconds",
           "bytes/s", "host CPU s", "CPU s / MiB", "check");
    for (const Measurement &m : results) {
        printf("%-15s %-6s %8lld %8.3f %12.0f %10.3f %12.3f  %s\n", qPrintable(m.operation),
               qPrintable(m.loader), m.bytes, m.seconds, m.bytes / m.seconds, m.cpuSeconds,
               m.cpuSeconds / (double(m.bytes) / mib), qPrintable(m.check));
    }
}

bool allPassed(const QList<Measurement> &results)
{
    return std::all_of(results.cbegin(), results.cend(),
                       [](const Measurement &m) { return m.check == QLatin1String("ok"); });
}

bool runPass(bool throttle, const QString &chipProgram, const QString &stubPath,
             const QString &workDir, unsigned int slowSize, unsigned int fastSize)
{
    ThroughputBench bench(chipProgram, stubPath, workDir);
    const bool ran = bench.run(throttle, slowSize, fastSize);
    if (throttle)
        printThrottled(bench.results());
    else
        printUnthrottled(bench.results());
    if (!ran)
        fprintf(stderr, "esp-bench: %s\n", qPrintable(bench.errorString()));
    printf("\n");
    fflush(stdout);
    return ran && allPassed(bench.results());
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-bench"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Throughput of the protocol client against the virtual ESP8266, which runs as a child\nprocess so that the CPU times are the host's alone. Writes data and firmware through the\nROM loader and the stub and reads back: 256 KiB each at 115200 baud, 1 MiB each at\n921600 baud; first at the line rate, then unthrottled (1 MiB everywhere).\nThen end to end: esp-utility from its start until 1 MiB of firmware-like data is written\nand verified (at 921600 and 115200 baud), a re-flash with one sector changed, a read of\n1 MiB, each beside esptool-js on the same throttled chip, with medians of repetitions."));
    parser.addHelpOption();
    const QCommandLineOption quickOption(
        QStringLiteral("quick"), QStringLiteral("A quarter of the sizes, for a smoke run."));
    const QCommandLineOption unthrottledOption(QStringLiteral("unthrottled-only"),
                                               QStringLiteral("Skip the run at the line rate."));
    const QCommandLineOption chipOption(
        QStringLiteral("chip-program"), QStringLiteral("The esp-virtual-chip program to run."),
        QStringLiteral("path"), QStringLiteral(ESP_BENCH_CHIP_PROGRAM));
    const QCommandLineOption stubOption(
        QStringLiteral("stub"), QStringLiteral("The loader stub ELF file to upload."),
        QStringLiteral("path"), QStringLiteral(ESP_BENCH_STUB_PATH));
    const QCommandLineOption endToEndOnlyOption(QStringLiteral("end-to-end-only"),
                                                QStringLiteral("Only the end-to-end rows."));
    const QCommandLineOption noEndToEndOption(QStringLiteral("no-end-to-end"),
                                              QStringLiteral("Skip the end-to-end rows."));
    const QCommandLineOption repetitionsOption(
        QStringLiteral("repetitions"),
        QStringLiteral("Runs of each end-to-end row (default 3; 1 with --quick)."),
        QStringLiteral("n"));
    const QCommandLineOption cliOption(
        QStringLiteral("cli-program"), QStringLiteral("The esp-utility program to run."),
        QStringLiteral("path"), QStringLiteral(ESP_BENCH_CLI_PROGRAM));
    const QCommandLineOption loaderOption(
        QStringLiteral("loader"),
        QStringLiteral("The loader esp-utility uploads end to end (default: the vendor's when "
                       "the build fetched it, else the stand-in)."),
        QStringLiteral("path"));
    const QCommandLineOption peerModulesOption(
        QStringLiteral("peer-modules"),
        QStringLiteral("The node_modules folder that holds esptool-js."), QStringLiteral("path"),
        QStringLiteral(ESP_BENCH_PEER_MODULES));
    parser.addOptions({quickOption, unthrottledOption, chipOption, stubOption, endToEndOnlyOption,
                       noEndToEndOption, repetitionsOption, cliOption, loaderOption,
                       peerModulesOption});
    parser.process(app);

    QTemporaryDir workDir;
    if (!workDir.isValid()) {
        fprintf(stderr, "esp-bench: no temporary directory\n");
        return 1;
    }
    const unsigned int divisor = parser.isSet(quickOption) ? 4 : 1;
    const unsigned int slowSize = 256 * kib / divisor;
    const unsigned int fastSize = mib / divisor;
    const QString chipProgram = parser.value(chipOption);
    const QString stubPath = parser.value(stubOption);

    bool ok = true;
    if (!parser.isSet(endToEndOnlyOption)) {
        if (!parser.isSet(unthrottledOption))
            ok = runPass(true, chipProgram, stubPath, workDir.path(), slowSize, fastSize) && ok;
        ok = runPass(false, chipProgram, stubPath, workDir.path(), fastSize, fastSize) && ok;
        printf("Host CPU: getrusage(RUSAGE_SELF) of this process; the chip runs in a child "
               "process.\n\n");
    }
    if (!parser.isSet(noEndToEndOption) && !parser.isSet(unthrottledOption)) {
        EndToEndBench::Setup setup;
        setup.chipProgram = chipProgram;
        setup.cliProgram = parser.value(cliOption);
        setup.stubPath = parser.value(loaderOption);
        if (setup.stubPath.isEmpty())
            setup.stubPath = QFileInfo::exists(QStringLiteral(ESP_BENCH_VENDOR_STUB))
                                 ? QStringLiteral(ESP_BENCH_VENDOR_STUB)
                                 : stubPath;
        setup.peerScript = QStringLiteral(ESP_BENCH_PEER_SCRIPT);
        setup.peerModules = parser.value(peerModulesOption);
        setup.workDir = workDir.path();
        setup.quick = parser.isSet(quickOption);
        setup.repetitions = setup.quick ? 1 : 3;
        if (parser.isSet(repetitionsOption))
            setup.repetitions = qMax(1, parser.value(repetitionsOption).toInt());
        ok = EndToEndBench(setup).run() && ok;
    }
    fflush(stdout);
    return ok ? 0 : 1;
}
