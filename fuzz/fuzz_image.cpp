// Fuzz target: the firmware image parser. Loads fuzzed bytes from a buffer (and now and then
// from a file), then uses every reader: header fields, MD5 of the patched image, the digest of
// images with a trailer, the description, and the block loop that feeds the flash writer.

#include "fuzzsupport.h"
#include "image/espimageparser.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QFile>
#include <QtEndian>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

unsigned char pickCode(FuzzedDataProvider &input)
{
    // Half of the time "keep the header's value", else any byte (out-of-range codes included).
    const quint8 raw = input.ConsumeIntegral<quint8>();
    return (raw & 1) ? ESPImageParser::kCodeNotGiven : static_cast<unsigned char>(raw >> 1);
}

// The image as the flash writer sends it: header bytes 2 and 3 replaced (the frequency masked
// like get_block does, or not like md5 does), padded with 0xFF to whole blocks when asked.
QByteArray patchedImage(const QByteArray &image, unsigned char mode, unsigned char size,
                        unsigned char freq, unsigned char freqMask, unsigned int blockSize)
{
    QByteArray patched = image;
    patched[2] = char(mode);
    patched[3] = char((size << 4) | (freq & freqMask));
    if (blockSize > 0) {
        const int padded = int((unsigned(patched.size()) + blockSize - 1) / blockSize * blockSize);
        patched.append(padded - patched.size(), char(0xFF));
    }
    return patched;
}

QByteArray md5Of(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

void exercise(ESPImageParser &parser, const QByteArray &image, QIODevice &device,
              unsigned int blockSize, unsigned int trailerOffset, unsigned char mode,
              unsigned char size, unsigned char freq)
{
    const auto header = [&image](int index) { return static_cast<unsigned char>(image.at(index)); };
    const unsigned char heldMode = mode == 0xFF ? header(2) : mode;
    const unsigned char heldSize = size == 0xFF ? header(3) >> 4 : size;
    const unsigned char heldFreq = freq == 0xFF ? header(3) & 0x0F : freq;

    check(parser.entry_point() == qFromLittleEndian<quint32>(image.constData() + 4), "entry");
    check(parser.flash_mode_int() == header(2), "mode as in the file");
    check(parser.flash_size_int() == header(3) >> 4, "size as in the file");
    check(parser.flash_frequency_int() == (header(3) & 0x0F), "frequency as in the file");
    parser.getFlashMode();
    parser.getFlashSize();
    parser.getFlashFrequency();
    check(parser.file_size() == unsigned(image.size()), "file_size is the image size");
    check(parser.write_size() == (unsigned(image.size()) + 3) / 4 * 4, "write_size rounds up");

    // Readers must leave the position alone: the flash writer reads blocks around them.
    device.seek(qMin<qint64>(3, image.size()));
    const QByteArray md5 = parser.md5();
    check(md5 == md5Of(patchedImage(image, heldMode, heldSize, heldFreq, 0xFF, 0)),
          "md5 is the digest of the patched image");
    const QByteArray upyBody = image.size() >= 21 ? image.mid(4, image.size() - 20) : QByteArray();
    check(parser.md5_upy() == md5Of(upyBody), "md5_upy hashes between the first 4 and last 16");
    const QString info = parser.dumpInfo(trailerOffset);
    check(info.startsWith(QLatin1String("FLASH:\n")), "dumpInfo starts with FLASH:");
    check(device.pos() == qMin<qint64>(3, image.size()), "readers restore the position");

    parser.prepare_read();
    QByteArray blocks;
    while (!device.atEnd()) {
        const QByteArray block = parser.get_block(blockSize);
        check(block.size() == int(blockSize), "every block has the block size");
        blocks += block;
        check(blocks.size() <= image.size() + int(blockSize), "the block loop ends");
    }
    check(blocks == patchedImage(image, heldMode, heldSize, heldFreq, 0x0F, blockSize),
          "blocks are the patched image padded with 0xFF");
    if (heldFreq <= 0x0F)
        check(md5Of(blocks.left(image.size())) == md5, "written bytes hash to md5()");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ensureFuzzApplication();
    FuzzedDataProvider input(data, size);
    const unsigned char mode = pickCode(input);
    const unsigned char flashSize = pickCode(input);
    const unsigned char freq = pickCode(input);
    // Only the first block is patched, so blocks shorter than the header bytes 2 and 3 are left
    // out: the flash writer never uses them.
    static const unsigned int blockSizes[] = {0x400, 0x4000, 4, 7, 16, 100, 0x1000};
    const unsigned int blockSize =
        blockSizes[input.ConsumeIntegralInRange<size_t>(0, std::size(blockSizes) - 1)];
    const unsigned int trailerOffset = input.ConsumeIntegral<quint16>();
    const bool fromFile = input.ConsumeBool();
    const std::string rest = input.ConsumeRemainingBytesAsString();
    const QByteArray image(rest.data(), int(rest.size()));
    const bool isImage = image.size() >= 8 && quint8(image.at(0)) == 0xE9;

    QByteArray bytes = image;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    ESPImageParser parser;
    const bool loaded = parser.load(&buffer, mode, flashSize, freq);
    check(loaded == isImage, "load accepts exactly images with magic and header");
    check(buffer.isOpen(), "a device handed in stays open");
    if (!loaded) {
        check(parser.md5().isEmpty() && parser.dumpInfo(0).isEmpty(), "nothing loaded");
        return 0;
    }
    exercise(parser, image, buffer, blockSize, trailerOffset, mode, flashSize, freq);
    check(bytes == image, "the image bytes are never changed");

    if (fromFile) {
        const QString path = fuzzScratchDir() + QStringLiteral("/image.bin");
        QFile file(path);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            file.write(image);
            file.close();
            ESPImageParser fileParser;
            check(fileParser.load(path, mode, flashSize, freq), "the same bytes load from a file");
            check(fileParser.md5() == parser.md5(), "file and buffer give the same md5");
            check(fileParser.dumpInfo(trailerOffset) == parser.dumpInfo(trailerOffset),
                  "file and buffer give the same description");
        }
    }
    return 0;
}
