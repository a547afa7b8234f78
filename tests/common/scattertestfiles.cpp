#include "scattertestfiles.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipnewinfo.h>

QString writeTestFile(const QDir &dir, const QString &name, const QByteArray &bytes)
{
    QFile file(dir.absoluteFilePath(name));
    QDir().mkpath(QFileInfo(file).absolutePath());
    const bool written = file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
    return written ? file.fileName() : QString();
}

bool writeTestZip(const QString &path, const QString &comment, const ZipEntries &entries,
                  const QByteArray *password, bool stored)
{
    QuaZip zip(path);
    zip.setCommentCodec("UTF-8");
    if (!zip.open(QuaZip::mdCreate))
        return false;
    zip.setComment(comment);
    for (const auto &entry : entries) {
        QuaZipFile file(&zip);
        if (!file.open(QIODevice::WriteOnly, QuaZipNewInfo(entry.first),
                       password ? password->constData() : nullptr, 0, stored ? 0 : Z_DEFLATED) ||
            file.write(entry.second) != entry.second.size())
            return false;
        file.close();
        if (file.getZipError() != ZIP_OK)
            return false;
    }
    zip.close();
    return zip.getZipError() == ZIP_OK;
}

QString md5Hex(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex().toUpper();
}

QByteArray patternBytes(int size, int seed)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + seed * 13) % 251);
    return bytes;
}

QByteArray noiseBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(generator.bounded(256));
    return bytes;
}
