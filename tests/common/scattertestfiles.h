#pragma once

#include <QByteArray>
#include <QDir>
#include <QPair>
#include <QString>
#include <QVector>

using ZipEntries = QVector<QPair<QString, QByteArray>>;

// Writes bytes into dir/name (creating sub-directories); the absolute path, or empty on failure.
QString writeTestFile(const QDir &dir, const QString &name, const QByteArray &bytes);

// A zip written with the archive code directly, independent of the package writer. A null
// password leaves the entries unprotected; stored skips compression.
bool writeTestZip(const QString &path, const QString &comment, const ZipEntries &entries,
                  const QByteArray *password, bool stored = false);

// Upper-case hexadecimal MD5, as scatter documents carry it.
QString md5Hex(const QByteArray &data);

// Recognisable bytes that contain no 0xFF; incompressible ones from a fixed seed.
QByteArray patternBytes(int size, int seed);
QByteArray noiseBytes(int size, quint32 seed);
