#include "chipfixture.h"

#include "serial/qcomport.h"
#include "testpaths.h"

#include <QFileInfo>

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

QString vendorStubPath()
{
    const QString path = testBuildDir() + QStringLiteral("/stub/vendor/esp8266_loader_stub.elf");
    return QFileInfo::exists(path) ? path : QString();
}

QString vendorLoaderJsonPath()
{
    const QString path =
        testSourceDir() + QStringLiteral("/third_party/vendor-loader/esp8266-loader.json");
    return QFileInfo::exists(path) ? path : QString();
}

QString loaderStubPath()
{
    const QString vendor = vendorStubPath();
    return vendor.isEmpty() ? generatedStubPath() : vendor;
}
