#pragma once

#include "protocol/esptool.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

// One pass of the throughput benchmark against a virtual chip in a child process: data and
// firmware writes through the ROM loader, then writes and a read through the stub at 115200 baud,
// then the same through the stub at 921600 baud after a baud-rate change.
class ThroughputBench
{
public:
    struct Measurement
    {
        QString operation;
        QString loader; // "ROM" or "stub"
        unsigned int baud = 0;
        qint64 bytes = 0;
        double seconds = 0;
        double cpuSeconds = 0; // of this whole process
        QString check;         // "ok", or what went wrong
    };

    ThroughputBench(const QString &chipProgram, const QString &stubPath, const QString &workDir);

    // False when the chip could not be started or reached; the measurements taken are kept.
    bool run(bool throttle, unsigned int slowSize, unsigned int fastSize);
    const QList<Measurement> &results() const { return m_results; }
    QString errorString() const { return m_error; }

    static double processCpuSeconds();
    // A firmware image of about `bytes` bytes (64 KiB segments of pseudo-random data).
    static QByteArray firmwareImage(unsigned int bytes, quint32 seed);

private:
    void measure(const QString &operation, qint64 bytes, const std::function<bool()> &op);
    QString saveFile(const QString &name, const QByteArray &bytes);
    bool write(bool firmware, unsigned int address, const QByteArray &bytes);
    bool read(unsigned int address, const QByteArray &expected);
    // The ROM loader cannot tell the MD5 that ends a write: checked once the stub runs.
    void checkRomWrite(Measurement &measurement, unsigned int address, const QByteArray &expected);

    QString m_chipProgram;
    QString m_stubPath;
    QString m_workDir;
    ESPTool m_tool;
    QStringList m_reports; // of the operation being measured
    unsigned int m_baud = 0;
    QList<Measurement> m_results;
    QString m_error;
};
