#pragma once

#include "virtualchip/virtualesp8266.h"

// Armed faults of the virtual chip and their countdowns, counted in received commands (or
// bytes) from the moment each was armed.
class VirtualChipFaults
{
public:
    // What happens to the command being handled.
    struct Plan
    {
        bool drop = false;    // handle it, but send no answer
        bool corrupt = false; // damage the first answer on the wire
        VirtualEsp8266::Corruption corruption = VirtualEsp8266::Corruption::BrokenEscape;
        bool stray = false;  // an answer to another opcode goes first
        bool refuse = false; // answer with an error status instead of acting
        quint8 refuseCode = 0;
        bool ignore = false; // neither act nor answer, as for a command the loader does not know
    };

    void armSilence(int commands);
    void armDropAnswer(int nth) { m_dropIn = qMax(1, nth); }
    void armCorruptAnswer(int nth, VirtualEsp8266::Corruption kind);
    void armStrayAnswer(int nth) { m_strayIn = qMax(1, nth); }
    void armErrorStatus(int nth, quint8 code);
    void armIgnoreCommand(int nth) { m_ignoreIn = qMax(1, nth); }
    // At least one command; vanishing at once is the machine's business.
    void armVanishAfterCommands(int commands);
    void armVanishAfterBytes(qint64 bytes) { m_vanishBytesLeft = qMax<qint64>(1, bytes); }
    void disarm();

    // True when the chip no longer answers anything.
    bool silent() const { return m_silent; }
    // Called for each received command the chip would answer; advances the countdowns.
    Plan nextCommand();
    // Called after the command was handled; true when the port should now vanish (once the
    // answers are out).
    bool commandHandled();
    // Called for each received byte; true when the port vanishes now.
    bool byteReceived();

private:
    static bool countDown(int &counter);

    int m_silenceLeft = -1; // commands still answered before silence; -1 = not armed
    bool m_silent = false;
    int m_dropIn = 0; // 0 = not armed, else the command number that triggers
    int m_corruptIn = 0;
    VirtualEsp8266::Corruption m_corruption = VirtualEsp8266::Corruption::BrokenEscape;
    int m_strayIn = 0;
    int m_refuseIn = 0;
    quint8 m_refuseCode = 0;
    int m_ignoreIn = 0;
    int m_vanishCommandsLeft = -1; // -1 = not armed
    qint64 m_vanishBytesLeft = 0;  // 0 = not armed
};
