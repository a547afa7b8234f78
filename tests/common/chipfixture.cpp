#include "chipfixture.h"

#include "serial/qcomport.h"
#include "testpaths.h"

ChipFixture::ChipFixture(const VirtualEsp8266::Config &config)
    : m_chip(std::make_unique<VirtualEsp8266>(config))
{}

ChipFixture::~ChipFixture()
{
    m_chip->stop();
}

bool ChipFixture::start()
{
    if (!m_chip->start())
        return false;
    // Only the ports of chips alive in this process are listed.
    QByteArray list = qgetenv(QComPort::extraPortsVariable);
    if (!list.isEmpty())
        list.append(':');
    list.append(m_chip->devicePath().toLocal8Bit());
    qputenv(QComPort::extraPortsVariable, list);
    return true;
}

QString generatedStubPath()
{
    return testBuildDir() + QStringLiteral("/stub/esp8266_loader_stub.elf");
}
