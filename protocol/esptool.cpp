#include "esptool.h"

#include <QCryptographicHash>
#include <QFile>

namespace {
constexpr unsigned int sectorSize = 4096;
constexpr unsigned int sectorsPerEraseBlock = 16;
constexpr qint64 md5ReadChunk = 64 * 1024;
} // namespace

quint8 ESPTool::esp_crc(const QByteArray &data)
{
    quint8 crc = 0xEF;
    for (const char byte : data)
        crc ^= static_cast<quint8>(byte);
    return crc;
}

unsigned int ESPTool::get_erase_size(unsigned int offset, unsigned int size)
{
    const unsigned int sectors = (size + sectorSize - 1) / sectorSize;
    const unsigned int startSector = (offset / sectorSize) % sectorsPerEraseBlock;
    unsigned int head = sectorsPerEraseBlock - startSector;
    if (sectors < head)
        head = sectors;
    if (sectors < 2 * head)
        return ((sectors + 1) / 2) * sectorSize;
    return (sectors - head) * sectorSize;
}

QByteArray ESPTool::get_data_md5(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

QByteArray ESPTool::get_md5(QIODevice *device)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (device) {
        while (!device->atEnd()) {
            const QByteArray chunk = device->read(md5ReadChunk);
            if (chunk.isEmpty())
                break;
            hash.addData(chunk);
        }
    }
    return hash.result();
}

QByteArray ESPTool::get_file_md5(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return get_md5(&file);
}

int ESPTool::detect_image_version(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    char magic = 0;
    if (file.read(&magic, 1) != 1)
        return 0;
    switch (static_cast<quint8>(magic)) {
    case 0xE9:
        return 1;
    case 0xEA:
        return 2;
    default:
        return 0;
    }
}
