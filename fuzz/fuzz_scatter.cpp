// Fuzz target: the scatter document rules. A fuzzed document is read like a loose scatter file
// (through the loader, from disk) and checked strictly or as a template against small files in a
// scratch directory, or checked against a small package. The questions are answered as the
// input says.

#include "flasher/esppackage.h"
#include "flasher/scatterloader.h"
#include "flasher/scatterprompts.h"
#include "flasher/scattervalidator.h"
#include "fuzzsupport.h"
#include "image/espimageparser.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipnewinfo.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

namespace {

struct Fixture
{
    QString dir;
    QString stubPath;
    QString packagePath;
};

bool addEntry(QuaZip &zip, const QString &name, const QByteArray &bytes, const char *password)
{
    QuaZipFile entry(&zip);
    if (!entry.open(QIODevice::WriteOnly, QuaZipNewInfo(name), password, 0, Z_DEFLATED))
        return false;
    entry.write(bytes);
    entry.close();
    return entry.getZipError() == ZIP_OK;
}

// The files the fuzzed documents may name: the same names exist loose and in the package, so
// that documents from the seed corpus work in both modes.
const Fixture &fixture()
{
    static const Fixture made = [] {
        Fixture f;
        f.dir = fuzzScratchDir() + QStringLiteral("/scatter");
        const QByteArray firmware = scatterFixtureFirmware();
        const QByteArray application = scatterFixtureApplication();
        const QByteArray stub = scatterFixtureLoader();
        writeFile(f.dir + QStringLiteral("/fw.bin"), firmware);
        writeFile(f.dir + QStringLiteral("/app.bin"), application);
        writeFile(f.dir + QStringLiteral("/empty.bin"), QByteArray());
        writeFile(f.dir + QStringLiteral("/sub/data.bin"), QByteArray(300, '\xff'));
        f.stubPath = f.dir + QStringLiteral("/esp8266_loader_stub.elf");
        writeFile(f.stubPath, stub);
        QDir().mkpath(f.dir + QStringLiteral("/folder.bin"));

        f.packagePath = fuzzScratchDir() + QStringLiteral("/scatter-package.zip");
        QuaZip zip(f.packagePath);
        zip.setCommentCodec("UTF-8");
        if (zip.open(QuaZip::mdCreate)) {
            const QString comment = scatterFixtureComment();
            zip.setComment(comment);
            const QByteArray password = EspPackage::password(comment);
            addEntry(zip, QString::fromLatin1(EspPackage::stubEntryName), stub, password);
            addEntry(zip, QStringLiteral("fw.bin"), firmware, password);
            addEntry(zip, QStringLiteral("app.bin"), application, password);
            addEntry(zip, QStringLiteral("empty.bin"), QByteArray(), password);
            // Entries that a package must not have: no password, and a foreign password.
            addEntry(zip, QStringLiteral("plain.bin"), application, nullptr);
            addEntry(zip, QStringLiteral("foreign.bin"), application, "not the password");
            addEntry(zip, QStringLiteral("app.bin"), firmware, password); // a duplicate name
            zip.close();
        }
        return f;
    }();
    return made;
}

class FuzzPrompts : public ScatterPrompts
{
public:
    FuzzPrompts(quint8 answers, const QString &chosen) : m_answers(answers), m_chosen(chosen) {}
    bool confirmMissingLoader(const QString &question, const QString &) override
    {
        check(!question.isEmpty(), "the loader question has a text");
        return m_answers & 1;
    }
    QString chooseLoader() override { return m_chosen; }
    bool confirmMissingChecksum(const QString &question, const QString &,
                                const QString &md5) override
    {
        check(!question.isEmpty(), "the checksum question has a text");
        check(md5.size() == 32 && md5 == md5.toUpper(), "the digest asked about is upper-case");
        return m_answers & 2;
    }
    bool confirmFlashSize(const QString &question) override
    {
        check(!question.isEmpty(), "the flash size question has a text");
        return m_answers & 0x80;
    }
    void notice(const QString &text) override { check(!text.isEmpty(), "notices have a text"); }

private:
    quint8 m_answers;
    QString m_chosen;
};

// Documents that name files outside the scratch directory would read the machine's own files
// (some of which block), so the harness leaves them out; the rules themselves are path-agnostic.
bool staysInScratch(const QString &name)
{
    return !name.startsWith(QLatin1Char('/')) && !name.contains(QLatin1String(".."));
}

bool onlyScratchFiles(const QJsonObject &document)
{
    if (!staysInScratch(document.value(QLatin1String("stub")).toString()))
        return false;
    const QJsonArray sections = document.value(QLatin1String("sections")).toArray();
    for (const QJsonValue &section : sections) {
        if (!staysInScratch(section.toObject().value(QLatin1String("file")).toString()))
            return false;
    }
    return true;
}

int knownSections(const QJsonObject &document)
{
    int known = 0;
    for (const QJsonValue &section : document.value(QLatin1String("sections")).toArray()) {
        const QString type = section.toObject().value(QLatin1String("type")).toString();
        if (type == QLatin1String("firmware") || type == QLatin1String("application"))
            ++known;
    }
    return known;
}

void checkRows(const ScatterValidator &validator, const QJsonObject &document, bool strict)
{
    const QVector<ScatterSection> &rows = validator.rows();
    check(rows.size() == knownSections(document), "one row per known section");
    for (int i = 0; i < rows.size(); ++i) {
        const ScatterSection &row = rows.at(i);
        if (!row.hasCells)
            continue;
        check(!row.typeKey.isEmpty(), "a filled row has a type");
        check(row.startAddressText().size() == 10, "addresses show as 0x and 8 digits");
        if (!strict)
            continue;
        if (row.kind == ScatterSection::Firmware) {
            check(!row.flashMode.isEmpty() && !row.flashSize.isEmpty() &&
                      !row.flashFrequency.isEmpty(),
                  "a strict firmware row carries its flash options");
            check(ESPImageParser::fm_fromString(row.flashMode) != ESPImageParser::kCodeNotGiven &&
                      ESPImageParser::fs_fromString(row.flashSize) !=
                          ESPImageParser::kCodeNotGiven &&
                      ESPImageParser::ff_fromString(row.flashFrequency) !=
                          ESPImageParser::kCodeNotGiven,
                  "a strict firmware row carries options the image header can hold");
        }
        const quint64 end = quint64(row.startAddress) + (row.endAddress - row.startAddress);
        for (int j = 0; j < i; ++j) {
            const ScatterSection &other = rows.at(j);
            const quint64 otherEnd =
                quint64(other.startAddress) + (other.endAddress - other.startAddress);
            check(!other.hasCells || row.startAddress >= otherEnd || other.startAddress >= end,
                  "the rows of a strict load do not overlap");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ensureFuzzApplication();
    const Fixture &files = fixture();
    FuzzedDataProvider input(data, size);
    const quint8 mode = input.ConsumeIntegral<quint8>();
    const quint8 answers = input.ConsumeIntegral<quint8>();
    const bool strict = mode & 1;
    const bool package = mode & 2;
    static const char *const chips[] = {"ESP8266EX / 00a1b2c3", "ESP8285", "", " / ", "ESP8266EX"};
    const QString chip = QString::fromLatin1(chips[(mode >> 2) % 5]);
    const QString loaders[] = {QString(), files.stubPath,
                               files.dir + QStringLiteral("/missing.elf"), files.dir};
    const QString initialLoader = loaders[(answers >> 2) & 3];
    const QString chosenLoader = loaders[(answers >> 4) & 3];
    const std::string text = input.ConsumeRemainingBytesAsString();
    const QByteArray bytes(text.data(), int(text.size()));

    FuzzPrompts prompts(answers, chosenLoader);
    ScatterValidator validator(chip, initialLoader, (answers & 0x40) ? nullptr : &prompts);
    // No size, 1 MB or 4 MB of flash on the chip.
    static const quint32 detectedSizes[] = {0, 0x100000, 0x400000};
    validator.setDetectedFlashSize(detectedSizes[(mode >> 5) % 3]);
    QString error;

    if (package) {
        const QJsonDocument parsed = QJsonDocument::fromJson(bytes);
        if (!parsed.isObject())
            return 0;
        EspPackage archive(files.packagePath);
        check(archive.open(), "the fixture package opens");
        const bool ok = validator.parseScatterPack(parsed.object(), archive, &error);
        check(ok == error.isEmpty(), "a failure says why, a success says nothing");
        if (ok) {
            checkRows(validator, parsed.object(), true);
            check(archive.contains(validator.loaderText()), "the loader is a package entry");
        }
        return 0;
    }

    // Loose: the document goes through the file reader like a picked scatter file.
    const QString path = files.dir + QStringLiteral("/scatter.txt");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        return 0;
    file.close();
    ScatterLoader loader;
    const bool read = loader.load(path);
    check(read == QJsonDocument::fromJson(bytes).isObject(), "exactly JSON objects are read");
    check(read == loader.error().isEmpty(), "a failed read says why");
    if (!read)
        return 0;
    QJsonObject document = loader.document();
    if (!onlyScratchFiles(document))
        return 0;
    const QJsonObject original = document;
    const bool ok = validator.parseScatterObject(document, strict, QFileInfo(path), &error);
    check(ok == error.isEmpty(), "a failure says why, a success says nothing");
    if (!validator.tableRebuilt())
        check(validator.rows().isEmpty(), "no rows before the table was rebuilt");
    if (!ok)
        return 0;
    checkRows(validator, original, strict);
    check(!validator.loaderText().isEmpty(), "a loaded scatter file has a flash loader");
    if (!strict)
        check(document.value(QLatin1String("chip")).toString() ==
                      original.value(QLatin1String("chip")).toString() ||
                  document.value(QLatin1String("chip")).toString() == chip,
              "a template keeps its chip or takes the connected one");
    return 0;
}
