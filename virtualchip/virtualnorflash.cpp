#include "virtualchip/virtualnorflash.h"

#include <QCryptographicHash>

#include <cstring>

VirtualNorFlash::VirtualNorFlash(quint32 size) : m_data(int(size), char(0xFF)) {}

bool VirtualNorFlash::contains(quint32 offset, quint32 length) const
{
    return offset <= size() && length <= size() - offset;
}

quint32 VirtualNorFlash::clippedLength(quint32 offset, quint32 length) const
{
    if (offset >= size())
        return 0;
    return qMin(length, size() - offset);
}

void VirtualNorFlash::erase(quint32 offset, quint32 length)
{
    const quint32 n = clippedLength(offset, length);
    if (n > 0)
        memset(m_data.data() + offset, 0xFF, n);
}

void VirtualNorFlash::eraseAll()
{
    m_data.fill(char(0xFF));
}

void VirtualNorFlash::program(quint32 offset, const QByteArray &data)
{
    const quint32 n = clippedLength(offset, quint32(data.size()));
    char *target = m_data.data() + offset;
    for (quint32 i = 0; i < n; ++i)
        target[i] = char(quint8(target[i]) & quint8(data[int(i)]));
}

void VirtualNorFlash::store(quint32 offset, const QByteArray &data)
{
    const quint32 n = clippedLength(offset, quint32(data.size()));
    if (n > 0)
        memcpy(m_data.data() + offset, data.constData(), n);
}

QByteArray VirtualNorFlash::read(quint32 offset, quint32 length) const
{
    return m_data.mid(int(offset), int(clippedLength(offset, length)));
}

QByteArray VirtualNorFlash::md5(quint32 offset, quint32 length) const
{
    const quint32 n = clippedLength(offset, length);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (n > 0)
        hash.addData(m_data.constData() + offset, int(n));
    return hash.result();
}

qint64 VirtualNorFlash::eraseTimeUs(quint32 offset, quint32 length)
{
    qint64 time = 0;
    quint64 position = offset - offset % sectorSize;
    const quint64 end = quint64(offset) + length;
    while (position < end) {
        if (position % blockSize == 0 && position + blockSize <= end) {
            time += blockEraseUs;
            position += blockSize;
        } else {
            time += sectorEraseUs;
            position += sectorSize;
        }
    }
    return time;
}

qint64 VirtualNorFlash::chipEraseTimeUs() const
{
    return chipEraseUsPerMiB * qint64(size()) / (1024 * 1024);
}

qint64 VirtualNorFlash::programTimeUs(quint32 length)
{
    return pageProgramUs * ((qint64(length) + pageSize - 1) / pageSize);
}
