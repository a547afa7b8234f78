// Fuzz target: the names and sizes of package entries, on both sides of a package.
// Writing: section files with names from a hostile set (one name in two folders, the package's
// own entry names, odd characters) are packed into a fresh target, over a previous package, or
// over one of the sources. Reading: a zip with entries of hostile names ("../", absolute paths,
// empty, duplicates), of fuzzed sizes and protection, whose central directory may lie about a
// size, is loaded against a fuzzed flash size and every entry is extracted.
// Invariants:
// - the writer refuses a target that is a source and any entry name taken twice, and a refusal
//   leaves the folder as it was; a package it makes holds each section once, as its source;
// - a package is refused by its size exactly when its entries add up to more than the flash;
// - an entry reads as its declared size or not at all, and its name never becomes a path.
// Every steering value is one byte from the end of the input, last byte first.

#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"
#include "fuzzsupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryFile>
#include <QtEndian>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipnewinfo.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

namespace {

const QString chip = QStringLiteral("ESP8266EX / 00a1b2c3");

quint8 next(FuzzedDataProvider &input)
{
    return input.ConsumeIntegral<quint8>();
}

QByteArray bytesOf(int size, bool zeros, int seed)
{
    QByteArray bytes(size, '\0');
    if (!zeros) {
        for (int i = 0; i < size; ++i)
            bytes[i] = char((i * 131 + seed * 29) % 251);
    }
    return bytes;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Every file under dir with the MD5 of its bytes.
QStringList snapshot(const QString &dir)
{
    QStringList files;
    for (QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
         it.hasNext();) {
        const QString path = it.next();
        files << path + QLatin1Char('=') +
                     QString::fromLatin1(
                         QCryptographicHash::hash(readFile(path), QCryptographicHash::Md5).toHex());
    }
    files.sort();
    return files;
}

void fresh(const QString &dir)
{
    QDir(dir).removeRecursively();
    QDir().mkpath(dir);
}

// ---------------------------------------------------------------------------------------------
// Writing

void packSections(FuzzedDataProvider &input)
{
    static const QStringList folders{QString(), QStringLiteral("one/"), QStringLiteral("two/")};
    static const QStringList names{
        QStringLiteral("app.bin"),      QStringLiteral("fw.bin"),
        QStringLiteral("scatter.txt"),  QString::fromLatin1(EspPackage::stubEntryName),
        QStringLiteral("Ümlaut ü.bin"), QStringLiteral("a b.bin"),
        QStringLiteral(".hidden"),      QStringLiteral("out.zip")};
    const QString dir = fuzzScratchDir() + QStringLiteral("/writer");
    fresh(dir);
    const QDir folder(dir);
    const QString loader = folder.absoluteFilePath(QStringLiteral("loader.elf"));
    writeFile(loader, scatterFixtureLoader());

    QVector<ScatterSection> rows;
    const int count = 1 + next(input) % 6;
    for (int i = 0; i < count; ++i) {
        ScatterSection row;
        row.hasCells = true;
        const QString inFolder = folders.at(next(input) % folders.size());
        row.file = inFolder + names.at(next(input) % names.size());
        row.kind = next(input) % 2 ? ScatterSection::Application : ScatterSection::Firmware;
        row.kindSet = true;
        row.startAddress = quint32(i) * 0x10000;
        row.flashMode = QStringLiteral("dio");
        row.flashSize = QStringLiteral("4MB");
        row.flashFrequency = QStringLiteral("40m");
        const QString path = folder.absoluteFilePath(row.file);
        const int size = next(input) * 16;
        const bool zeros = next(input) % 2;
        if (!QFileInfo::exists(path))
            writeFile(path, bytesOf(size, zeros, i));
        rows << row;
    }
    QString target = folder.absoluteFilePath(QStringLiteral("out.zip"));
    switch (next(input) % 4) {
    case 1:
        writeFile(target, "a previous package");
        break;
    case 2:
        target = folder.absoluteFilePath(rows.first().file);
        break;
    case 3:
        target = loader;
        break;
    default:
        break;
    }
    const bool trim = next(input) % 2;

    // What the writer must refuse, worked out on its own.
    bool refused = QFileInfo(target).canonicalFilePath() == QFileInfo(loader).canonicalFilePath();
    QSet<QString> entryNames{QString::fromLatin1(EspPackage::stubEntryName),
                             QString::fromLatin1(EspPackage::scatterEntryName)};
    for (const ScatterSection &row : qAsConst(rows)) {
        const QString path = folder.absoluteFilePath(row.file);
        const QString name = QFileInfo(path).fileName();
        refused = refused || entryNames.contains(name) ||
                  QFileInfo(path).canonicalFilePath() == QFileInfo(target).canonicalFilePath();
        entryNames.insert(name);
    }

    const QStringList before = snapshot(dir);
    bool written = false;
    {
        EspPackageWriter writer;
        written = writer.open(target) && writer.addStub(loader) &&
                  writer.addSections(rows, folder, trim) && writer.finish(chip);
        check(written || !writer.lastError().isEmpty(), "a failed pack says why");
    }
    check(written == !refused, "the writer refuses exactly what it must");
    if (!written) {
        check(snapshot(dir) == before, "a refused pack leaves the folder as it was");
        return;
    }

    EspPackage package(target);
    check(package.open(), "a package made opens");
    const QStringList listed = package.entryNames();
    check(QSet<QString>(listed.cbegin(), listed.cend()).size() == listed.size(),
          "a package made holds each name once");
    check(listed.size() == rows.size() + 2, "a package made holds every section");
    for (const ScatterSection &row : qAsConst(rows)) {
        const QString path = folder.absoluteFilePath(row.file);
        QByteArray stored;
        check(package.readEntry(QFileInfo(path).fileName(), &stored) == EspPackage::EntryStatus::Ok,
              "a section of a package made reads");
        const QByteArray source = readFile(path);
        check(trim && row.isApplication() ? source.startsWith(stored) : stored == source,
              "a section is stored as its source");
    }
    QByteArray document;
    check(package.readEntry(QString::fromLatin1(EspPackage::scatterEntryName), &document) ==
              EspPackage::EntryStatus::Ok,
          "the scatter file of a package made reads");
    ScatterValidator validator(chip, QString());
    QString error;
    check(validator.parseScatterPack(QJsonDocument::fromJson(document).object(), package, &error),
          "a package made validates");
}

// ---------------------------------------------------------------------------------------------
// Reading

struct Entry
{
    QString name;
    QByteArray bytes;
    int protection = 0; // 0: the package password, 1: none, 2: another password
    bool stored = false;
};

bool addEntry(QuaZip &zip, const Entry &entry, const QByteArray &password)
{
    QuaZipFile file(&zip);
    const char *key = entry.protection == 0   ? password.constData()
                      : entry.protection == 1 ? nullptr
                                              : "another password";
    if (!file.open(QIODevice::WriteOnly, QuaZipNewInfo(entry.name), key, 0,
                   entry.stored ? 0 : Z_DEFLATED))
        return false;
    file.write(entry.bytes);
    file.close();
    return file.getZipError() == ZIP_OK;
}

// Gives central directory record `index` the uncompressed size `size`; the old one, or -1.
qint64 patchDeclaredSize(QByteArray *zip, int index, quint32 size)
{
    const int end = zip->lastIndexOf(QByteArray("PK\x05\x06", 4));
    if (end < 0 || end + 22 > zip->size())
        return -1;
    int at = int(qFromLittleEndian<quint32>(zip->constData() + end + 16));
    for (int i = 0; at >= 0 && at + 46 <= end; ++i) {
        const char *record = zip->constData() + at;
        if (QByteArray(record, 4) != QByteArray("PK\x01\x02", 4))
            return -1;
        if (i == index) {
            const quint32 old = qFromLittleEndian<quint32>(record + 24);
            qToLittleEndian<quint32>(size, zip->data() + at + 24);
            return old;
        }
        at += 46 + qFromLittleEndian<quint16>(record + 28) +
              qFromLittleEndian<quint16>(record + 30) + qFromLittleEndian<quint16>(record + 32);
    }
    return -1;
}

void readPackage(FuzzedDataProvider &input)
{
    const QString dir = fuzzScratchDir() + QStringLiteral("/reader");
    fresh(dir);
    // Names that would land outside the package's folder, or on no file at all, if a name
    // ever became a path.
    const QStringList names{QStringLiteral("app.bin"),
                            QStringLiteral("fw.bin"),
                            QStringLiteral("../escape.bin"),
                            dir + QStringLiteral("/absolute/abs.bin"),
                            QStringLiteral("sub/../../up.bin"),
                            QString(),
                            QStringLiteral("."),
                            QStringLiteral("back\\slash.bin"),
                            QStringLiteral("Ümlaut ü.bin"),
                            QString::fromLatin1(EspPackage::scatterEntryName)};
    const QString comment = scatterFixtureComment();
    const QByteArray password = EspPackage::password(comment);

    QVector<Entry> entries;
    const int count = 1 + next(input) % 6;
    for (int i = 0; i < count; ++i) {
        Entry entry;
        entry.name = names.at(next(input) % names.size());
        const int high = next(input);
        const int size = ((high << 8) | next(input)) % 65537;
        entry.bytes = bytesOf(size, next(input) % 2, i);
        entry.protection = qMax(0, next(input) % 4 - 1);
        entry.stored = next(input) % 2;
        entries << entry;
    }
    const int stubChoice = next(input) % (count + 2);
    QString stubName = QStringLiteral("no such loader");
    if (stubChoice < count) {
        stubName = entries.at(stubChoice).name;
    } else if (stubChoice == count) {
        stubName = QString::fromLatin1(EspPackage::stubEntryName);
        entries << Entry{stubName, scatterFixtureLoader(), 0, false};
    }
    QJsonArray sections;
    for (int i = 0; i < count; ++i) {
        sections.append(QJsonObject{
            {"type", "application"},
            {"address", QStringLiteral("0x%1").arg(i * 0x10000, 0, 16)},
            {"file", entries.at(i).name},
            {"md5",
             QString::fromLatin1(
                 QCryptographicHash::hash(entries.at(i).bytes, QCryptographicHash::Md5).toHex())}});
    }
    entries << Entry{
        QString::fromLatin1(EspPackage::scatterEntryName),
        QJsonDocument(
            QJsonObject{{"chip", "ESP8266EX"}, {"stub", stubName}, {"sections", sections}})
            .toJson(),
        0, false};

    const QString path = dir + QStringLiteral("/package.zip");
    {
        QuaZip zip(path);
        zip.setCommentCodec("UTF-8");
        check(zip.open(QuaZip::mdCreate), "the test package can be created");
        zip.setComment(comment);
        for (const Entry &entry : qAsConst(entries))
            check(addEntry(zip, entry, password), "a test entry can be written");
        zip.close();
    }
    quint64 declared = 0;
    for (const Entry &entry : qAsConst(entries))
        declared += quint64(entry.bytes.size());
    // A central directory that lies about one size.
    const quint8 lie = next(input);
    if (lie != 0) {
        QByteArray bytes = readFile(path);
        quint32 size = 0;
        for (int i = 0; i < 4; ++i)
            size = (size << 8) | next(input);
        const qint64 old = patchDeclaredSize(&bytes, (lie - 1) % entries.size(), size);
        check(old >= 0, "the test package has its central directory");
        declared = declared - quint64(old) + size;
        writeFile(path, bytes);
    }
    const quint32 flashSize = quint32(next(input)) * 1024;

    EspPackage package(path);
    check(package.open(), "the test package opens");
    check(package.totalUncompressedSize() == declared, "the sizes add up as declared");
    const QStringList before = snapshot(dir);
    QSet<QString> seen;
    // The archive code resolves a name that several entries carry to the last of them.
    for (auto it = entries.crbegin(); it != entries.crend(); ++it) {
        const Entry &entry = *it;
        if (seen.contains(entry.name))
            continue;
        seen.insert(entry.name);
        EspPackage::EntryStatus status = EspPackage::EntryStatus::NotFound;
        const std::unique_ptr<QTemporaryFile> file = package.extractEntry(entry.name, &status);
        check((status == EspPackage::EntryStatus::Ok) == bool(file), "an extraction says why");
        QByteArray md5;
        check(package.entryMd5(entry.name, &md5) == status, "digest and extraction agree");
        if (!file)
            continue;
        check(entry.protection != 1, "an unprotected entry never reads");
        check(file->readAll() == entry.bytes, "an entry reads as it was written");
        check(quint64(entry.bytes.size()) == quint64(package.uncompressedSize(entry.name)),
              "an entry reads as its declared size");
        check(md5 == QCryptographicHash::hash(entry.bytes, QCryptographicHash::Md5),
              "the digest is the entry's");
    }
    check(snapshot(dir) == before, "extracting writes nothing beside the package");
    for (const QString &name : names) {
        if (!name.isEmpty() && name != QLatin1String("."))
            check(!QFileInfo::exists(QDir(dir).absoluteFilePath(name)),
                  "an entry name never becomes a path");
    }
    package.close();

    ScatterLoader loader;
    const bool loaded = loader.load(path, flashSize);
    const bool tooLarge = declared > EspPackage::sizeLimit(flashSize);
    check(loader.error().contains(QLatin1String("more than the flash memory")) == tooLarge,
          "a package is refused by its size exactly when it is too large");
    if (!loaded)
        return;
    ScatterValidator validator(chip, QString());
    QString error;
    const bool valid = validator.parseScatterPack(loader.document(), *loader.package(), &error);
    check(valid == error.isEmpty(), "validation says why it failed");
    if (valid)
        check(loader.package()->contains(validator.loaderText()), "the loader is an entry");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ensureFuzzApplication();
    FuzzedDataProvider input(data, size);
    switch (next(input) % 3) {
    case 0:
        packSections(input);
        break;
    case 1:
        readPackage(input);
        break;
    default:
        packSections(input);
        readPackage(input);
        break;
    }
    return 0;
}
