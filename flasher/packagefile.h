#pragma once

#include <QSaveFile>
#include <QString>

// The file a package is written into: a QSaveFile, opened unbuffered, that keeps writing after a
// short write (the system reports why only on the next one) and remembers why writing failed
// first, since a later successful seek of the archive code clears the device's error.
class PackageFile : public QSaveFile
{
public:
    using QSaveFile::QSaveFile;

    // The reason of the first failed write; empty while every write succeeded.
    QString firstWriteError() const { return m_firstWriteError; }
    void clearWriteError() { m_firstWriteError.clear(); }

protected:
    qint64 writeData(const char *data, qint64 size) override;

private:
    QString m_firstWriteError;
};
