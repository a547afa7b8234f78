#pragma once

#include <QByteArray>
#include <QString>

// A raw pseudo-terminal: the test plays the device on the master side, the code under test opens
// the slave path like a serial port.
class PtyPair
{
public:
    PtyPair();
    ~PtyPair() { closeMaster(); }
    PtyPair(const PtyPair &) = delete;
    PtyPair &operator=(const PtyPair &) = delete;

    bool isValid() const { return m_master >= 0; }
    QString slavePath() const { return m_slavePath; }

    bool writeMaster(const QByteArray &data);
    // What arrives within timeoutMs (returns early once `atLeast` bytes arrived).
    QByteArray readMaster(int timeoutMs, int atLeast = 1);
    // The device goes away: the slave side sees read errors from now on.
    void closeMaster();

    // Lists the slave in the port enumeration (through the extra-ports variable).
    void publish() const { publish(m_slavePath); }
    static void publish(const QString &path);

private:
    int m_master = -1;
    int m_slave = -1;
    QString m_slavePath;
};
