#include "protocol/elfstubimage.h"

#include <QIODevice>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>

#include <algorithm>
#include <cctype>
#include <cmath>

#include <cstring>
#include <libelf.h>
#include <memory>

namespace {

// libelf wants its version negotiated once per process before any other call.
bool libelfReady()
{
    static const bool ready = elf_version(EV_CURRENT) != EV_NONE;
    return ready;
}

QString libelfMessage()
{
    const char *message = elf_errmsg(-1);
    return message ? QString::fromLocal8Bit(message) : QStringLiteral("unknown error");
}

struct ElfEnd
{
    void operator()(Elf *elf) const { elf_end(elf); }
};
using ElfHandle = std::unique_ptr<Elf, ElfEnd>;

QString sectionLabel(size_t index, const QString &name)
{
    return name.isEmpty() ? QStringLiteral("section %1").arg(index)
                          : QStringLiteral("section %1 (%2)").arg(index).arg(name);
}

} // namespace

bool ElfStubImage::load(const QByteArray &bytes)
{
    clear();
    if (!libelfReady())
        return fail(QStringLiteral("The ELF library could not be initialised"));
    if (bytes.isEmpty())
        return fail(QStringLiteral("The loader file is empty"));
    if (bytes.size() > MaxFileSize)
        return fail(QStringLiteral("The loader file is too large (%1 bytes, at most %2)")
                        .arg(bytes.size())
                        .arg(MaxFileSize));

    const int firstVisible = int(
        std::find_if(bytes.cbegin(), bytes.cend(), [](char c) { return !std::isspace(uchar(c)); }) -
        bytes.cbegin());
    if (firstVisible < bytes.size() && bytes.at(firstVisible) == '{')
        return loadJson(bytes);
    return loadElf(bytes);
}

bool ElfStubImage::loadElf(const QByteArray &bytes)
{
    const auto fileSize = static_cast<quint64>(bytes.size());
    const auto *ident = reinterpret_cast<const unsigned char *>(bytes.constData());
    if (fileSize < SELFMAG || std::memcmp(ident, ELFMAG, SELFMAG) != 0)
        return fail(QStringLiteral("Not an ELF file"));
    if (fileSize < EI_NIDENT)
        return fail(QStringLiteral("The ELF file is truncated: it ends inside its identification"));
    // Refused here rather than left to libelf: a loader for this chip is always 32-bit
    // little-endian, and anything else would only be misread further on.
    if (ident[EI_CLASS] == ELFCLASS64)
        return fail(
            QStringLiteral("The file is a 64-bit ELF file; the loader must be a 32-bit one"));
    if (ident[EI_CLASS] != ELFCLASS32)
        return fail(QStringLiteral("The ELF file has an unknown class (%1)").arg(ident[EI_CLASS]));
    if (ident[EI_DATA] == ELFDATA2MSB)
        return fail(QStringLiteral("The ELF file is big-endian; the loader must be little-endian"));
    if (ident[EI_DATA] != ELFDATA2LSB)
        return fail(
            QStringLiteral("The ELF file has an unknown byte order (%1)").arg(ident[EI_DATA]));
    if (fileSize < sizeof(Elf32_Ehdr))
        return fail(
            QStringLiteral("The ELF file is truncated: its header needs %1 bytes, the file has %2")
                .arg(sizeof(Elf32_Ehdr))
                .arg(fileSize));

    // A private copy: libelf gets a writable buffer and we never depend on the caller's lifetime.
    QByteArray buffer(bytes.constData(), bytes.size());
    const ElfHandle elf(elf_memory(buffer.data(), static_cast<size_t>(buffer.size())));
    if (!elf)
        return fail(QStringLiteral("Cannot read the ELF file: %1").arg(libelfMessage()));
    if (elf_kind(elf.get()) != ELF_K_ELF)
        return fail(QStringLiteral("Not an ELF file"));
    const Elf32_Ehdr *mappedHeader = elf32_getehdr(elf.get());
    if (!mappedHeader)
        return fail(QStringLiteral("The ELF header is unreadable: %1").arg(libelfMessage()));
    Elf32_Ehdr header;
    std::memcpy(&header, mappedHeader, sizeof header);

    // libelf quietly reports no sections when the table lies outside the file, so the header's
    // own description of the table is checked first.
    const bool hasTable = header.e_shoff != 0 || header.e_shnum != 0;
    if (hasTable) {
        if (header.e_shentsize != sizeof(Elf32_Shdr))
            return fail(
                QStringLiteral("The section table is broken: entries of %1 bytes instead of %2")
                    .arg(header.e_shentsize)
                    .arg(sizeof(Elf32_Shdr)));
        if (header.e_shoff < sizeof(Elf32_Ehdr))
            return fail(QStringLiteral("The section table is broken: it overlaps the ELF header"));
        const quint64 declaredEnd = quint64(header.e_shoff) +
                                    quint64(qMax<quint16>(header.e_shnum, 1)) * sizeof(Elf32_Shdr);
        if (declaredEnd > fileSize)
            return fail(
                QStringLiteral(
                    "The ELF file is truncated: its section table ends at byte %1, the file has %2 bytes")
                    .arg(declaredEnd)
                    .arg(fileSize));
    }

    size_t sectionCount = 0;
    if (elf_getshdrnum(elf.get(), &sectionCount) != 0)
        return fail(QStringLiteral("The section table is broken: %1").arg(libelfMessage()));
    if (header.e_shnum != 0 && sectionCount != header.e_shnum)
        return fail(QStringLiteral("The section table is broken: %1 sections declared, %2 readable")
                        .arg(header.e_shnum)
                        .arg(sectionCount));
    // With more sections than the header can count, the real count sits in section 0.
    const quint64 tableEnd = quint64(header.e_shoff) + quint64(sectionCount) * sizeof(Elf32_Shdr);
    if (tableEnd > fileSize)
        return fail(
            QStringLiteral(
                "The ELF file is truncated: its section table ends at byte %1, the file has %2 bytes")
                .arg(tableEnd)
                .arg(fileSize));

    size_t namesIndex = SHN_UNDEF;
    if (elf_getshdrstrndx(elf.get(), &namesIndex) != 0)
        return fail(QStringLiteral("The section name table is broken: %1").arg(libelfMessage()));
    if (namesIndex != SHN_UNDEF && namesIndex >= sectionCount)
        return fail(QStringLiteral("The section name table is broken: it names section %1 of %2")
                        .arg(namesIndex)
                        .arg(sectionCount));

    QVector<Section> sections;
    sections.reserve(int(sectionCount > 0 ? sectionCount - 1 : 0));
    for (size_t index = 1; index < sectionCount; ++index) {
        Elf_Scn *scn = elf_getscn(elf.get(), index);
        const Elf32_Shdr *mappedSectionHeader = scn ? elf32_getshdr(scn) : nullptr;
        if (!mappedSectionHeader)
            return fail(QStringLiteral("The section table is broken: section %1 is unreadable: %2")
                            .arg(index)
                            .arg(libelfMessage()));
        // libelf may point straight into the file, at any alignment: copy before reading fields.
        Elf32_Shdr sectionHeader;
        std::memcpy(&sectionHeader, mappedSectionHeader, sizeof sectionHeader);

        Section section;
        if (namesIndex != SHN_UNDEF) {
            const char *name = elf_strptr(elf.get(), namesIndex, sectionHeader.sh_name);
            if (!name)
                return fail(QStringLiteral(
                                "The section names are broken: section %1 has no readable name: %2")
                                .arg(index)
                                .arg(libelfMessage()));
            section.name = QString::fromUtf8(name);
        }
        const QString label = sectionLabel(index, section.name);
        section.address = sectionHeader.sh_addr;
        section.size = sectionHeader.sh_size;
        if (quint64(section.address) + section.size > (quint64(1) << 32))
            return fail(
                QStringLiteral("The ELF file is broken: %1 runs past the end of the address space")
                    .arg(label));

        const bool hasFileData = sectionHeader.sh_type != SHT_NOBITS &&
                                 sectionHeader.sh_type != SHT_NULL && section.size > 0;
        if (hasFileData) {
            const quint64 end = quint64(sectionHeader.sh_offset) + section.size;
            if (end > fileSize)
                return fail(
                    QStringLiteral(
                        "The ELF file is truncated or broken: %1 lies at bytes %2 to %3, the file has %4 bytes")
                        .arg(label)
                        .arg(sectionHeader.sh_offset)
                        .arg(end)
                        .arg(fileSize));
            const Elf_Data *data = elf_rawdata(scn, nullptr);
            if (!data || !data->d_buf || data->d_size != section.size)
                return fail(QStringLiteral("Cannot read the contents of %1: %2")
                                .arg(label)
                                .arg(libelfMessage()));
            section.data = QByteArray(static_cast<const char *>(data->d_buf), int(data->d_size));
        }
        sections.append(section);
    }

    m_entry = header.e_entry;
    m_machine = header.e_machine;
    m_sections = sections;
    m_valid = true;
    return true;
}

namespace {

// A JSON number that is a whole 32-bit value.
bool jsonWord(const QJsonObject &object, const char *key, quint32 *value)
{
    const QJsonValue field = object.value(QLatin1String(key));
    if (!field.isDouble())
        return false;
    const double number = field.toDouble();
    if (!(number >= 0 && number <= 4294967295.0) || number != std::floor(number))
        return false;
    *value = quint32(number);
    return true;
}

bool jsonBase64(const QJsonObject &object, const char *key, QByteArray *value)
{
    const QJsonValue field = object.value(QLatin1String(key));
    if (!field.isString())
        return false;
    const auto decoded = QByteArray::fromBase64Encoding(field.toString().toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return false;
    *value = decoded.decoded;
    return true;
}

} // namespace

bool ElfStubImage::loadJson(const QByteArray &bytes)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return fail(QStringLiteral("The loader's JSON cannot be parsed: %1 (at offset %2)")
                        .arg(parseError.errorString())
                        .arg(parseError.offset));
    const QJsonObject object = document.object();

    Section text{QStringLiteral(".text"), 0, 0, {}};
    Section data{QStringLiteral(".data"), 0, 0, {}};
    quint32 entry = 0;
    if (!jsonBase64(object, "text", &text.data) || !jsonBase64(object, "data", &data.data))
        return fail(
            QStringLiteral("The loader's JSON needs \"text\" and \"data\" as base64 strings"));
    if (!jsonWord(object, "text_start", &text.address) ||
        !jsonWord(object, "data_start", &data.address) || !jsonWord(object, "entry", &entry))
        return fail(QStringLiteral(
            "The loader's JSON needs \"text_start\", \"data_start\" and \"entry\" as 32-bit addresses"));
    for (Section *section : {&text, &data}) {
        section->size = quint32(section->data.size());
        if (quint64(section->address) + section->size > 0x100000000ULL)
            return fail(
                QStringLiteral("The loader's %1 section runs past the end of the address space")
                    .arg(section->name));
    }
    constexpr quint16 machineXtensa = 94;
    m_sections = {text, data};
    m_entry = entry;
    m_machine = machineXtensa;
    m_valid = true;
    return true;
}

bool ElfStubImage::load(QIODevice *device)
{
    clear();
    if (!device || !device->isReadable())
        return fail(QStringLiteral("Cannot read the loader: the device is not open for reading"));

    // Read in chunks so a sequential device is drained too, but never beyond the size limit.
    constexpr qint64 chunkSize = 64 * 1024;
    QByteArray bytes;
    while (bytes.size() <= MaxFileSize) {
        QByteArray chunk(int(qMin(chunkSize, MaxFileSize + 1 - bytes.size())), Qt::Uninitialized);
        const qint64 received = device->read(chunk.data(), chunk.size());
        if (received < 0)
            return fail(QStringLiteral("Cannot read the loader: %1").arg(device->errorString()));
        if (received == 0)
            break;
        bytes.append(chunk.constData(), int(received));
    }
    return load(bytes);
}

void ElfStubImage::clear()
{
    m_valid = false;
    m_error.clear();
    m_entry = 0;
    m_machine = 0;
    m_sections.clear();
}

const ElfStubImage::Section *ElfStubImage::section(const QString &name) const
{
    for (const Section &candidate : m_sections) {
        if (candidate.name == name)
            return &candidate;
    }
    return nullptr;
}

bool ElfStubImage::fail(const QString &message)
{
    clear();
    m_error = message;
    return false;
}
