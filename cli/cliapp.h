#pragma once

#include "cli/cliarguments.h"
#include "flasher/flashregion.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>
#include <vector>

class BoardOperation;
class BoardSession;
class CliConsole;
class ScatterInput;
class VirtualBoards;

// Runs one command of the command line and gives the exit status: 0 when every board
// succeeded, 1 on failures, 2 for bad arguments or unreadable files.
class CliApp
{
public:
    enum ExitCode { ExitOk = 0, ExitFailed = 1, ExitUsage = 2 };

    CliApp(const CliArguments &arguments, CliConsole &console);
    ~CliApp();
    CliApp(const CliApp &) = delete;
    CliApp &operator=(const CliApp &) = delete;

    int run();

private:
    using OperationFactory = std::function<std::vector<std::unique_ptr<BoardOperation>>()>;

    int runPorts();
    int runImageInfo();
    int runPack();
    int runInfo();
    int runFlash();
    int runVerify();
    int runRead();
    int runErase();
    int runWrite();
    int runDemo();
    int runCompletion();

    int usage(const QString &message);
    // False after a usage error when the command did not get `count` arguments.
    bool needArguments(int count);
    // "usage: esp-utility COMMAND ARGUMENTS (see ...)" for the command being run.
    QString commandUsage() const;
    bool loadScatter(const QString &path, int *exitCode);
    bool checkLoaderOption(bool required, int *exitCode);
    bool parseRegions(const QStringList &texts, QVector<FlashRegion> *regions, int *exitCode);
    // Before anything is read: refuses a directory in the way of a file, a scatter file that is
    // also a region's file, and, unless --force, any file that is there already.
    bool checkReadTargets(const QString &scatterPath, const QStringList &files, int *exitCode);
    // Starts the virtual chips and checks the ports; *exitCode set on failure.
    bool resolveBoards(int *exitCode);
    // One session per board, all in parallel; prints the summary table.
    int runBoards(const OperationFactory &operations, bool loaderFromScatter);
    void printSummary(const std::vector<std::unique_ptr<BoardSession>> &sessions);

    const CliArguments &m_args;
    CliConsole &m_console;
    std::unique_ptr<VirtualBoards> m_virtual;
    std::unique_ptr<ScatterInput> m_input;
    QStringList m_ports;
    QString m_loaderFile;
};
