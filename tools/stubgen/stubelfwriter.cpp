#include "tools/stubgen/stubelfwriter.h"

#include <QSaveFile>
#include <QTemporaryFile>
#include <QVector>

#include <algorithm>
#include <libelf.h>
#include <memory>

namespace {

bool libelfReady()
{
    static const bool ready = elf_version(EV_CURRENT) != EV_NONE;
    return ready;
}

bool failWith(QString *error, const QString &message)
{
    if (error)
        *error = message;
    return false;
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

// One section as it goes into the file; bytes is a private copy that must outlive elf_update().
struct OutputSection
{
    QByteArray name;
    quint32 address = 0;
    QByteArray bytes;
    Elf32_Word flags = 0;
    Elf32_Word segmentFlags = 0;
    Elf_Scn *scn = nullptr;
};

Elf_Scn *addSection(Elf *elf, QByteArray &bytes, Elf32_Word nameOffset, Elf32_Word type,
                    Elf32_Word flags, quint32 address, Elf32_Word alignment)
{
    Elf_Scn *scn = elf_newscn(elf);
    if (!scn)
        return nullptr;
    Elf_Data *data = elf_newdata(scn);
    Elf32_Shdr *header = elf32_getshdr(scn);
    if (!data || !header)
        return nullptr;
    data->d_buf = bytes.isEmpty() ? nullptr : bytes.data();
    data->d_size = static_cast<size_t>(bytes.size());
    data->d_type = ELF_T_BYTE;
    data->d_align = alignment;
    data->d_off = 0;
    data->d_version = EV_CURRENT;
    header->sh_name = nameOffset;
    header->sh_type = type;
    header->sh_flags = flags;
    header->sh_addr = address;
    header->sh_addralign = alignment;
    return scn;
}

} // namespace

void StubElfWriter::setText(quint32 address, const QByteArray &bytes)
{
    m_text = {true, address, bytes};
}

void StubElfWriter::setData(quint32 address, const QByteArray &bytes)
{
    m_data = {true, address, bytes};
}

void StubElfWriter::removeText()
{
    m_text = {};
}

void StubElfWriter::removeData()
{
    m_data = {};
}

QByteArray StubElfWriter::toBytes(QString *error) const
{
    // libelf writes through a file descriptor, so the bytes take a detour through a temporary file.
    QTemporaryFile file;
    if (!file.open()) {
        failWith(error,
                 QStringLiteral("Cannot create a temporary file: %1").arg(file.errorString()));
        return {};
    }
    if (!writeTo(file.handle(), error))
        return {};
    QFile written(file.fileName());
    if (!written.open(QIODevice::ReadOnly)) {
        failWith(
            error,
            QStringLiteral("Cannot read back %1: %2").arg(file.fileName(), written.errorString()));
        return {};
    }
    return written.readAll();
}

bool StubElfWriter::write(const QString &path, QString *error) const
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return failWith(error, QStringLiteral("Cannot write %1: %2").arg(path, file.errorString()));
    if (!writeTo(file.handle(), error))
        return false;
    if (!file.commit())
        return failWith(error, QStringLiteral("Cannot write %1: %2").arg(path, file.errorString()));
    return true;
}

bool StubElfWriter::writeTo(int fd, QString *error) const
{
    if (!libelfReady())
        return failWith(error, QStringLiteral("The ELF library could not be initialised"));

    QVector<OutputSection> sections;
    if (m_text.present)
        sections.append({".text", m_text.address, m_text.bytes, SHF_ALLOC | SHF_EXECINSTR,
                         PF_R | PF_X, nullptr});
    if (m_data.present)
        sections.append(
            {".data", m_data.address, m_data.bytes, SHF_ALLOC | SHF_WRITE, PF_R | PF_W, nullptr});
    for (OutputSection &section : sections)
        section.bytes.detach();

    // Section names: the table starts with the empty name, as every string table does.
    QByteArray names(1, '\0');
    QVector<Elf32_Word> nameOffsets;
    for (const OutputSection &section : sections) {
        nameOffsets.append(Elf32_Word(names.size()));
        names.append(section.name).append('\0');
    }
    const auto namesNameOffset = Elf32_Word(names.size());
    names.append(".shstrtab").append('\0');

    const ElfHandle elf(elf_begin(fd, ELF_C_WRITE, nullptr));
    if (!elf)
        return failWith(error,
                        QStringLiteral("Cannot start the ELF file: %1").arg(libelfMessage()));
    Elf32_Ehdr *header = elf32_newehdr(elf.get());
    if (!header)
        return failWith(error,
                        QStringLiteral("Cannot create the ELF header: %1").arg(libelfMessage()));
    header->e_ident[EI_CLASS] = ELFCLASS32;
    header->e_ident[EI_DATA] = ELFDATA2LSB;
    header->e_ident[EI_VERSION] = EV_CURRENT;
    header->e_ident[EI_OSABI] = ELFOSABI_NONE;
    header->e_type = ET_EXEC;
    header->e_machine = EM_XTENSA;
    header->e_version = EV_CURRENT;
    header->e_entry = m_entry;

    Elf32_Phdr *segments = nullptr;
    if (!sections.isEmpty()) {
        segments = elf32_newphdr(elf.get(), static_cast<size_t>(sections.size()));
        if (!segments)
            return failWith(
                error,
                QStringLiteral("Cannot create the program headers: %1").arg(libelfMessage()));
    }

    for (int i = 0; i < sections.size(); ++i) {
        OutputSection &section = sections[i];
        // A section's address must be a multiple of its alignment; odd addresses get none.
        const Elf32_Word alignment = section.address % 4 == 0 ? 4 : 1;
        section.scn = addSection(elf.get(), section.bytes, nameOffsets.at(i), SHT_PROGBITS,
                                 section.flags, section.address, alignment);
        if (!section.scn)
            return failWith(error, QStringLiteral("Cannot add section %1: %2")
                                       .arg(QString::fromLatin1(section.name), libelfMessage()));
    }
    Elf_Scn *namesScn = addSection(elf.get(), names, namesNameOffset, SHT_STRTAB, 0, 0, 1);
    if (!namesScn)
        return failWith(
            error, QStringLiteral("Cannot add the section name table: %1").arg(libelfMessage()));
    header->e_shstrndx = static_cast<Elf32_Half>(elf_ndxscn(namesScn));

    // Lay the file out first: the segments describe where the sections ended up.
    if (elf_update(elf.get(), ELF_C_NULL) < 0)
        return failWith(error,
                        QStringLiteral("Cannot lay out the ELF file: %1").arg(libelfMessage()));

    // Loadable segments go in ascending address order, as loaders expect.
    QVector<const OutputSection *> byAddress;
    for (const OutputSection &section : sections)
        byAddress.append(&section);
    std::stable_sort(
        byAddress.begin(), byAddress.end(),
        [](const OutputSection *a, const OutputSection *b) { return a->address < b->address; });
    for (int i = 0; i < byAddress.size(); ++i) {
        const Elf32_Shdr *sectionHeader = elf32_getshdr(byAddress.at(i)->scn);
        if (!sectionHeader)
            return failWith(
                error,
                QStringLiteral("Cannot read back a section header: %1").arg(libelfMessage()));
        Elf32_Phdr &segment = segments[i];
        segment.p_type = PT_LOAD;
        segment.p_offset = sectionHeader->sh_offset;
        segment.p_vaddr = sectionHeader->sh_addr;
        segment.p_paddr = sectionHeader->sh_addr;
        segment.p_filesz = sectionHeader->sh_size;
        segment.p_memsz = sectionHeader->sh_size;
        segment.p_flags = byAddress.at(i)->segmentFlags;
        // Offset and address must agree modulo the alignment; an odd address gets none.
        segment.p_align = (segment.p_offset % 4 == segment.p_vaddr % 4) ? 4 : 1;
    }
    if (segments)
        elf_flagphdr(elf.get(), ELF_C_SET, ELF_F_DIRTY);

    if (elf_update(elf.get(), ELF_C_WRITE) < 0)
        return failWith(error,
                        QStringLiteral("Cannot write the ELF file: %1").arg(libelfMessage()));
    return true;
}
