// esp-soak: a few hundred randomised sessions of the real operation worker against virtual
// ESP8266 chips with injected faults (silence, dropped, corrupted and stray answers, refused
// commands, a vanishing port, slow erase). Prints what it did and every violation of the rules
// that SoakSession checks; exits non-zero when there was one.
//
//   esp-soak [--seed N] [--sessions N] [--first N] [--verbose] [--trace]

#include "soaksession.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstdio>

namespace {

// Each session draws from its own generator, so one session can be run again on its own.
quint64 sessionSeed(quint64 seed, int index)
{
    return seed * 0x9E3779B97F4A7C15ull + quint64(index) * 0xBF58476D1CE4E5B9ull + 1;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-soak"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Randomised sessions of the operation worker against faulty virtual chips"));
    parser.addHelpOption();
    const QCommandLineOption seedOption(QStringLiteral("seed"),
                                        QStringLiteral("Seed of the run (default: random)."),
                                        QStringLiteral("N"));
    const QCommandLineOption sessionsOption(QStringLiteral("sessions"),
                                            QStringLiteral("Number of sessions (default 300)."),
                                            QStringLiteral("N"), QStringLiteral("300"));
    const QCommandLineOption firstOption(QStringLiteral("first"),
                                         QStringLiteral("Index of the first session (default 0)."),
                                         QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption verboseOption(QStringLiteral("verbose"),
                                           QStringLiteral("One line per session."));
    const QCommandLineOption traceOption(
        QStringLiteral("trace"),
        QStringLiteral("Every worker and chip command, timed, on standard error."));
    parser.addOptions({seedOption, sessionsOption, firstOption, verboseOption, traceOption});
    parser.process(app);

    bool ok = true;
    const quint64 seed = parser.isSet(seedOption)
                             ? parser.value(seedOption).toULongLong(&ok)
                             : QRandomGenerator::global()->bounded(1000000000u);
    bool sessionsOk = false;
    bool firstOk = false;
    const int sessions = parser.value(sessionsOption).toInt(&sessionsOk);
    const int first = parser.value(firstOption).toInt(&firstOk);
    if (!ok || !sessionsOk || !firstOk || sessions < 0 || first < 0) {
        std::fprintf(stderr, "esp-soak: --seed, --sessions and --first take whole numbers\n");
        return 2;
    }
    const bool verbose = parser.isSet(verboseOption);

    QTemporaryDir scratch;
    const QByteArray loader = VirtualLoaderStub::defaultWriter().toBytes();
    if (!scratch.isValid() || loader.isEmpty()) {
        std::fprintf(stderr, "esp-soak: no scratch directory or loader\n");
        return 2;
    }

    std::printf("esp-soak: seed %llu, sessions %d to %d\n", static_cast<unsigned long long>(seed),
                first, first + sessions - 1);
    std::fflush(stdout);
    QElapsedTimer clock;
    clock.start();
    int faults = 0;
    int faultySessions = 0;
    int successes = 0;
    int cleanFailures = 0;
    int violatingSessions = 0;
    int violations = 0;
    SoakSession::Report totals;
    for (int index = first; index < first + sessions; ++index) {
        const qint64 sessionStart = clock.elapsed();
        SoakSession session(sessionSeed(seed, index), loader, scratch.path(),
                            parser.isSet(traceOption));
        const SoakSession::Report report = session.run();
        faults += report.faultsArmed;
        faultySessions += report.faultsArmed > 0 ? 1 : 0;
        totals.commands += report.commands;
        totals.writesVerified += report.writesVerified;
        totals.readsVerified += report.readsVerified;
        totals.digestsVerified += report.digestsVerified;
        totals.erasesVerified += report.erasesVerified;
        totals.readNotices += report.readNotices;
        if (!report.violations.isEmpty()) {
            ++violatingSessions;
            violations += report.violations.size();
        } else if (report.failed) {
            ++cleanFailures;
        } else {
            ++successes;
        }
        const QString faultText = report.faults.isEmpty()
                                      ? QStringLiteral("no fault")
                                      : report.faults.join(QStringLiteral(", "));
        if (verbose || !report.violations.isEmpty()) {
            std::printf(
                "session %d [%s]: %d commands%s, %.1f s, %s%s\n", index, qPrintable(faultText),
                report.commands, report.portVanished ? ", port vanished" : "",
                (clock.elapsed() - sessionStart) / 1000.0, report.failed ? "failed: " : "succeeded",
                qPrintable(report.failed ? report.failure : QString()));
            for (const QString &text : report.violations)
                std::printf("  VIOLATION: %s\n", qPrintable(text));
            std::fflush(stdout);
        }
    }

    std::printf("esp-soak: seed %llu, %d sessions in %.1f s\n",
                static_cast<unsigned long long>(seed), sessions, clock.elapsed() / 1000.0);
    std::printf("  faults injected:  %d (in %d sessions)\n", faults, faultySessions);
    std::printf("  successes:        %d sessions\n", successes);
    std::printf("  clean failures:   %d sessions\n", cleanFailures);
    std::printf("  violations:       %d (in %d sessions)\n", violations, violatingSessions);
    std::printf("  commands %d; verified against the chip: %d writes, %d reads, %d digests, "
                "%d erases; read-back digest notices %d\n",
                totals.commands, totals.writesVerified, totals.readsVerified,
                totals.digestsVerified, totals.erasesVerified, totals.readNotices);
    return violations == 0 ? 0 : 1;
}
