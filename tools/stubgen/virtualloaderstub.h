#pragma once

#include "tools/stubgen/stubelfwriter.h"

#include <QByteArray>

// The project's own loader stub for the virtual ESP8266. The virtual chip runs no Xtensa code: it
// treats the upload as "the stub" once the entry point lies inside downloaded code, so these
// sections are a stand-in with deterministic bytes, sized and placed like a real loader's (a
// ".text" that needs more than one 0x1800-byte RAM block, a small ".data"). It is not a loader
// for real boards.
class VirtualLoaderStub
{
public:
    static constexpr quint32 DefaultTextAddress = 0x4010C000;
    static constexpr quint32 DefaultTextSize = 0x2100;
    static constexpr quint32 DefaultDataAddress = 0x3FFE8000;
    static constexpr quint32 DefaultDataSize = 0x200;
    static constexpr quint32 EntryOffset = 4; // entry = text address + this
    // Far above any RAM of the chip; larger requests give empty bytes.
    static constexpr quint32 MaxSectionSize = 0x100000;

    // Readable identification at the start of ".text", then a fixed pseudo-random filler;
    // truncated when size is smaller than the identification.
    static QByteArray textBytes(quint32 size);
    // Same scheme for ".data", with its own identification and filler.
    static QByteArray dataBytes(quint32 size);
    static QByteArray textIdentification();
    static QByteArray dataIdentification();

    // A writer preset with the default layout.
    static StubElfWriter defaultWriter();
};
