#include "virtualchip/virtualchipfaults.h"

void VirtualChipFaults::armSilence(int commands)
{
    m_silenceLeft = qMax(0, commands);
    m_silent = m_silenceLeft == 0;
}

void VirtualChipFaults::armCorruptAnswer(int nth, VirtualEsp8266::Corruption kind)
{
    m_corruptIn = qMax(1, nth);
    m_corruption = kind;
}

void VirtualChipFaults::armErrorStatus(int nth, quint8 code)
{
    m_refuseIn = qMax(1, nth);
    m_refuseCode = code;
}

void VirtualChipFaults::armVanishAfterCommands(int commands)
{
    m_vanishCommandsLeft = qMax(1, commands);
}

void VirtualChipFaults::disarm()
{
    *this = VirtualChipFaults();
}

bool VirtualChipFaults::countDown(int &counter)
{
    if (counter <= 0)
        return false;
    return --counter == 0;
}

VirtualChipFaults::Plan VirtualChipFaults::nextCommand()
{
    Plan plan;
    plan.drop = countDown(m_dropIn);
    plan.corrupt = countDown(m_corruptIn);
    plan.corruption = m_corruption;
    plan.stray = countDown(m_strayIn);
    plan.refuse = countDown(m_refuseIn);
    plan.refuseCode = m_refuseCode;
    plan.ignore = countDown(m_ignoreIn);
    return plan;
}

bool VirtualChipFaults::commandHandled()
{
    if (m_silenceLeft > 0 && --m_silenceLeft == 0)
        m_silent = true;
    if (m_vanishCommandsLeft > 0 && --m_vanishCommandsLeft == 0) {
        m_vanishCommandsLeft = -1;
        return true;
    }
    return false;
}

bool VirtualChipFaults::byteReceived()
{
    if (m_vanishBytesLeft <= 0)
        return false;
    return --m_vanishBytesLeft == 0;
}
