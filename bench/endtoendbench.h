#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QString>
#include <QStringList>

class ChipProcess;

// End-to-end rows: the command line esp-utility, from its process start until the image is
// written and verified (or read back), against a throttled virtual chip in a child process,
// side by side with npm esptool-js on the same chip. Each run gets a fresh chip; the medians of
// the repetitions are printed with the ratio and the target of each row, then the data phases
// of our runs as the chip saw them.
class EndToEndBench
{
public:
    struct Setup
    {
        QString chipProgram;
        QString cliProgram;
        QString stubPath; // the loader our side uploads
        QString peerScript;
        QString peerModules; // node_modules holding esptool-js
        QString workDir;
        int repetitions = 3;
        bool quick = false; // 921600 baud only
    };

    explicit EndToEndBench(const Setup &setup);
    // Prints the rows; false when a run failed (the figures taken are printed all the same).
    bool run();

    // Firmware-like data: the first MiB of the system's Qt Core library; empty with *error set
    // when it cannot be read.
    static QByteArray firmwareLikeImage(QString *error);
    static double median(QList<double> values);

private:
    // One run of either side.
    struct Run
    {
        bool ok = false;
        double seconds = 0;
        QString failure;
        // Ours only: the data phase as the chip saw it, and the bytes it took on the line.
        double dataSeconds = 0;
        qint64 wireBytes = 0;
    };
    enum class Operation { FreshWrite, Reflash, Read };

    QString peerUnavailableReason() const;
    Run runOurs(Operation operation, unsigned int baud);
    Run runPeer(Operation operation, unsigned int baud);
    // The chip's flash after the run must hold the image.
    bool checkDump(const QString &dump, Run *run);
    void dataPhase(const ChipProcess &chip, Operation operation, qint64 readDoneNs, Run *run);
    QString saveFile(const QString &name, const QByteArray &bytes);

    Setup m_setup;
    QElapsedTimer m_clock;
    QByteArray m_image;
    QString m_imagePath;
    QString m_changedPath;
    QString m_peerMissing;
};
