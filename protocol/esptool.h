#pragma once

#include "esputility_global.h"

#include <QByteArray>
#include <QString>

class QIODevice;

// Client of the ESP8266 serial boot-loader protocol (ROM loader and uploaded flash stub).
class ESPUTILITY_EXPORT ESPTool
{
public:
    // XOR checksum of data blocks, seeded with 0xEF.
    static quint8 esp_crc(const QByteArray &data);
    // Erase size to request from the ROM loader so that it erases what is needed: it erases
    // more than asked (it double-counts the sectors before the next 64 KiB boundary).
    static unsigned int get_erase_size(unsigned int offset, unsigned int size);

    // Host-side MD5 helpers: raw 16-byte digests.
    static QByteArray get_data_md5(const QByteArray &data);
    static QByteArray get_md5(QIODevice *device);
    static QByteArray get_file_md5(const QString &path);

    // 1 for an image starting with 0xE9, 2 for 0xEA, 0 otherwise (or unreadable).
    static int detect_image_version(const QString &path);
};
