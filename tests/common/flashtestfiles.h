#pragma once

#include <QByteArray>
#include <QDir>
#include <QJsonObject>
#include <QString>

// A firmware image, an application image and a loader beside a loose scatter file, and the
// same packed into a package: what a flash run writes.
//
// The firmware's header says qio / 1MB / 26m; the scatter asks for dio / 4MB / 40m, so the
// chip ends up holding patchedFirmware.
struct FlashTestFiles
{
    static constexpr quint32 firmwareAddress = 0x0;
    static constexpr quint32 applicationAddress = 0x10000;
    static constexpr const char *packageDescription = "Flash test package 2.1";

    QByteArray firmware;
    QByteArray patchedFirmware;
    QByteArray application;
    QString stub;    // the loader beside the scatter file
    QString scatter; // the loose scatter file
    QString package; // the package made of the scatter file

    // Writes everything into dir: boot.bin, app.bin, loader.elf, scatter.txt, package.zip.
    bool create(const QDir &dir, QString *why);

    // The scatter document of the files (chip ESP8266EX, both sections with their md5).
    QJsonObject document() const;
};
