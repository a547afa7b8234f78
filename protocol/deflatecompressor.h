#pragma once

#include <esputility/esputility_core_global.h>

#include <QByteArray>

// Compresses data into a zlib stream for the flash loader's compressed writes, on every core:
// the data is cut into pieces of `pieceSize`, each deflated at the best level with the 32 KiB
// before it as its dictionary and ended on a byte boundary, so that the pieces join into one
// stream that any inflater takes. Smaller pieces also let the coding adapt more often, which
// costs next to nothing in size.
class ESPUTILITY_CORE_EXPORT DeflateCompressor
{
public:
    static constexpr int pieceSize = 0x10000; // bytes of input per piece

    // The zlib stream (header, deflate data, Adler-32); empty only when zlib fails.
    static QByteArray compress(const QByteArray &data);
};
