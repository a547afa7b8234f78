// esp-make-image: writes reproducible firmware and application images for tests and demos.

#include "tools/imagegen/espimagebuilder.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

namespace {

enum ExitCode {
    kExitOk = 0,
    kExitWriteFailed = 1,
    kExitUsage = 2,
};

struct NamedCode
{
    const char *name;
    quint8 code;
};

const NamedCode kModes[] = {{"qio", 0}, {"qout", 1}, {"dio", 2}, {"dout", 3}};
const NamedCode kSizes[] = {
    {"512k", 0},   {"512kb", 0}, {"256k", 1}, {"256kb", 1}, {"1m", 2},     {"1mb", 2},
    {"2m", 3},     {"2mb", 3},   {"4m", 4},   {"4mb", 4},   {"2mb-c1", 5}, {"4mb-c1", 6},
    {"4mb-c2", 7}, {"8m", 8},    {"8mb", 8},  {"16m", 9},   {"16mb", 9},
};
const NamedCode kFrequencies[] = {
    {"40m", 0}, {"40mhz", 0}, {"26m", 1},  {"26mhz", 1},
    {"20m", 2}, {"20mhz", 2}, {"80m", 15}, {"80mhz", 15},
};

// Default layout: code in instruction RAM, a little initialised data in data RAM.
const char *const kDefaultSegments[] = {"0x40100000:0x400", "0x3FFE8000:0x100"};

// Decimal or 0x hexadecimal, optionally followed by K/KB or M/MB (binary multiples).
bool parseNumber(QString text, quint32 *value)
{
    text = text.trimmed().toLower();
    quint64 multiplier = 1;
    for (const auto &suffix : {std::make_pair("kb", 1024u), std::make_pair("k", 1024u),
                               std::make_pair("mb", 1048576u), std::make_pair("m", 1048576u)}) {
        if (text.endsWith(QLatin1String(suffix.first)) && !text.startsWith(QLatin1String("0x"))) {
            text.chop(int(qstrlen(suffix.first)));
            multiplier = suffix.second;
            break;
        }
    }
    bool ok = false;
    const quint64 number = text.startsWith(QLatin1String("0x")) ? text.mid(2).toULongLong(&ok, 16)
                                                                : text.toULongLong(&ok, 10);
    const quint64 result = number * multiplier;
    if (!ok || text.isEmpty() || result > 0xFFFFFFFFull || number > 0xFFFFFFFFull)
        return false;
    *value = static_cast<quint32>(result);
    return true;
}

template <size_t N>
bool parseCode(const QString &text, const NamedCode (&table)[N], quint8 *code)
{
    for (const NamedCode &entry : table) {
        if (text.compare(QLatin1String(entry.name), Qt::CaseInsensitive) == 0) {
            *code = entry.code;
            return true;
        }
    }
    quint32 number = 0;
    if (!parseNumber(text, &number) || number > 0xFF)
        return false;
    *code = static_cast<quint8>(number);
    return true;
}

quint32 segmentSeed(quint32 seed, int index)
{
    return seed ^ (static_cast<quint32>(index + 1) * 0x01000193u);
}

int usageError(QCommandLineParser &parser, const QString &message)
{
    QTextStream(stderr) << "esp-make-image: " << message << "\n\n" << parser.helpText();
    return kExitUsage;
}

int writeOut(const QByteArray &bytes, const QString &path)
{
    QString error;
    if (!EspImageBuilder::saveBytes(bytes, path, &error)) {
        QTextStream(stderr) << "esp-make-image: cannot write " << path << ": " << error << '\n';
        return kExitWriteFailed;
    }
    return kExitOk;
}

int makeFirmware(QCommandLineParser &parser, quint32 seed)
{
    EspImageBuilder builder;
    quint32 entry = 0x40100004;
    if (parser.isSet(QStringLiteral("entry")) &&
        !parseNumber(parser.value(QStringLiteral("entry")), &entry))
        return usageError(parser, QStringLiteral("bad --entry"));
    builder.setEntry(entry);

    quint8 mode = 2, size = 4, frequency = 0;
    if (!parseCode(parser.value(QStringLiteral("mode")), kModes, &mode))
        return usageError(parser, QStringLiteral("bad --mode"));
    if (!parseCode(parser.value(QStringLiteral("size")), kSizes, &size) || size > 0x0F)
        return usageError(parser, QStringLiteral("bad --size"));
    if (!parseCode(parser.value(QStringLiteral("freq")), kFrequencies, &frequency) ||
        frequency > 0x0F)
        return usageError(parser, QStringLiteral("bad --freq"));
    builder.setFlashMode(mode);
    builder.setFlashSize(size);
    builder.setFlashFrequency(frequency);

    QStringList segments = parser.values(QStringLiteral("segment"));
    if (segments.isEmpty()) {
        for (const char *segment : kDefaultSegments)
            segments << QLatin1String(segment);
    }
    for (int i = 0; i < segments.size(); ++i) {
        const QStringList fields = segments.at(i).split(QLatin1Char(':'));
        quint32 address = 0, length = 0;
        if (fields.size() != 2 || !parseNumber(fields.at(0), &address) ||
            !parseNumber(fields.at(1), &length) || length > 0x1000000)
            return usageError(parser, QStringLiteral("bad --segment %1").arg(segments.at(i)));
        if (!builder.addRandomSegment(address, int(length), segmentSeed(seed, i)))
            return usageError(parser, QStringLiteral("too many segments"));
    }

    if (parser.isSet(QStringLiteral("irom0"))) {
        quint32 length = 0;
        if (!parseNumber(parser.value(QStringLiteral("irom0")), &length) || length > 0x1000000)
            return usageError(parser, QStringLiteral("bad --irom0"));
        builder.setSecondPart(EspImageBuilder::pseudoRandomBytes(int(length), ~seed));
    }

    const QByteArray image = builder.build();
    const int result = writeOut(image, parser.value(QStringLiteral("output")));
    if (result == kExitOk) {
        QTextStream out(stdout);
        out << parser.value(QStringLiteral("output")) << ": firmware, " << image.size()
            << " bytes, " << builder.segments().size() << " segments, checksum 0x"
            << QStringLiteral("%1").arg(builder.checksum(), 2, 16, QLatin1Char('0'));
        if (builder.hasSecondPart())
            out << ", trailer offset " << builder.trailerOffset();
        out << '\n';
    }
    return result;
}

int makeApplication(QCommandLineParser &parser, quint32 seed)
{
    quint32 length = 0, tail = 0;
    if (!parser.isSet(QStringLiteral("length")) ||
        !parseNumber(parser.value(QStringLiteral("length")), &length) || length > 0x4000000)
        return usageError(parser, QStringLiteral("application needs --length N (at most 64MB)"));
    if (parser.isSet(QStringLiteral("ff-tail")) &&
        (!parseNumber(parser.value(QStringLiteral("ff-tail")), &tail) || tail > 0x4000000))
        return usageError(parser, QStringLiteral("bad --ff-tail"));

    const QByteArray bytes = EspImageBuilder::application(int(length), int(tail), seed);
    const int result = writeOut(bytes, parser.value(QStringLiteral("output")));
    if (result == kExitOk)
        QTextStream(stdout) << parser.value(QStringLiteral("output")) << ": application, "
                            << bytes.size() << " bytes (" << tail << " of them trailing 0xFF)\n";
    return result;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-make-image"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Writes reproducible ESP8266 images.\n  firmware     a bootable image: header, segments of pseudo-random data, checksum\n  application  pseudo-random bytes, optionally followed by a run of 0xFF\nNumbers: decimal or 0x hexadecimal, optionally with K/KB/M/MB."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("kind"), QStringLiteral("firmware | application"));
    parser.addOptions({
        {{QStringLiteral("o"), QStringLiteral("output")},
         QStringLiteral("File to write."),
         QStringLiteral("FILE")},
        {QStringLiteral("seed"), QStringLiteral("Seed of the pseudo-random data (default 1)."),
         QStringLiteral("N"), QStringLiteral("1")},
        {QStringLiteral("entry"), QStringLiteral("Firmware entry point (default 0x40100004)."),
         QStringLiteral("ADDR")},
        {QStringLiteral("segment"),
         QStringLiteral(
             "Firmware segment, repeatable (default 0x40100000:0x400 and 0x3FFE8000:0x100)."),
         QStringLiteral("ADDR:SIZE")},
        {QStringLiteral("mode"), QStringLiteral("Flash mode: qio, qout, dio, dout or a code."),
         QStringLiteral("MODE"), QStringLiteral("dio")},
        {QStringLiteral("size"),
         QStringLiteral(
             "Flash size: 512KB, 256KB, 1MB, 2MB, 4MB, 2MB-C1, 4MB-C1, 4MB-C2, 8MB, 16MB or a code."),
         QStringLiteral("SIZE"), QStringLiteral("4MB")},
        {QStringLiteral("freq"), QStringLiteral("Flash frequency: 40m, 26m, 20m, 80m or a code."),
         QStringLiteral("FREQ"), QStringLiteral("40m")},
        {QStringLiteral("irom0"),
         QStringLiteral("Append a second part of N bytes with recorded length and MD5."),
         QStringLiteral("N")},
        {QStringLiteral("length"), QStringLiteral("Application payload length."),
         QStringLiteral("N")},
        {QStringLiteral("ff-tail"), QStringLiteral("Application: 0xFF bytes after the payload."),
         QStringLiteral("N")},
    });
    parser.process(app);

    const QStringList kinds = parser.positionalArguments();
    if (kinds.size() != 1)
        return usageError(parser, QStringLiteral("say firmware or application"));
    if (!parser.isSet(QStringLiteral("output")) || parser.value(QStringLiteral("output")).isEmpty())
        return usageError(parser, QStringLiteral("-o FILE is required"));
    quint32 seed = 1;
    if (!parseNumber(parser.value(QStringLiteral("seed")), &seed))
        return usageError(parser, QStringLiteral("bad --seed"));

    if (kinds.first() == QLatin1String("firmware"))
        return makeFirmware(parser, seed);
    if (kinds.first() == QLatin1String("application"))
        return makeApplication(parser, seed);
    return usageError(parser, QStringLiteral("unknown kind %1").arg(kinds.first()));
}
