#pragma once

#include <esputility/esputility_core_global.h>

#include <QByteArray>
#include <QString>

// Parses the address and size texts users type and scatter files hold: "kb"/"mb" suffixes
// (decimal digits only), "0b" binary, "0x" hexadecimal, a leading 0 for octal, else decimal.
// A suffix multiplies in 32-bit arithmetic and wraps without complaint: callers check bounds.
// *ok reports only whether the one underlying conversion succeeded.
ESPUTILITY_CORE_EXPORT unsigned int parseUnsignedInteger(const QString &text, bool *ok = nullptr);

// Two hexadecimal digits per byte, no separators; upper case when asked.
ESPUTILITY_CORE_EXPORT QString hexlify(const QByteArray &data, bool upper);

// Eight lower-case hexadecimal digits, no prefix: how addresses appear in messages.
ESPUTILITY_CORE_EXPORT QString hex8(quint32 value);
// "[0x00001000:0x00002000]": a half-open range of flash addresses in messages.
ESPUTILITY_CORE_EXPORT QString regionText(quint64 start, quint64 end);
