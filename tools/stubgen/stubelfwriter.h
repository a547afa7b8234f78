#pragma once

#include <QByteArray>
#include <QString>

// Writes a 32-bit little-endian Xtensa executable with a ".text" and a ".data" section (either may
// be left out), a section-name table, one loadable segment per section and an entry point, so
// that the loader reader and standard ELF tools can both read it.
class StubElfWriter
{
public:
    void setText(quint32 address, const QByteArray &bytes);
    void setData(quint32 address, const QByteArray &bytes);
    void removeText();
    void removeData();
    void setEntry(quint32 entry) { m_entry = entry; }

    bool hasText() const { return m_text.present; }
    bool hasData() const { return m_data.present; }
    quint32 entry() const { return m_entry; }

    // Empty on failure, with the reason in *error.
    QByteArray toBytes(QString *error = nullptr) const;
    // Replaces the file at path only when the whole file could be written.
    bool write(const QString &path, QString *error = nullptr) const;

private:
    struct Part
    {
        bool present = false;
        quint32 address = 0;
        QByteArray bytes;
    };

    bool writeTo(int fd, QString *error) const;

    Part m_text;
    Part m_data;
    quint32 m_entry = 0;
};
