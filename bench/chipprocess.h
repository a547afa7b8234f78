#pragma once

#include <QElapsedTimer>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVector>

// The virtual chip in a child process (the esp-virtual-chip program), so that the benchmark's own
// CPU figures hold only the host side: the client, its serial port and the event loops.
class ChipProcess
{
public:
    // A line the program printed after its device path, with when it arrived (ns on the clock
    // given to the constructor).
    struct Line
    {
        qint64 atNs = 0;
        QString text;
    };

    // With a clock, every later line of the program's output is kept with its arrival time
    // (while an event loop runs).
    ChipProcess(const QString &program, const QStringList &arguments,
                const QElapsedTimer *clock = nullptr);
    ~ChipProcess();
    ChipProcess(const ChipProcess &) = delete;
    ChipProcess &operator=(const ChipProcess &) = delete;

    // Starts the program and reads the device path it prints first; false (see errorString())
    // when it does not start or prints nothing within the start-up time.
    bool start();
    // Asks the program to end (SIGTERM) and waits for it; true when it ended by itself with 0
    // (its --dump is written then).
    bool stop();
    QString devicePath() const { return m_devicePath; }
    QString errorString() const { return m_error; }
    const QVector<Line> &lines() const { return m_lines; }

private:
    void readLines();

    QString m_program;
    QStringList m_arguments;
    const QElapsedTimer *m_clock;
    QProcess m_process;
    QString m_devicePath;
    QString m_error;
    QVector<Line> m_lines;
};
