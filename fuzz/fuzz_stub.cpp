// Fuzz target: the flash loader reader, both forms (ELF through libelf, and JSON), from bytes and
// from a device. A refused file must leave nothing behind and say why; an accepted one must only
// hold sections whose bytes and addresses are consistent.

#include "fuzzsupport.h"
#include "protocol/elfstubimage.h"

#include <QBuffer>

#include <cstdio>
#include <cstdlib>

namespace {

void checkImage(const ElfStubImage &image, bool loaded)
{
    check(image.isValid() == loaded, "isValid tells the result of load");
    if (!loaded) {
        check(!image.errorString().isEmpty(), "a refused loader says why");
        check(image.sections().isEmpty() && image.entry() == 0, "a refused loader leaves nothing");
        check(image.section(QStringLiteral(".text")) == nullptr, "no section after a refusal");
        return;
    }
    check(image.errorString().isEmpty(), "no message after success");
    for (const ElfStubImage::Section &section : image.sections()) {
        check(quint64(section.address) + section.size <= (quint64(1) << 32),
              "sections stay inside the address space");
        check(section.data.isEmpty() || quint32(section.data.size()) == section.size,
              "section bytes are the section's size or absent");
        check(image.section(section.name) != nullptr, "every section can be found by name");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));

    ElfStubImage fromBytes;
    const bool loaded = fromBytes.load(bytes);
    checkImage(fromBytes, loaded);

    // The device form reads to the end and must come to the same result.
    QByteArray copy = bytes;
    QBuffer buffer(&copy);
    buffer.open(QIODevice::ReadOnly);
    ElfStubImage fromDevice;
    check(fromDevice.load(&buffer) == loaded, "device and bytes agree");
    checkImage(fromDevice, loaded);
    if (loaded) {
        check(fromDevice.entry() == fromBytes.entry(), "same entry point");
        check(fromDevice.sections().size() == fromBytes.sections().size(), "same sections");
    }
    check(copy == bytes, "the input is never changed");

    // A reader reused for another file forgets the previous one.
    ElfStubImage reused;
    reused.load(QByteArrayLiteral("{\"text\":\"\",\"data\":\"\",\"text_start\":0,"
                                  "\"data_start\":0,\"entry\":0}"));
    check(reused.load(bytes) == loaded, "a reused reader gives the same result");
    checkImage(reused, loaded);
    return 0;
}
