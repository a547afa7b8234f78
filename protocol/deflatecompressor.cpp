#include "deflatecompressor.h"

#include <QThreadPool>
#include <QVector>

#include <zlib.h>

#include <atomic>

namespace {

constexpr int windowBits = 15; // the 32 KiB window every inflater has
constexpr int memoryLevel = 8; // zlib's default
constexpr int dictionarySize = 1 << windowBits;
constexpr int outputMargin = 64; // sync-flush marker and the end of the last block, bytes

// One piece as raw deflate data, or empty when zlib fails.
QByteArray deflatePiece(const QByteArray &data, int offset, bool last)
{
    z_stream stream{};
    // Negative window bits: raw deflate, since the pieces share one header and trailer.
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -windowBits, memoryLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK)
        return QByteArray();
    bool ok = true;
    if (offset > 0) {
        const int start = qMax(0, offset - dictionarySize);
        ok =
            deflateSetDictionary(&stream, reinterpret_cast<const Bytef *>(data.constData() + start),
                                 uInt(offset - start)) == Z_OK;
    }
    const int length = qMin(DeflateCompressor::pieceSize, data.size() - offset);
    QByteArray output(int(deflateBound(&stream, uLong(length))) + outputMargin, Qt::Uninitialized);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.constData() + offset));
    stream.avail_in = uInt(length);
    stream.next_out = reinterpret_cast<Bytef *>(output.data());
    stream.avail_out = uInt(output.size());
    // A sync flush ends the piece on a byte boundary without ending the stream.
    const int result = ok ? deflate(&stream, last ? Z_FINISH : Z_SYNC_FLUSH) : Z_STREAM_ERROR;
    ok = ok && (last ? result == Z_STREAM_END : result == Z_OK) && stream.avail_in == 0;
    output.truncate(int(stream.total_out));
    deflateEnd(&stream);
    return ok ? output : QByteArray();
}

void appendBigEndian(QByteArray &bytes, quint32 value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.append(char(value >> shift));
}

} // namespace

QByteArray DeflateCompressor::compress(const QByteArray &data)
{
    const int pieces = qMax(1, (data.size() + pieceSize - 1) / pieceSize);
    QVector<QByteArray> deflated(pieces);
    std::atomic<bool> failed{false};
    {
        QThreadPool pool;
        for (int i = 0; i < pieces; ++i) {
            pool.start([&, i] {
                deflated[i] = deflatePiece(data, i * pieceSize, i + 1 == pieces);
                if (deflated[i].isEmpty())
                    failed = true;
            });
        }
        pool.waitForDone();
    }
    if (failed)
        return QByteArray();

    // 0x78 0xDA: deflate with a 32 KiB window at the best level, a header the check bits accept.
    QByteArray stream = QByteArrayLiteral("\x78\xDA");
    for (const QByteArray &piece : qAsConst(deflated))
        stream += piece;
    appendBigEndian(stream, quint32(adler32_z(adler32_z(0, nullptr, 0),
                                              reinterpret_cast<const Bytef *>(data.constData()),
                                              size_t(data.size()))));
    return stream;
}
