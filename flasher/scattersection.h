#pragma once

#include <QCoreApplication>
#include <QString>

// One row of the scatter table, as the validators leave it and as the writers read it back.
struct ScatterSection
{
    // Kinds stored with a row; a firmware row of a non-strict load leaves the kind unset (reads 0).
    enum Kind { Firmware = 0, Application = 1 };

    // False for a row the table keeps without any cell (a section after a skipped one lands on
    // its document index, so one row stays empty). Everything that walks rows must skip these.
    bool hasCells = false;
    // The "Active" check mark; every row starts checked.
    bool active = true;
    int kind = Firmware;
    bool kindSet = false;
    // Untranslated display key ("Firmware" / "Application"); typeDisplayText() translates it.
    QString typeKey;
    quint32 startAddress = 0;
    // One past the last byte; 32-bit arithmetic like the addresses themselves.
    quint32 endAddress = 0;
    // The `file` value as written in the document (the "Source" column).
    QString file;
    // Where the bytes come from: an absolute path for loose files, the entry name in a package.
    QString source;
    // Firmware rows of a strict load only.
    QString flashMode;
    QString flashSize;
    QString flashFrequency;
    // The saved `md5` text, empty when the document has none.
    QString md5;

    bool isApplication() const { return kind == Application; }
    QString typeDisplayText() const
    {
        if (typeKey.isEmpty())
            return QString();
        return QCoreApplication::translate("ESPFlasher", typeKey.toUtf8().constData());
    }
    QString startAddressText() const { return addressText(startAddress); }
    QString endAddressText() const { return addressText(endAddress); }

    // Addresses are shown as "0x" and 8 lower-case hexadecimal digits.
    static QString addressText(quint32 address)
    {
        return QStringLiteral("0x%1").arg(address, 8, 16, QLatin1Char('0'));
    }
};
