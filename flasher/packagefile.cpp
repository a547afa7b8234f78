#include "flasher/packagefile.h"

qint64 PackageFile::writeData(const char *data, qint64 size)
{
    qint64 written = 0;
    while (written < size) {
        const qint64 piece = QSaveFile::writeData(data + written, size - written);
        if (piece <= 0) {
            if (m_firstWriteError.isEmpty())
                m_firstWriteError = errorString();
            return -1;
        }
        written += piece;
    }
    return written;
}
