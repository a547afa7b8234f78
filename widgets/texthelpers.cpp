#include "texthelpers.h"

unsigned int parseUnsignedInteger(const QString &text, bool *ok)
{
    constexpr int kiloShift = 10;
    constexpr int megaShift = 20;
    if (text.endsWith(QLatin1String("kb"), Qt::CaseInsensitive))
        return text.left(text.size() - 2).toUInt(ok, 10) << kiloShift;
    if (text.endsWith(QLatin1String("mb"), Qt::CaseInsensitive))
        return text.left(text.size() - 2).toUInt(ok, 10) << megaShift;
    if (text.startsWith(QLatin1String("0b"), Qt::CaseInsensitive))
        return text.mid(2).toUInt(ok, 2);
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        return text.mid(2).toUInt(ok, 16);
    if (text.startsWith(QLatin1Char('0')))
        return text.toUInt(ok, 8);
    return text.toUInt(ok, 10);
}

QString hexlify(const QByteArray &data, bool upper)
{
    const QByteArray hex = data.toHex();
    return QString::fromLatin1(upper ? hex.toUpper() : hex);
}

QString hex8(quint32 value)
{
    return QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0'));
}

QString regionText(quint64 start, quint64 end)
{
    const QChar zero(QLatin1Char('0'));
    return QStringLiteral("[0x%1:0x%2]").arg(start, 8, 16, zero).arg(end, 8, 16, zero);
}
