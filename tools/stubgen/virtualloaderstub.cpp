#include "tools/stubgen/virtualloaderstub.h"

namespace {

// xorshift32: cheap, deterministic on every platform, and no run of repeated bytes that could
// hide an off-by-one block boundary in tests.
QByteArray filled(const QByteArray &identification, quint32 size, quint32 seed)
{
    if (size > VirtualLoaderStub::MaxSectionSize)
        return {};
    QByteArray bytes = identification.left(int(size));
    bytes.reserve(int(size));
    quint32 state = seed;
    while (quint32(bytes.size()) < size) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes.append(char(state & 0xFF));
    }
    return bytes;
}

} // namespace

QByteArray VirtualLoaderStub::textIdentification()
{
    return QByteArrayLiteral(
        "ESP Utility stand-in loader for the virtual ESP8266 - not for real boards. text.");
}

QByteArray VirtualLoaderStub::dataIdentification()
{
    return QByteArrayLiteral("ESP Utility stand-in loader data.");
}

QByteArray VirtualLoaderStub::textBytes(quint32 size)
{
    return filled(textIdentification(), size, 0x7E57C0DEu);
}

QByteArray VirtualLoaderStub::dataBytes(quint32 size)
{
    return filled(dataIdentification(), size, 0x0DA7A5EDu);
}

StubElfWriter VirtualLoaderStub::defaultWriter()
{
    StubElfWriter writer;
    writer.setText(DefaultTextAddress, textBytes(DefaultTextSize));
    writer.setData(DefaultDataAddress, dataBytes(DefaultDataSize));
    writer.setEntry(DefaultTextAddress + EntryOffset);
    return writer;
}
