#include "chipfixture.h"

#include "ptypair.h"
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
    PtyPair::publish(m_chip->devicePath()); // only the ports of chips alive here are listed
    return true;
}

static QString ifExists(const QString &path)
{
    return QFileInfo::exists(path) ? path : QString();
}

QString generatedStubPath()
{
    return testBuildDir() + QStringLiteral("/stub/esp8266_loader_stub.elf");
}

QString vendorStubPath()
{
    return ifExists(testBuildDir() + QStringLiteral("/stub/vendor/esp8266_loader_stub.elf"));
}

QString vendorLoaderJsonPath()
{
    return ifExists(testSourceDir() +
                    QStringLiteral("/third_party/vendor-loader/esp8266-loader.json"));
}

QString loaderStubPath()
{
    const QString vendor = vendorStubPath();
    return vendor.isEmpty() ? generatedStubPath() : vendor;
}
