#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// The virtual chip in a child process (the esp-virtual-chip program), so that the benchmark's own
// CPU figures hold only the host side: the client, its serial port and the event loops.
class ChipProcess
{
public:
    ChipProcess(const QString &program, const QStringList &arguments);
    ~ChipProcess();
    ChipProcess(const ChipProcess &) = delete;
    ChipProcess &operator=(const ChipProcess &) = delete;

    // Starts the program and reads the device path it prints first; false (see errorString())
    // when it does not start or prints nothing within the start-up time.
    bool start();
    // Asks the program to end (SIGTERM) and waits for it.
    void stop();
    QString devicePath() const { return m_devicePath; }
    QString errorString() const { return m_error; }

private:
    QString m_program;
    QStringList m_arguments;
    QProcess m_process;
    QString m_devicePath;
    QString m_error;
};
