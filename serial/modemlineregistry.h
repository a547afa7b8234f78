#pragma once

#include <esputility/esputility_core_global.h>

#include <QString>

#include <functional>

// Lets a program that runs a chip of its own (a virtual board on a pseudo-terminal, which has
// no modem lines) receive the DTR/RTS changes meant for that port. Real ports never consult it.
// Thread-safe: the worker thread looks up setters while the owner registers and removes them.
class ESPUTILITY_CORE_EXPORT ModemLineRegistry
{
public:
    // Called with the levels as the host asserts them (true = asserted, i.e. the line low).
    using Setter = std::function<void(bool dtrAsserted, bool rtsAsserted)>;

    // Registers `setter` for the device at `path` (symbolic links are resolved); replaces an
    // earlier one. Returns the registration's number, never 0.
    static quint64 add(const QString &path, Setter setter);
    static void remove(const QString &path);
    // Removes the setter only while it is still `registration`: a terminal's name is reused
    // once it is gone, and the new owner's setter must stay.
    static void remove(const QString &path, quint64 registration);
    // The setter for `path`, or an empty function.
    static Setter find(const QString &path);
};
