#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QIODevice>
#include <QString>

// A write-only device that passes every write on to another device and keeps the MD5 of what
// that device accepted: a file being written can be checked before it is committed, without
// reading it back. A short write is carried on (the system says why only on the next one), and
// the first failure is remembered.
class DigestingWriter : public QIODevice
{
public:
    explicit DigestingWriter(QIODevice *target, QObject *parent = nullptr);

    bool isSequential() const override { return true; }
    // The raw 16-byte digest of the bytes accepted so far.
    QByteArray md5() const { return m_md5.result(); }
    // Why a write failed first; empty while every write succeeded.
    QString writeError() const { return m_writeError; }

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    QIODevice *m_target;
    QCryptographicHash m_md5{QCryptographicHash::Md5};
    QString m_writeError;
};
