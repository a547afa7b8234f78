#include "chipfixture.h"

#include "ptypair.h"
#include "testpaths.h"

#include <QFileInfo>

ChipFixture::ChipFixture(const VirtualEsp8266::Config &config, VirtualBoard::Wiring wiring)
    : m_board(std::make_unique<VirtualBoard>(config, wiring))
{}

ChipFixture::~ChipFixture()
{
    m_board->stop();
}

bool ChipFixture::start()
{
    if (!m_board->start())
        return false;
    PtyPair::publish(m_board->devicePath()); // only the ports of chips alive here are listed
    return true;
}

QString generatedStubPath()
{
    return testBuildDir() + "/stub/esp8266_loader_stub.elf";
}

QString vendorStubPath()
{
    const QString path = testBuildDir() + "/stub/vendor/esp8266_loader_stub.elf";
    return QFileInfo::exists(path) ? path : QString();
}

QString vendorLoaderJsonPath()
{
    const QString path = testSourceDir() + "/third_party/vendor-loader/esp8266-loader.json";
    return QFileInfo::exists(path) ? path : QString();
}

QString loaderStubPath()
{
    const QString vendor = vendorStubPath();
    return vendor.isEmpty() ? generatedStubPath() : vendor;
}
