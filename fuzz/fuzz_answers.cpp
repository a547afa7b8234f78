// Fuzz target: the protocol client's handling of answers. A real ESPTool on a real serial port
// (a pseudo-terminal) runs a fuzz-chosen sequence of operations: connect, registers, chip and
// flash identification, loader upload, firmware and data writes, flash reads, MD5, erase, SPI
// commands and raw commands. Every request is answered at once by AnswerPeer with the next reply
// record of the fuzz input; the operations are taken from the end of the input, the reply
// records from its start.
//
// Beyond "no crash": an operation that says it failed must have reported why, one that succeeded
// must not have; and as long as every answer was a correct one, results must match the peer's
// chip model.

#include "answerpeer.h"
#include "fuzzsupport.h"
#include "image/espimageparser.h"
#include "protocol/esptool.h"
#include "serial/qcomport.h"
#include "tools/imagegen/espimagebuilder.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

namespace {

AnswerPeer &peer()
{
    static AnswerPeer *const instance = [] {
        ensureFuzzApplication();
        static AnswerPeer made;
        // The client opens only ports it can list; the terminal is listed through this.
        qputenv(QComPort::extraPortsVariable, made.portName().toLocal8Bit());
        return &made;
    }();
    return *instance;
}

// Loaders the upload operation picks from: the ELF and JSON forms of the stand-in loader, and
// an ELF without its ".data" section.
const QByteArray &loaderBytes(int which)
{
    static const QByteArray elf = VirtualLoaderStub::defaultWriter().toBytes();
    static const QByteArray json = [] {
        QJsonObject object;
        object.insert(QStringLiteral("text"),
                      QString::fromLatin1(VirtualLoaderStub::textBytes(0x1900).toBase64()));
        object.insert(QStringLiteral("data"),
                      QString::fromLatin1(VirtualLoaderStub::dataBytes(0x40).toBase64()));
        object.insert(QStringLiteral("text_start"), double(VirtualLoaderStub::DefaultTextAddress));
        object.insert(QStringLiteral("data_start"), double(VirtualLoaderStub::DefaultDataAddress));
        object.insert(QStringLiteral("entry"), double(VirtualLoaderStub::DefaultTextAddress + 4));
        return QJsonDocument(object).toJson(QJsonDocument::Compact);
    }();
    static const QByteArray withoutData = [] {
        StubElfWriter writer = VirtualLoaderStub::defaultWriter();
        writer.removeData();
        return writer.toBytes();
    }();
    switch (which % 4) {
    case 0:
    case 1:
        return elf;
    case 2:
        return json;
    default:
        return withoutData;
    }
}

QByteArray patternData(int size, quint8 seed)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 131 + seed * 7 + (i >> 8)) & 0xFF);
    return bytes;
}

unsigned char sizeCode(FuzzedDataProvider &ops)
{
    static const unsigned char codes[] = {4, 4, 2, 3, 0, 1, 5, 6, 7, 8, 9, 0xFF};
    return codes[ops.ConsumeIntegralInRange<size_t>(0, sizeof codes - 1)];
}

quint32 flashAddress(FuzzedDataProvider &ops)
{
    // Mostly sector-aligned inside the peer's modelled flash, now and then anything at all.
    if (ops.ConsumeIntegralInRange<int>(0, 7) == 0)
        return ops.ConsumeIntegral<quint32>();
    return ops.ConsumeIntegralInRange<quint32>(0, 0x2F) * 0x1000;
}

class Harness
{
public:
    Harness(AnswerPeer &peer, FuzzedDataProvider &ops) : m_peer(peer), m_ops(ops)
    {
        QObject::connect(&m_tool, &ESPTool::operationError, [this](int, const QString &text) {
            check(!text.isEmpty(), "an operation error has a text");
            ++m_reports;
        });
        QObject::connect(&m_tool, &ESPTool::commandError, [this](int) { ++m_reports; });
    }

    void run()
    {
        m_tool.esp_connect(m_peer.portName());
        check(m_tool.isConnected(), "the terminal opens");
        const int count = m_ops.ConsumeIntegralInRange<int>(1, 6);
        for (int i = 0; i < count && m_tool.isConnected(); ++i)
            runOperation(m_ops.ConsumeIntegralInRange<int>(0, 13));
        m_tool.esp_disconnect();
        check(!m_tool.isConnected(), "disconnected after esp_disconnect");
    }

private:
    // Reports since the start of the current operation.
    void startOperation() { m_reportsBefore = m_reports; }
    bool reported() const { return m_reports != m_reportsBefore; }
    // Only a session without any other reply so far has no stale answer queued that the client
    // could take for the current one (answers carry no sequence numbers).
    bool allAnswersCorrect() const { return m_peer.scriptedReplies() == 0; }

    void runOperation(int operation)
    {
        startOperation();
        switch (operation) {
        case 0:
            m_tool.read_reg(m_ops.ConsumeIntegral<quint32>());
            break;
        case 1:
            m_tool.write_reg(m_ops.ConsumeIntegral<quint32>(), m_ops.ConsumeIntegral<quint32>(),
                             0xFFFFFFFF, 0);
            break;
        case 2: {
            const QString description = m_tool.get_chip_description();
            check(description == QLatin1String("ESP8266EX") ||
                      description == QLatin1String("ESP8285"),
                  "the chip is one of the two");
            m_tool.get_chip_id();
            const QByteArray mac = m_tool.get_chip_mac();
            check(mac.isEmpty() ? reported() : mac.size() == 6, "a MAC has 6 bytes or a report");
            break;
        }
        case 3: {
            const ESPTool::SPIFLASH_IDENTIFIER flash = m_tool.get_flash_id();
            check(!flash.toString().isEmpty(), "the flash has a description");
            flash.flashSizeGuess();
            break;
        }
        case 4:
            uploadLoader();
            break;
        case 5:
            writeData();
            break;
        case 6:
            writeFirmware();
            break;
        case 7:
            readFlash();
            break;
        case 8:
            flashMd5();
            break;
        case 9:
            if (m_ops.ConsumeBool())
                m_tool.erase_flash();
            else
                m_tool.erase_flash_region(flashAddress(m_ops),
                                          m_ops.ConsumeIntegralInRange<quint32>(0, 0x20000));
            break;
        case 10:
            m_tool.flash_spi_attach(m_ops.ConsumeIntegralInRange<int>(0, 7) == 0);
            m_tool.flash_set_params(0x400000);
            break;
        case 11:
            m_tool.spiflash_status(m_ops.ConsumeIntegralInRange<int>(0, 4));
            m_tool.run_spiflash_command(m_ops.ConsumeIntegral<quint8>(),
                                        QByteArray(m_ops.ConsumeIntegralInRange<int>(0, 70), 'x'),
                                        m_ops.ConsumeIntegralInRange<unsigned int>(0, 40));
            break;
        case 12: {
            const auto op = static_cast<ESPTool::Opcode>(m_ops.ConsumeIntegral<quint8>());
            const QByteArray answer = m_tool.esp_command_secure(
                op, patternData(m_ops.ConsumeIntegralInRange<int>(0, 40), 3), 3000);
            Q_UNUSED(answer);
            break;
        }
        default:
            if (m_ops.ConsumeBool())
                m_tool.write_flash_finish(m_ops.ConsumeBool());
            else
                m_tool.sync();
            break;
        }
    }

    void uploadLoader()
    {
        QByteArray bytes = loaderBytes(m_ops.ConsumeIntegral<quint8>());
        QBuffer device(&bytes);
        device.open(QIODevice::ReadOnly);
        const bool uploaded = m_tool.write_loader_stub(&device);
        check(uploaded != reported(), "an upload fails with a report, succeeds without");
        if (uploaded)
            check(m_tool.isStubRunning(), "a loader that greeted runs");
    }

    void writeData()
    {
        const quint32 address = flashAddress(m_ops);
        QByteArray data = patternData(m_ops.ConsumeIntegralInRange<int>(0, 20000),
                                      m_ops.ConsumeIntegral<quint8>());
        const QByteArray original = data;
        const unsigned char size = sizeCode(m_ops);
        QBuffer device(&data);
        device.open(QIODevice::ReadOnly);
        const bool written = m_tool.write_flash_file(&device, QStringLiteral("data.bin"), false,
                                                     address, size, 0xFF, 0xFF);
        check(written != reported(), "a data write fails with a report, succeeds without");
        if (written && allAnswersCorrect() &&
            quint64(address) + original.size() <= AnswerPeer::modelFlashSize)
            check(m_peer.modelFlash(address, quint32(original.size())) == original,
                  "a data write puts the file into flash");
    }

    void writeFirmware()
    {
        EspImageBuilder builder;
        builder.setFlashMode(m_ops.ConsumeIntegralInRange<quint8>(0, 3));
        builder.setFlashSize(m_ops.ConsumeIntegralInRange<quint8>(0, 9));
        builder.addRandomSegment(0x40100000, m_ops.ConsumeIntegralInRange<int>(0, 3000),
                                 m_ops.ConsumeIntegral<quint8>());
        if (m_ops.ConsumeBool())
            builder.addRandomSegment(0x3FFE8000, m_ops.ConsumeIntegralInRange<int>(1, 600), 9);
        QByteArray image = builder.build();
        const QByteArray original = image;
        const quint32 address = flashAddress(m_ops);
        const unsigned char size = sizeCode(m_ops);
        const unsigned char mode = m_ops.ConsumeBool() ? 0xFF : m_ops.ConsumeIntegral<quint8>();
        const unsigned char freq = m_ops.ConsumeBool() ? 0xFF : m_ops.ConsumeIntegral<quint8>();
        QBuffer device(&image);
        device.open(QIODevice::ReadOnly);
        const bool written = m_tool.write_flash_file(&device, QStringLiteral("firmware.bin"), true,
                                                     address, size, mode, freq);
        check(written != reported(), "a firmware write fails with a report, succeeds without");
        if (!written || !allAnswersCorrect() ||
            quint64(address) + original.size() > AnswerPeer::modelFlashSize)
            return;
        // On the chip the header carries the codes asked for; the rest is the file unchanged.
        QByteArray expected = original;
        const unsigned char heldMode = mode == 0xFF ? quint8(original.at(2)) : mode;
        const unsigned char heldFreq = freq == 0xFF ? quint8(original.at(3)) & 0x0F : freq;
        expected[2] = char(heldMode);
        expected[3] = char((size << 4) | (heldFreq & 0x0F));
        check(m_peer.modelFlash(address, quint32(expected.size())) == expected,
              "a firmware write puts the patched image into flash");
    }

    void readFlash()
    {
        const quint32 offset = flashAddress(m_ops);
        const quint32 size = m_ops.ConsumeIntegralInRange<quint32>(0, 3 * 4096 + 100);
        QBuffer out;
        out.open(QIODevice::WriteOnly);
        QByteArray digest("stale");
        m_tool.read_flash(offset, size, &out, &digest);
        if (reported())
            return;
        check(digest.size() == 16, "a read without a report has a digest");
        check(quint32(out.data().size()) >= size, "a read without a report has all the bytes");
        if (allAnswersCorrect() && quint64(offset) + size <= AnswerPeer::modelFlashSize) {
            const QByteArray expected = m_peer.modelFlash(offset, size);
            check(out.data().left(int(size)) == expected, "a read gives the flash contents");
            check(digest == QCryptographicHash::hash(expected, QCryptographicHash::Md5),
                  "a read gives the flash digest");
        }
    }

    void flashMd5()
    {
        const quint32 address = flashAddress(m_ops);
        const quint32 size = m_ops.ConsumeIntegralInRange<quint32>(0, 0x20000);
        const QByteArray digest = m_tool.get_flash_md5(address, size);
        check(digest.isEmpty() == reported(), "an MD5 is empty exactly when reported");
        check(digest.isEmpty() || digest.size() == 16, "an MD5 has 16 bytes");
        if (!digest.isEmpty() && allAnswersCorrect() &&
            quint64(address) + size <= AnswerPeer::modelFlashSize)
            check(digest == QCryptographicHash::hash(m_peer.modelFlash(address, size),
                                                     QCryptographicHash::Md5),
                  "the MD5 is the flash digest");
    }

    AnswerPeer &m_peer;
    FuzzedDataProvider &m_ops;
    ESPTool m_tool;
    int m_reports = 0;
    int m_reportsBefore = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    AnswerPeer &answers = peer();
    if (!answers.isValid())
        return 0;
    FuzzedDataProvider input(data, size);
    // Integrals (the operations) come from the end of the input, bytes (the replies) from its
    // start, so both halves stay stable under mutation of the other.
    answers.begin([&input](int count) {
        const std::vector<char> bytes = input.ConsumeBytes<char>(size_t(qMax(count, 0)));
        return QByteArray(bytes.data(), int(bytes.size()));
    });
    {
        Harness harness(answers, input);
        harness.run();
    }
    answers.end();
    return 0;
}
