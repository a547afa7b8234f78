// Writes the seed corpora of the fuzz targets into <corpus root>/<target>/, from the project's
// own generators (images, loader files, packages) and from the documents the tests use. Run by
// hand when the inputs of a target change: esp-fuzz-seeds fuzz/corpus

#include "flasher/esppackage.h"
#include "fuzz/fuzzsupport.h"
#include "protocol/espprotocol.h"
#include "tools/imagegen/espimagebuilder.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipnewinfo.h>

#include <cstdio>
#include <vector>

namespace {

bool writeSeed(const QString &root, const QString &target, const QString &name,
               const QByteArray &bytes)
{
    QDir().mkpath(root + QLatin1Char('/') + target);
    QFile file(root + QLatin1Char('/') + target + QLatin1Char('/') + name);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(bytes) != bytes.size()) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(file.fileName()));
        return false;
    }
    return true;
}

QString md5Hex(const QByteArray &bytes)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex().toUpper());
}

// The fuzz targets read their steering values from the end of the input, last byte first.
QByteArray withTail(const QByteArray &front, const std::vector<quint8> &consumedInOrder)
{
    QByteArray bytes = front;
    for (auto it = consumedInOrder.rbegin(); it != consumedInOrder.rend(); ++it)
        bytes.append(char(*it));
    return bytes;
}

QByteArray packet(quint8 direction, quint8 opcode, const QByteArray &body)
{
    QByteArray bytes;
    bytes.append(char(direction)).append(char(opcode));
    bytes.append(char(body.size() & 0xFF)).append(char(body.size() >> 8));
    bytes.append(QByteArray(4, '\0')).append(body);
    return bytes;
}

int slipSeeds(const QString &root)
{
    const QString t = QStringLiteral("slip");
    const QByteArray answer = packet(1, 0x08, QByteArray(2, '\0'));
    const QByteArray escaped = QByteArray::fromHex("c0db00ffdbc0");
    int n = 0;
    n += writeSeed(
        root, t, "two-frames",
        withTail(ESPProtocol::encode(answer) + ESPProtocol::encode(escaped), {0, 0, 0, 2}));
    n += writeSeed(root, t, "broken-escape",
                   withTail(QByteArray::fromHex("c0db01c0c00102c0"), {1, 0, 0, 0}));
    n += writeSeed(root, t, "empty-frame",
                   withTail(QByteArray::fromHex("c0c00102c0c003c0"), {3, 9, 0, 0}));
    n += writeSeed(
        root, t, "noise-then-frame",
        withTail(QByteArray("noise") + ESPProtocol::encode(QByteArray(300, '\xdb')), {7, 1, 2, 3}));
    n += writeSeed(root, t, "greeting", withTail(ESPProtocol::encode("OHAI"), {0, 0, 1, 0}));
    return n;
}

int imageSeeds(const QString &root)
{
    const QString t = QStringLiteral("image");
    int n = 0;
    // Tail: mode, size, frequency, block size index, trailer offset (2 bytes), from-file flag.
    EspImageBuilder one;
    one.addRandomSegment(0x40100000, 200, 1);
    n += writeSeed(root, t, "one-segment", withTail(one.build(), {1, 1, 1, 0, 0, 0, 0}));
    EspImageBuilder three;
    three.setFlashMode(2);
    three.setFlashSize(4);
    three.addRandomSegment(0x40100000, 100, 2);
    three.addRandomSegment(0x3FFE8000, 33, 3);
    three.addRandomSegment(0x3FFE8100, 0, 4);
    n += writeSeed(root, t, "three-segments", withTail(three.build(), {4, 8, 0, 2, 0, 0, 1}));
    EspImageBuilder trailer;
    trailer.addRandomSegment(0x40100000, 64, 5);
    trailer.setSecondPart(EspImageBuilder::pseudoRandomBytes(300, 6));
    const int offset = trailer.trailerOffset();
    n += writeSeed(root, t, "with-trailer",
                   withTail(trailer.build(), {1, 1, 1, 1, quint8(offset >> 8), quint8(offset), 0}));
    n += writeSeed(root, t, "header-only",
                   withTail(QByteArray::fromHex("e900000000001040"), {1, 1, 1, 3, 0, 0, 0}));
    n += writeSeed(root, t, "wrong-magic",
                   withTail(QByteArray::fromHex("ea0102030000104000"), {1, 1, 1, 0, 0, 0, 0}));
    n += writeSeed(
        root, t, "huge-segment",
        withTail(QByteArray::fromHex("e901000000001040000010400000ffff") + QByteArray(40, '\x5a'),
                 {6, 0x20, 0x7e, 6, 0, 40, 1}));
    return n;
}

int stubSeeds(const QString &root)
{
    const QString t = QStringLiteral("stub");
    int n = 0;
    StubElfWriter writer = VirtualLoaderStub::defaultWriter();
    // Small sections keep the seeds small; the layout is the real one.
    writer.setText(VirtualLoaderStub::DefaultTextAddress, VirtualLoaderStub::textBytes(96));
    writer.setData(VirtualLoaderStub::DefaultDataAddress, VirtualLoaderStub::dataBytes(32));
    writer.setEntry(VirtualLoaderStub::DefaultTextAddress + 4);
    n += writeSeed(root, t, "elf", writer.toBytes());
    StubElfWriter noData = writer;
    noData.removeData();
    n += writeSeed(root, t, "elf-without-data", noData.toBytes());
    StubElfWriter noText = writer;
    noText.removeText();
    n += writeSeed(root, t, "elf-without-text", noText.toBytes());
    QJsonObject json{{"text", QString::fromLatin1(VirtualLoaderStub::textBytes(48).toBase64())},
                     {"data", QString::fromLatin1(VirtualLoaderStub::dataBytes(16).toBase64())},
                     {"text_start", double(VirtualLoaderStub::DefaultTextAddress)},
                     {"data_start", double(VirtualLoaderStub::DefaultDataAddress)},
                     {"entry", double(VirtualLoaderStub::DefaultTextAddress + 4)}};
    n += writeSeed(root, t, "json", QJsonDocument(json).toJson());
    json.insert(QStringLiteral("entry"), -1);
    n += writeSeed(root, t, "json-bad-entry", QJsonDocument(json).toJson(QJsonDocument::Compact));
    return n;
}

QJsonObject section(const QString &type, const QString &address, const QString &file,
                    const QString &md5 = QString())
{
    QJsonObject object{{"type", type}, {"address", address}, {"file", file}};
    if (!md5.isEmpty())
        object.insert(QStringLiteral("md5"), md5);
    if (type == QLatin1String("firmware"))
        object.insert(
            QStringLiteral("options"),
            QJsonObject{
                {"flash", QJsonObject{{"mode", "dio"}, {"size", "4MB"}, {"frequency", "40m"}}}});
    return object;
}

QByteArray scatterDocument(const QString &chip, const QJsonArray &sections,
                           const QString &stub = QString::fromLatin1(EspPackage::stubEntryName))
{
    QJsonObject document{{"sections", sections}};
    if (!chip.isNull())
        document.insert(QStringLiteral("chip"), chip);
    if (!stub.isNull())
        document.insert(QStringLiteral("stub"), stub);
    return QJsonDocument(document).toJson();
}

int scatterSeeds(const QString &root)
{
    const QString t = QStringLiteral("scatter");
    const QString fw = md5Hex(scatterFixtureFirmware());
    const QString app = md5Hex(scatterFixtureApplication());
    const QJsonArray both{section("firmware", "0x0", "fw.bin", fw),
                          section("application", "0x10000", "app.bin", app.toLower())};
    int n = 0;
    // Tail: mode (bit 0 strict, bit 1 package, chip choice), answers (prompts, loader choices).
    const QByteArray good = scatterDocument("ESP8266EX", both);
    n += writeSeed(root, t, "loose-strict", withTail(good, {1, 0x03}));
    n += writeSeed(root, t, "loose-template", withTail(good, {0, 0x10}));
    n += writeSeed(root, t, "package", withTail(good, {3, 0}));
    n += writeSeed(root, t, "other-chip", withTail(scatterDocument("ESP8285", both), {0, 0}));
    n += writeSeed(
        root, t, "no-md5",
        withTail(scatterDocument("ESP8266EX", {section("application", "64kb", "app.bin")}),
                 {1, 0x02}));
    n += writeSeed(
        root, t, "unknown-middle",
        withTail(scatterDocument("ESP8266EX", {section("firmware", "0", "fw.bin", fw),
                                               section("Firmware", "0x1000", "fw.bin", fw),
                                               section("application", "0x2000", "sub/data.bin")}),
                 {1, 0x07}));
    n += writeSeed(root, t, "missing-loader",
                   withTail(scatterDocument("ESP8266EX", both, "missing.elf"), {1, 0x25}));
    QJsonObject sized = section("application", "0x3000", "empty.bin");
    sized.insert(QStringLiteral("size"), "0x100");
    sized.insert(QStringLiteral("md5"), md5Hex(QByteArray()));
    n += writeSeed(root, t, "sized-empty", withTail(scatterDocument("ESP8266EX", {sized}), {3, 0}));
    n += writeSeed(root, t, "number-address",
                   withTail(QByteArray("{\"chip\":\"ESP8266EX\",\"sections\":[{\"type\":"
                                       "\"application\",\"address\":4096,\"file\":\"app.bin\"}]}"),
                            {0, 0}));
    n += writeSeed(
        root, t, "foreign-entry",
        withTail(scatterDocument("ESP8266EX", {section("application", "0", "foreign.bin", app)}),
                 {3, 0}));
    return n;
}

bool addEntry(QuaZip &zip, const QString &name, const QByteArray &bytes, const char *password,
              bool stored = false)
{
    QuaZipFile entry(&zip);
    if (!entry.open(QIODevice::WriteOnly, QuaZipNewInfo(name), password, 0,
                    stored ? 0 : Z_DEFLATED))
        return false;
    entry.write(bytes);
    entry.close();
    return entry.getZipError() == ZIP_OK;
}

struct ZipEntry
{
    QString name;
    QByteArray bytes;
    const char *password; // null: unprotected
    bool stored;
};

QByteArray zipBytes(const QString &scratch, const QString &comment,
                    const std::vector<ZipEntry> &entries)
{
    const QString path = scratch + QStringLiteral("/seed.zip");
    QFile::remove(path);
    {
        QuaZip zip(path);
        zip.setCommentCodec("UTF-8");
        if (!zip.open(QuaZip::mdCreate))
            return QByteArray();
        zip.setComment(comment);
        for (const ZipEntry &entry : entries)
            addEntry(zip, entry.name, entry.bytes, entry.password, entry.stored);
        zip.close();
    }
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

int packageSeeds(const QString &root)
{
    const QString t = QStringLiteral("package");
    QTemporaryDir scratch;
    const QString comment = QStringLiteral("seed package");
    const QByteArray password = EspPackage::password(comment);
    const char *right = password.constData();
    const QByteArray firmware = scatterFixtureFirmware();
    const QByteArray application = scatterFixtureApplication().left(120);
    const QByteArray document = scatterDocument(
        "ESP8266EX", {section("firmware", "0x0", "fw.bin", md5Hex(firmware)),
                      section("application", "0x10000", "app.bin", md5Hex(application))});
    const QString loader = QString::fromLatin1(EspPackage::stubEntryName);
    const QString scatter = QString::fromLatin1(EspPackage::scatterEntryName);
    int n = 0;
    n += writeSeed(root, t, "good",
                   zipBytes(scratch.path(), comment,
                            {{loader, scatterFixtureLoader(), right, false},
                             {"fw.bin", firmware, right, false},
                             {"app.bin", application, right, false},
                             {scatter, document, right, false}}));
    n += writeSeed(root, t, "stored",
                   zipBytes(scratch.path(), comment,
                            {{loader, scatterFixtureLoader(), right, true},
                             {"fw.bin", firmware, right, true},
                             {"app.bin", application, right, true},
                             {scatter, document, right, true}}));
    n += writeSeed(root, t, "foreign-password",
                   zipBytes(scratch.path(), comment,
                            {{loader, scatterFixtureLoader(), "another", false},
                             {scatter, document, "another", false}}));
    n += writeSeed(root, t, "no-password",
                   zipBytes(scratch.path(), comment,
                            {{loader, scatterFixtureLoader(), nullptr, false},
                             {scatter, document, nullptr, true}}));
    n += writeSeed(
        root, t, "no-scatter",
        zipBytes(scratch.path(), comment, {{loader, scatterFixtureLoader(), right, false}}));
    n += writeSeed(root, t, "scatter-not-json",
                   zipBytes(scratch.path(), QString(),
                            {{scatter, QByteArray("[1, 2]"),
                              EspPackage::password(QString()).constData(), false}}));
    n += writeSeed(root, t, "empty-entry",
                   zipBytes(scratch.path(), comment,
                            {{loader, QByteArray(), right, false},
                             {scatter, document, right, false},
                             {"app.bin", QByteArray(), right, false}}));
    n += writeSeed(root, t, "not-a-zip", QByteArrayLiteral("PK\x05\x06 not really a zip"));
    return n;
}

// The bytes as the target takes them: the part (0 writing, 1 reading, 2 both), then for writing
// the count less one, per section its folder, name, kind, size / 16 and zero flag, the target
// and the trim flag; for reading the count less one, per entry its name, size (two bytes), zero
// flag, protection and stored flag, the loader choice, the lie (0: none, else entry + 1, then
// four bytes of size) and the flash size in KiB.
int packageEntrySeeds(const QString &root)
{
    const QString t = QStringLiteral("package_entries");
    const std::vector<quint8> duplicates{1, 1, 0, 1, 10, 0, 2, 0, 1, 20, 1, 0, 0};
    const std::vector<quint8> hostileNames{3, 2,  0, 100, 0, 0, 0, 3, 1, 0, 1, 0, 1, 5,
                                           0, 10, 0, 0,   0, 9, 0, 5, 0, 0, 0, 4, 0, 0};
    const auto parts = [](std::initializer_list<std::vector<quint8>> pieces) {
        std::vector<quint8> bytes;
        for (const auto &piece : pieces)
            bytes.insert(bytes.end(), piece.begin(), piece.end());
        return bytes;
    };
    int n = 0;
    n += writeSeed(root, t, "pack-one-name-in-two-folders", withTail({}, parts({{0}, duplicates})));
    n += writeSeed(root, t, "pack-over-a-previous-package",
                   withTail({}, {0, 2, 0, 1, 0, 30, 0, 1, 0, 1, 40, 0, 2, 5, 1, 8, 1, 1, 1}));
    n += writeSeed(root, t, "pack-a-scatter-txt", withTail({}, {0, 0, 1, 2, 1, 4, 0, 0, 0}));
    n += writeSeed(root, t, "pack-onto-a-source",
                   withTail({}, {0, 1, 0, 0, 1, 5, 0, 1, 1, 0, 5, 0, 2, 0}));
    n += writeSeed(root, t, "read-hostile-names", withTail({}, parts({{1}, hostileNames})));
    n += writeSeed(
        root, t, "read-duplicates-and-protection",
        withTail({}, {1, 2, 0, 0, 50, 0, 0, 0, 0, 0, 60, 0, 2, 0, 1, 0, 70, 0, 3, 1, 0, 0, 0}));
    n += writeSeed(root, t, "read-over-the-flash",
                   withTail({}, {1, 1, 0, 0xFF, 0xFF, 1, 0, 0, 1, 0x80, 0, 1, 0, 0, 2, 0, 64}));
    n += writeSeed(root, t, "read-lying-size",
                   withTail({}, {1, 0, 0, 0, 200, 0, 0, 0, 1, 1, 0x7F, 0xFF, 0xFF, 0xFF, 0}));
    n += writeSeed(root, t, "both", withTail({}, parts({{2}, duplicates, hostileNames})));
    return n;
}

// Reply records come first (one byte each: 0 is "the correct answer"), the operations last.
int answerSeeds(const QString &root)
{
    const QString t = QStringLiteral("answers");
    const QByteArray correct(96, '\0');
    int n = 0;
    // Operation counts and codes as the harness consumes them: count, then per operation its
    // code and parameters.
    n += writeSeed(root, t, "identify", withTail(correct, {2, 2, 3}));
    // Upload the loader (ELF), write 300 bytes of data at 0x1000, MD5 and read them back, then
    // identify the flash.
    n += writeSeed(
        root, t, "upload-write-read",
        withTail(QByteArray(400, '\0'), {4, 4, 0,    5,    1,    1, 0x01, 0x2C, 7,    0,    8,
                                         1, 1, 0x00, 0x01, 0x2C, 7, 1,    1,    0x01, 0x2C, 3}));
    // Upload the JSON loader, write a firmware image keeping its own codes.
    n += writeSeed(
        root, t, "upload-firmware",
        withTail(QByteArray(400, '\0'), {1, 4, 2, 6, 2, 4, 0x01, 0x00, 5, 0, 1, 2, 0, 1, 1}));
    // Replies damaged in every way the peer knows, for identification and raw commands.
    QByteArray mixed;
    for (int i = 0; i < 48; ++i)
        mixed.append(char(i * 37 + 3));
    n += writeSeed(root, t, "damaged-replies", withTail(mixed, {3, 2, 12, 0x0A, 4, 0, 0, 0, 0}));
    n += writeSeed(root, t, "erase-and-spi",
                   withTail(correct, {3, 9, 1, 10, 0, 11, 2, 0x9F, 10, 24}));
    return n;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: esp-fuzz-seeds CORPUS_ROOT\n");
        return 2;
    }
    const QString root = QString::fromLocal8Bit(argv[1]);
    const int written = slipSeeds(root) + imageSeeds(root) + stubSeeds(root) + scatterSeeds(root) +
                        packageSeeds(root) + packageEntrySeeds(root) + answerSeeds(root);
    std::printf("%d seed files written under %s\n", written, qPrintable(root));
    return 0;
}
