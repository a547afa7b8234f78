#include "worker/digestingwriter.h"

DigestingWriter::DigestingWriter(QIODevice *target, QObject *parent)
    : QIODevice(parent), m_target(target)
{}

qint64 DigestingWriter::readData(char *, qint64)
{
    return -1;
}

qint64 DigestingWriter::writeData(const char *data, qint64 size)
{
    const qint64 written = m_target->write(data, size);
    if (written > 0)
        m_md5.addData(data, int(written));
    else if (written < 0)
        setErrorString(m_target->errorString());
    return written;
}
