#include "cliprocess.h"

#include "testpaths.h"

#include <QProcess>

QString CliRun::transcript() const
{
    return QStringLiteral("exit %1\n--- stdout\n%2--- stderr\n%3").arg(exitCode).arg(out, err);
}

CliRun runCli(const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    process.start(testBuildDir() + QStringLiteral("/cli/esp-utility"), arguments);
    CliRun run;
    if (!process.waitForStarted(timeoutMs))
        return run;
    run.finished = process.waitForFinished(timeoutMs);
    if (!run.finished) {
        process.kill();
        process.waitForFinished();
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}
