// Fuzz target: the package reader. Fuzzed zip bytes are opened as a package (comment, entry
// list, every entry read with the password of the comment) and loaded the way the dialog loads a
// picked package: "scatter.txt" read and, when it is a JSON object, checked against the package.
// Entries protected with another password, or with none, come from the seed corpus.

#include "flasher/esppackage.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"
#include "fuzzsupport.h"

#include <QCryptographicHash>
#include <QFile>
#include <QSet>

#include <cstdio>
#include <cstdlib>

namespace {

// More entries than any package carries; enough to reach every reader path.
constexpr int maxEntriesRead = 24;

void readEntries(EspPackage &package)
{
    const QStringList names = package.entryNames();
    QSet<QString> seen;
    for (const QString &name : names) {
        if (seen.size() >= maxEntriesRead)
            break;
        if (seen.contains(name))
            continue;
        seen.insert(name);
        check(package.contains(name), "a listed entry is contained");
        QByteArray bytes("stale");
        const EspPackage::EntryStatus status = package.readEntry(name, &bytes);
        if (status == EspPackage::EntryStatus::Ok) {
            check(bytes.size() == package.uncompressedSize(name), "an entry is its declared size");
            check(package.zipError() == 0, "no error after a good read");
        } else {
            check(bytes.isEmpty(), "a failed read leaves no bytes");
        }
        // Whole, piece by piece into a digest: the same outcome.
        QByteArray md5;
        const EspPackage::EntryStatus hashed = package.entryMd5(name, &md5);
        check(hashed == status || status == EspPackage::EntryStatus::Corrupt,
              "a digest reads what a whole read does");
        if (status == EspPackage::EntryStatus::Ok)
            check(md5 == QCryptographicHash::hash(bytes, QCryptographicHash::Md5),
                  "the digest is the entry's");
    }
    QByteArray none("stale");
    check(package.readEntry(QStringLiteral("no such entry\x01"), &none) ==
              EspPackage::EntryStatus::NotFound,
          "a missing entry is not found");
    check(none.isEmpty(), "a missing entry gives no bytes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ensureFuzzApplication();
    const QString path = fuzzScratchDir() + QStringLiteral("/package.zip");
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return 0;
        file.write(reinterpret_cast<const char *>(data), qint64(size));
    }

    EspPackage package(path);
    if (package.open()) {
        check(package.isOpen(), "an opened package is open");
        package.comment();
        readEntries(package);
        package.close();
        check(!package.isOpen() && package.entryNames().isEmpty(),
              "a closed package lists nothing");
    } else {
        check(!package.isOpen() && package.entryNames().isEmpty(),
              "a package that failed to open lists nothing");
    }

    ScatterLoader loader;
    const bool loaded = loader.load(path);
    check(loaded == loader.error().isEmpty(), "a failed load says why");
    check(loader.isPackage(), "a .zip path is a package");
    if (!loaded) {
        check(loader.package() == nullptr, "no package stays open after a failure");
        return 0;
    }
    check(loader.package() && loader.package()->isOpen(), "a loaded package stays open");
    ScatterValidator validator(QStringLiteral("ESP8266EX / 00a1b2c3"), QString());
    QString error;
    const bool valid = validator.parseScatterPack(loader.document(), *loader.package(), &error);
    check(valid == error.isEmpty(), "validation says why it failed");
    if (valid)
        check(loader.package()->contains(validator.loaderText()), "the loader is an entry");
    return 0;
}
