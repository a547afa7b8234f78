#pragma once

#include <QString>
#include <QStringList>

// Runs the esp-utility program of the build tree as a child process. The child inherits this
// process's environment as it is now, so the ports of virtual chips started here are listed.
struct CliRun
{
    bool finished = false; // false: it did not end within the time given (then killed)
    int exitCode = -1;
    QString out;
    QString err;

    QStringList outLines() const;
    QStringList errLines() const;
    // Both streams, for failure messages.
    QString transcript() const;
};

QString cliProgramPath();
CliRun runCli(const QStringList &arguments, int timeoutMs = 60000);
