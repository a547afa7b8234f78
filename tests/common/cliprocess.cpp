#include "cliprocess.h"

#include "testpaths.h"

#include <QProcess>
#include <QProcessEnvironment>

namespace {

QStringList nonEmptyLines(const QString &text)
{
    return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

QStringList CliRun::outLines() const
{
    return nonEmptyLines(out);
}

QStringList CliRun::errLines() const
{
    return nonEmptyLines(err);
}

QString CliRun::transcript() const
{
    return QStringLiteral("exit %1\n--- stdout\n%2--- stderr\n%3").arg(exitCode).arg(out, err);
}

QString cliProgramPath()
{
    return testBuildDir() + QStringLiteral("/cli/esp-utility");
}

CliRun runCli(const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    process.start(cliProgramPath(), arguments);
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
