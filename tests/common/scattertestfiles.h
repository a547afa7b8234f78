#pragma once

#include <QByteArray>
#include <QDir>
#include <QPair>
#include <QString>
#include <QVector>

using ZipEntries = QVector<QPair<QString, QByteArray>>;

// Writes bytes into dir/name (creating sub-directories) and returns the absolute path, or an
// empty string when the file could not be written.
QString writeTestFile(const QDir &dir, const QString &name, const QByteArray &bytes);

// Writes a zip with the archive code directly, independent of the package writer. A null
// password leaves the entries unprotected; stored skips compression.
bool writeTestZip(const QString &path, const QString &comment, const ZipEntries &entries,
                  const QByteArray *password, bool stored = false);

// Upper-case hexadecimal MD5, as scatter documents carry it.
QString md5Hex(const QByteArray &data);

// Recognisable bytes that contain no 0xFF.
QByteArray patternBytes(int size, int seed);

// Incompressible bytes from a fixed seed (may contain 0xFF).
QByteArray noiseBytes(int size, quint32 seed);
