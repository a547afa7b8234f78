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
    qint64 written = 0;
    while (written < size) {
        const qint64 piece = m_target->write(data + written, size - written);
        if (piece <= 0) {
            if (m_writeError.isEmpty())
                m_writeError = m_target->errorString();
            setErrorString(m_writeError);
            return written > 0 ? written : -1;
        }
        m_md5.addData(data + written, int(piece));
        written += piece;
    }
    return written;
}
