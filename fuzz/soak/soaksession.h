#pragma once

#include <QBitArray>
#include <QByteArray>
#include <QElapsedTimer>
#include <QMap>
#include <QPair>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVector>

#include <atomic>
#include <memory>

class QIODevice;
class VirtualEsp8266;
class WorkerClient;

// One randomised session against a fresh virtual ESP8266 with faults armed: connect, load the
// flash loader, get info, then writes of random data and firmware at random addresses, flash
// MD5, read-back and erase in a random order, through the real operation worker in its own
// thread. Every outcome is checked against the chip itself:
// - a write, read, MD5 or erase that reports success matches the chip's flash at that moment;
// - a connection whose commands all succeed says nothing; one with a failed command says why in
//   exactly one message (the read-back digest notice is the one deliberate exception), sent before
//   the failed command finished and never again on that connection;
// - after a failure, a connect to the reset (or, when the port vanished, restarted) chip works;
// - a command that fails changes no file on the computer (the files handed to the worker, a file
//   read into);
// - at the end of the session's operations, every section written still holds what was written,
//   except where a later write or erase covered it (whole sectors, no more).
// Anything else is a violation, described in plain words.
class SoakSession
{
public:
    struct Report
    {
        int faultsArmed = 0;
        int commands = 0;
        int writesVerified = 0;
        int readsVerified = 0;
        int digestsVerified = 0;
        int erasesVerified = 0;
        int readNotices = 0;
        bool failed = false;       // some command did not succeed
        bool portVanished = false; // the chip's port went away during the session
        QString failure;           // the message that said why
        QStringList faults;        // what was armed
        QStringList violations;
    };

    // With trace, every worker command and every command the chip handled is printed to stderr
    // with the time since the session started. Sessions may run side by side in threads of their
    // own, each with a scratch folder of its own.
    SoakSession(quint64 seed, const QByteArray &loaderElf, const QString &scratchDir,
                bool trace = false);
    ~SoakSession();
    SoakSession(const SoakSession &) = delete;
    SoakSession &operator=(const SoakSession &) = delete;

    Report run();

private:
    bool startChip();
    // Lists the chip's terminal among the ports the worker may open (next to the ports of the
    // sessions running beside this one), or takes it off that list.
    void publishPort();
    void withdrawPort();
    void armFaults();
    // Runs one command; false when the worker did not answer within the guard time.
    bool run(int cmd, const QVariantList &params, const QString &what);
    // Checks what the last command said against whether it succeeded; returns `success`.
    bool settle(bool success, bool isRead = false);
    bool connectChip();
    bool loadLoader();
    bool getInfo();
    bool writeData();
    bool writeFirmware();
    bool readBack();
    bool flashMd5();
    bool erase();
    void disconnectChip();
    void checkReconnect();
    void violation(const QString &text);

    // The files of the scratch folder with their MD5, to tell whether a command changed one.
    QMap<QString, QByteArray> scratchFiles() const;
    void checkFilesUnchanged();
    // What the flash must hold: a write or erase sets the whole sectors it covers (a write then
    // its data); one that failed leaves them unknown.
    void recordWrite(quint32 address, const QByteArray &data, bool written);
    void recordErase(quint32 start, quint32 end, bool erased);
    void checkWrittenSections();

    quint32 randomAddress(quint32 length);
    QVariant fileParameter(const QByteArray &bytes, const QString &name);
    QString sizeText() const;

    void traceLine(const QString &text) const;

    QRandomGenerator m_random;
    bool m_trace = false;
    QElapsedTimer m_clock;
    QByteArray m_loaderElf;
    QString m_scratchDir;
    std::unique_ptr<VirtualEsp8266> m_chip;
    QString m_publishedPort;
    std::unique_ptr<WorkerClient> m_worker;
    Report m_report;
    // The last command: its name and outcome.
    QString m_what;
    bool m_finished = false;
    bool m_result = false;
    QVariantList m_results;
    QStringList m_messages;
    // A device handed to the worker and its bytes; they must outlive the command.
    std::unique_ptr<QByteArray> m_deviceBytes;
    std::unique_ptr<QIODevice> m_device;
    // The last connect succeeded; the connection has seen a failed command (and so its one
    // message).
    bool m_connected = false;
    bool m_connectionFailed = false;
    // Commands the chip handled, and the one during which its port vanishes (-1: none).
    std::atomic<int> m_chipCommands{0};
    std::atomic<int> m_vanishAtCommand{-1};
    // Regions written in this session, for reading back and the check at the end.
    QVector<QPair<quint32, quint32>> m_written;
    // The scratch folder before the running command.
    QMap<QString, QByteArray> m_filesBefore;
    // The flash as this session's writes and erases left it, where known.
    QByteArray m_expected;
    QBitArray m_known;
};
