#pragma once

#include <QStringList>

// One run of the build tree's esp-utility program. It inherits this process's environment as it
// is now, so the ports of virtual chips started here are listed.
struct CliRun
{
    bool finished = false; // false: it did not end within the time given (then killed)
    int exitCode = -1;
    QString out;
    QString err;

    QStringList outLines() const { return out.split('\n', Qt::SkipEmptyParts); }
    QStringList errLines() const { return err.split('\n', Qt::SkipEmptyParts); }
    // Both streams, for failure messages.
    QString transcript() const;
};

CliRun runCli(const QStringList &arguments, int timeoutMs = 60000);
