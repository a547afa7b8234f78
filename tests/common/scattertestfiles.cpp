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
    const QString path = dir.absoluteFilePath(name);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QString();
    if (file.write(bytes) != bytes.size())
        return QString();
    return path;
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
                       password ? password->constData() : nullptr, 0, stored ? 0 : Z_DEFLATED))
            return false;
        if (file.write(entry.second) != entry.second.size())
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
    return QString::fromLatin1(
        QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex().toUpper());
}

QByteArray patternBytes(int size, int seed)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 7 + seed * 13) % 251);
    return bytes;
}

QByteArray noiseBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(generator.bounded(256));
    return bytes;
}
