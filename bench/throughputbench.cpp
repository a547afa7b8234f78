#include "bench/throughputbench.h"

#include "bench/chipprocess.h"
#include "serial/qcomport.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>

#include <sys/resource.h>

namespace {

constexpr unsigned int syncBaud = 115200;
constexpr unsigned int fastBaud = 921600;
// Where things go in the chip's 4 MiB flash.
constexpr unsigned int firmwareAddress = 0x000000;
constexpr unsigned int dataAddress = 0x100000;
constexpr unsigned int segmentSize = 0x10000;
constexpr unsigned char size4MB = 4;     // header code of a 4 MB flash
constexpr unsigned char keepCode = 0xFF; // keep the image's own mode / frequency
const QString romMd5Report = QStringLiteral("MD5 checksum is not supported by the ROM loader");

QByteArray md5(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

} // namespace

ThroughputBench::ThroughputBench(const QString &chipProgram, const QString &stubPath,
                                 const QString &workDir)
    : m_chipProgram(chipProgram), m_stubPath(stubPath), m_workDir(workDir)
{
    // The rows time the transfer itself: data that the flash already holds is sent all the same.
    m_tool.setSkipUnchanged(false);
    QObject::connect(&m_tool, &ESPTool::operationError,
                     [this](int, const QString &text) { m_reports << text; });
    QObject::connect(&m_tool, &ESPTool::commandError, [this](int code) {
        m_reports << QStringLiteral("command failed: %1").arg(code);
    });
}

double ThroughputBench::processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

QByteArray ThroughputBench::firmwareImage(unsigned int bytes, quint32 seed)
{
    EspImageBuilder builder;
    builder.setFlashSize(size4MB);
    // Header and checksum block first, then as many segments as fit.
    unsigned int left = bytes - EspImageBuilder::kHeaderSize - 16;
    quint32 address = 0x40200000;
    while (left > EspImageBuilder::kSegmentHeaderSize + 4) {
        const unsigned int length =
            qMin(segmentSize, left - EspImageBuilder::kSegmentHeaderSize) / 4 * 4;
        builder.addRandomSegment(address, int(length), seed++);
        address += length;
        left -= length + EspImageBuilder::kSegmentHeaderSize;
    }
    return builder.build();
}

QString ThroughputBench::saveFile(const QString &name, const QByteArray &bytes)
{
    const QString path = m_workDir + QLatin1Char('/') + name;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return QString();
    return path;
}

void ThroughputBench::measure(const QString &operation, qint64 bytes,
                              const std::function<bool()> &op)
{
    Measurement m;
    m.operation = operation;
    m.loader = m_tool.isStubRunning() ? QStringLiteral("stub") : QStringLiteral("ROM");
    m.baud = m_baud;
    m.bytes = bytes;
    m_reports.clear();
    const double cpuBefore = processCpuSeconds();
    QElapsedTimer timer;
    timer.start();
    const bool ok = op();
    m.seconds = timer.nsecsElapsed() / 1e9;
    m.cpuSeconds = processCpuSeconds() - cpuBefore;
    m.check = ok ? QStringLiteral("ok")
                 : QStringLiteral("FAILED: ") + m_reports.value(0, QStringLiteral("no report"));
    m_results << m;
}

bool ThroughputBench::write(bool firmware, unsigned int address, const QByteArray &bytes)
{
    const QString path = saveFile(firmware ? QStringLiteral("firmware.bin") : "data.bin", bytes);
    if (m_tool.write_flash_file(path, firmware, address, size4MB, keepCode, keepCode))
        return true;
    // Through the ROM loader the write ends with this report once every block went through.
    return !m_tool.isStubRunning() && m_reports.value(0) == romMd5Report;
}

bool ThroughputBench::read(unsigned int address, const QByteArray &expected)
{
    QFile out(m_workDir + QStringLiteral("/read.bin"));
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray digest;
    m_tool.read_flash(address, unsigned(expected.size()), &out, &digest);
    out.close();
    if (m_reports.isEmpty() && digest != md5(expected))
        m_reports << QStringLiteral("the chip's digest does not match the data written");
    if (m_reports.isEmpty() && ESPTool::get_file_md5(out.fileName()) != md5(expected))
        m_reports << QStringLiteral("the file does not hold the data written");
    return m_reports.isEmpty();
}

void ThroughputBench::checkRomWrite(Measurement &measurement, unsigned int address,
                                    const QByteArray &expected)
{
    if (measurement.check == QLatin1String("ok") &&
        m_tool.get_flash_md5(address, unsigned(expected.size())) != md5(expected))
        measurement.check = QStringLiteral("FAILED: the flash does not hold the data written");
}

bool ThroughputBench::run(bool throttle, unsigned int slowSize, unsigned int fastSize)
{
    // No reset lines reach a chip in another process: it starts in its boot loader.
    QStringList arguments{QStringLiteral("--quiet"), QStringLiteral("--boot-mode"),
                          QStringLiteral("download")};
    if (throttle)
        arguments << QStringLiteral("--throttle");
    ChipProcess chip(m_chipProgram, arguments);
    if (!chip.start()) {
        m_error = chip.errorString();
        return false;
    }
    qputenv(QComPort::extraPortsVariable, chip.devicePath().toLocal8Bit());
    m_baud = syncBaud;
    if (!m_tool.esp_connect(chip.devicePath())) {
        m_error = QStringLiteral("cannot connect to %1").arg(chip.devicePath());
        return false;
    }

    // The image is written as built: its header already says 4 MB.
    const QByteArray slowData = EspImageBuilder::pseudoRandomBytes(int(slowSize), 1);
    const QByteArray slowImage = firmwareImage(slowSize, 2);
    measure(QStringLiteral("write data"), slowData.size(),
            [&] { return write(false, dataAddress, slowData); });
    measure(QStringLiteral("write firmware"), slowImage.size(),
            [&] { return write(true, firmwareAddress, slowImage); });

    m_reports.clear();
    if (!m_tool.write_loader_stub(m_stubPath)) {
        m_error = QStringLiteral("stub upload failed: %1").arg(m_reports.value(0));
        return false;
    }
    checkRomWrite(m_results[m_results.size() - 2], dataAddress, slowData);
    checkRomWrite(m_results[m_results.size() - 1], firmwareAddress, slowImage);

    measure(QStringLiteral("write data"), slowData.size(),
            [&] { return write(false, dataAddress, slowData); });
    measure(QStringLiteral("write firmware"), slowImage.size(),
            [&] { return write(true, firmwareAddress, slowImage); });
    measure(QStringLiteral("read"), slowData.size(), [&] { return read(dataAddress, slowData); });

    m_tool.change_baudrate(fastBaud);
    m_baud = fastBaud;
    const QByteArray fastData = EspImageBuilder::pseudoRandomBytes(int(fastSize), 3);
    const QByteArray fastImage = firmwareImage(fastSize, 4);
    measure(QStringLiteral("write data"), fastData.size(),
            [&] { return write(false, dataAddress, fastData); });
    measure(QStringLiteral("write firmware"), fastImage.size(),
            [&] { return write(true, firmwareAddress, fastImage); });
    measure(QStringLiteral("read"), fastData.size(), [&] { return read(dataAddress, fastData); });

    m_tool.esp_disconnect();
    return true;
}
