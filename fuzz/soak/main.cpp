// esp-soak: a few hundred randomised sessions of the real operation worker against virtual
// ESP8266 chips with injected faults (silence, dropped, corrupted and stray answers, refused
// commands, a vanishing port, slow erase). Prints what it did and every violation of the rules
// that SoakSession checks; exits non-zero when there was one.
//
//   esp-soak [--seed N] [--sessions N] [--first N] [--jobs N] [--verbose] [--trace]
//
// Most of a session's time is spent waiting out the time-outs its faults cause, so sessions run
// side by side (--jobs); a session's course depends only on the seed and its index.

#include "soaksession.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QMutex>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

// Each session draws from its own generator, so one session can be run again on its own.
quint64 sessionSeed(quint64 seed, int index)
{
    return seed * 0x9E3779B97F4A7C15ull + quint64(index) * 0xBF58476D1CE4E5B9ull + 1;
}

struct Options
{
    quint64 seed = 0;
    int sessions = 0;
    int first = 0;
    int jobs = 1;
    bool verbose = false;
    bool trace = false;
};

bool parseOptions(const QCoreApplication &app, Options *options)
{
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
    const QCommandLineOption jobsOption(QStringLiteral("jobs"),
                                        QStringLiteral("Sessions run side by side (default 1)."),
                                        QStringLiteral("N"), QStringLiteral("1"));
    const QCommandLineOption verboseOption(QStringLiteral("verbose"),
                                           QStringLiteral("One line per session."));
    const QCommandLineOption traceOption(
        QStringLiteral("trace"),
        QStringLiteral("Every worker and chip command, timed, on standard error (use --jobs 1)."));
    parser.addOptions(
        {seedOption, sessionsOption, firstOption, jobsOption, verboseOption, traceOption});
    parser.process(app);

    bool seedOk = true;
    bool sessionsOk = false;
    bool firstOk = false;
    bool jobsOk = false;
    options->seed = parser.isSet(seedOption) ? parser.value(seedOption).toULongLong(&seedOk)
                                             : QRandomGenerator::global()->bounded(1000000000u);
    options->sessions = parser.value(sessionsOption).toInt(&sessionsOk);
    options->first = parser.value(firstOption).toInt(&firstOk);
    options->jobs = parser.value(jobsOption).toInt(&jobsOk);
    options->verbose = parser.isSet(verboseOption);
    options->trace = parser.isSet(traceOption);
    return seedOk && sessionsOk && firstOk && jobsOk && options->sessions >= 0 &&
           options->first >= 0 && options->jobs > 0;
}

void printSession(int index, const SoakSession::Report &report, qint64 elapsedMs)
{
    const QString faultText = report.faults.isEmpty() ? QStringLiteral("no fault")
                                                      : report.faults.join(QStringLiteral(", "));
    std::printf("session %d [%s]: %d commands%s, %.1f s, %s%s\n", index, qPrintable(faultText),
                report.commands, report.portVanished ? ", port vanished" : "", elapsedMs / 1000.0,
                report.failed ? "failed: " : "succeeded",
                qPrintable(report.failed ? report.failure : QString()));
    for (const QString &text : report.violations)
        std::printf("  VIOLATION: %s\n", qPrintable(text));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-soak"));
    Options options;
    if (!parseOptions(app, &options)) {
        std::fprintf(stderr,
                     "esp-soak: --seed, --sessions, --first and --jobs take whole numbers\n");
        return 2;
    }

    QTemporaryDir scratch;
    const QByteArray loader = VirtualLoaderStub::defaultWriter().toBytes();
    if (!scratch.isValid() || loader.isEmpty()) {
        std::fprintf(stderr, "esp-soak: no scratch directory or loader\n");
        return 2;
    }

    std::printf("esp-soak: seed %llu, sessions %d to %d\n",
                static_cast<unsigned long long>(options.seed), options.first,
                options.first + options.sessions - 1);
    std::fflush(stdout);
    QElapsedTimer clock;
    clock.start();

    // Each job takes the next session to run; the reports land at their session's place.
    std::vector<SoakSession::Report> reports(size_t(options.sessions));
    std::atomic<int> next{0};
    QMutex printing;
    std::vector<std::unique_ptr<QThread>> jobs;
    for (int job = 0; job < qMin(options.jobs, qMax(options.sessions, 1)); ++job) {
        // A folder per job: the rule that failed commands change no file looks into it.
        const QString folder =
            QDir(scratch.path()).absoluteFilePath(QStringLiteral("job%1").arg(job));
        QDir().mkpath(folder);
        jobs.emplace_back(QThread::create([&, folder] {
            for (int i = next++; i < options.sessions; i = next++) {
                QElapsedTimer sessionClock;
                sessionClock.start();
                const int index = options.first + i;
                SoakSession session(sessionSeed(options.seed, index), loader, folder,
                                    options.trace);
                reports[size_t(i)] = session.run();
                const SoakSession::Report &report = reports[size_t(i)];
                if (options.verbose || !report.violations.isEmpty()) {
                    const QMutexLocker locker(&printing);
                    printSession(index, report, sessionClock.elapsed());
                }
            }
        }));
        jobs.back()->start();
    }
    for (const auto &job : jobs)
        job->wait();

    int faults = 0;
    int faultySessions = 0;
    int successes = 0;
    int cleanFailures = 0;
    int violatingSessions = 0;
    int violations = 0;
    SoakSession::Report totals;
    for (const SoakSession::Report &report : reports) {
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
    }

    std::printf("esp-soak: seed %llu, %d sessions in %.1f s (%d at a time)\n",
                static_cast<unsigned long long>(options.seed), options.sessions,
                clock.elapsed() / 1000.0, int(jobs.size()));
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
