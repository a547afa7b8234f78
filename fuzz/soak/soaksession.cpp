#include "soaksession.h"

#include "serial/qcomport.h"
#include "tools/imagegen/espimagebuilder.h"
#include "virtualchip/virtualesp8266.h"
#include "worker/esptoolworker.h"
#include "workerclient.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QMutex>

#include <cstdio>

namespace {

// Far above the longest time-out of the tool (a whole-chip erase waits 120 s at most): a command
// still running after this has hung.
constexpr int guardMs = 180000;
constexpr quint32 sectorSize = 4096;
// Commands a session sends, roughly; faults are armed to strike somewhere among them.
constexpr int faultHorizon = 80;

const QString readNotice =
    QStringLiteral("Error reading data: MD5 digest did not match the received data");

struct FlashText
{
    const char *text;
    quint8 code;
};
// Header codes of the texts the soak passes; written out here, not asked from the tool.
const FlashText modeTexts[] = {{"qio", 0}, {"qout", 1}, {"dio", 2}, {"dout", 3}};
// "80m" gives the 40 MHz code: the tool has always mapped it so.
const FlashText frequencyTexts[] = {{"40m", 0}, {"26m", 1}, {"20m", 2}, {"80m", 0}};

QByteArray md5(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

QByteArray randomBytes(QRandomGenerator &random, int length)
{
    QByteArray bytes(length, Qt::Uninitialized);
    for (int i = 0; i < length; ++i)
        bytes[i] = char(random.bounded(256));
    // Runs of 0xFF, like real images and erased areas.
    if (length > 64 && random.bounded(3) == 0) {
        const int at = random.bounded(length - 32);
        bytes.replace(at, 32, QByteArray(32, '\xFF'));
    }
    return bytes;
}

// Faults in the order of armFaults(), and how often each is drawn: silence half as often as the
// others, since a chip that goes quiet during "get info" makes each of its twenty-odd register
// reads wait out its time-out.
int pickFaultKind(QRandomGenerator &random)
{
    static const int weights[] = {1, 2, 2, 2, 2, 2, 2, 2, 2};
    int pick = random.bounded(17);
    for (int kind = 0; kind < 9; ++kind) {
        if (pick < weights[kind])
            return kind;
        pick -= weights[kind];
    }
    return 8;
}

// The terminals of the chips alive in this process, as the worker finds ports: through the extra
// ports variable, which every session shares. A terminal's name comes free when its chip stops,
// and the next chip may get it while the session of the first has yet to withdraw it: each
// session adds and removes one entry of its own.
void updatePublishedPorts(const QString &add, const QString &remove)
{
    static QMutex mutex;
    static QStringList ports;
    const QMutexLocker locker(&mutex);
    if (!remove.isEmpty())
        ports.removeOne(remove);
    if (!add.isEmpty())
        ports.append(add);
    qputenv(QComPort::extraPortsVariable, ports.join(QLatin1Char(':')).toLocal8Bit());
}

} // namespace

SoakSession::SoakSession(quint64 seed, const QByteArray &loaderElf, const QString &scratchDir,
                         bool trace)
    : m_random(seed), m_trace(trace), m_loaderElf(loaderElf), m_scratchDir(scratchDir)
{
    m_clock.start();
}

void SoakSession::traceLine(const QString &text) const
{
    if (m_trace)
        std::fprintf(stderr, "%9.3f %s\n", m_clock.elapsed() / 1000.0, qPrintable(text));
}

SoakSession::~SoakSession()
{
    m_worker.reset();
    if (m_chip)
        m_chip->stop();
    withdrawPort();
}

void SoakSession::violation(const QString &text)
{
    m_report.violations.append(text);
}

SoakSession::Report SoakSession::run()
{
    m_report = Report();
    if (!startChip()) {
        violation(QStringLiteral("the virtual chip did not start: %1").arg(m_chip->errorString()));
        return m_report;
    }
    m_worker = std::make_unique<WorkerClient>();
    armFaults();
    // Runs on the chip's thread after each command it handled.
    m_chip->setCommandObserver([this](const VirtualEsp8266::CommandRecord &record) {
        traceLine(QStringLiteral("  chip handled %1%2")
                      .arg(VirtualEsp8266::opcodeName(record.opcode))
                      .arg(record.answered ? QString() : QStringLiteral(" (no answer)")));
        if (++m_chipCommands == m_vanishAtCommand)
            m_chip->vanishNow();
    });

    m_expected = QByteArray(int(m_chip->flashSize()), '\xFF');
    m_known = QBitArray(int(m_chip->flashSize()));
    // One in ten sessions stays with the ROM loader, whose limits make commands fail cleanly.
    bool going = connectChip() && (m_random.bounded(10) == 0 || loadLoader()) && getInfo();
    const int operations = 1 + m_random.bounded(6);
    for (int i = 0; i < operations && going; ++i) {
        switch (m_random.bounded(7)) {
        case 0:
        case 1:
            going = writeData();
            break;
        case 2:
        case 3:
            going = writeFirmware();
            break;
        case 4:
            going = readBack();
            break;
        case 5:
            going = flashMd5();
            break;
        default:
            going = erase();
            break;
        }
    }
    checkWrittenSections();
    disconnectChip();
    m_report.portVanished = m_chip->vanished();
    if (m_report.failed)
        checkReconnect();
    const QStringList late = m_worker->lateMessages();
    if (!late.isEmpty())
        violation(QStringLiteral("messages after the last command: %1").arg(late.join(" | ")));
    m_worker.reset();
    m_chip->stop();
    withdrawPort();
    return m_report;
}

bool SoakSession::startChip()
{
    VirtualEsp8266::Config config;
    config.model =
        m_random.bounded(2) ? VirtualEsp8266::Model::Esp8285 : VirtualEsp8266::Model::Esp8266EX;
    static const char *const ouis[] = {"18fe34", "acd074", "5ccf7f"};
    config.mac = QByteArray::fromHex(ouis[m_random.bounded(3)]) + randomBytes(m_random, 3);
    const bool small = m_random.bounded(3) == 0;
    config.flashSize = small ? 0x100000 : 0x400000;
    config.jedecId = QByteArray::fromHex(small ? "ef4014" : "ef4016");
    m_chip = std::make_unique<VirtualEsp8266>(config);
    if (!m_chip->start())
        return false;
    publishPort();
    return true;
}

void SoakSession::publishPort()
{
    updatePublishedPorts(m_chip->devicePath(), m_publishedPort);
    m_publishedPort = m_chip->devicePath();
}

void SoakSession::withdrawPort()
{
    if (!m_publishedPort.isEmpty())
        updatePublishedPorts(QString(), m_publishedPort);
    m_publishedPort.clear();
}

QString SoakSession::sizeText() const
{
    return m_chip->flashSize() == 0x100000 ? QStringLiteral("1MB") : QStringLiteral("4MB");
}

void SoakSession::armFaults()
{
    static const int faultCounts[] = {0, 1, 1, 2};
    const int count = faultCounts[m_random.bounded(4)];
    for (int i = 0; i < count; ++i) {
        const int nth = 1 + m_random.bounded(faultHorizon);
        QString fault;
        switch (pickFaultKind(m_random)) {
        case 0:
            m_chip->armSilence(nth - 1);
            fault = QStringLiteral("silence after %1 commands").arg(nth - 1);
            break;
        case 1:
            m_chip->armDropAnswer(nth);
            fault = QStringLiteral("answer %1 dropped").arg(nth);
            break;
        case 2: {
            static const VirtualEsp8266::Corruption kinds[] = {
                VirtualEsp8266::Corruption::BrokenEscape, VirtualEsp8266::Corruption::GarbledBytes,
                VirtualEsp8266::Corruption::Truncated, VirtualEsp8266::Corruption::WrongLength};
            static const char *const names[] = {"broken escape", "garbled", "truncated",
                                                "wrong length"};
            const int kind = m_random.bounded(4);
            m_chip->armCorruptAnswer(nth, kinds[kind]);
            fault = QStringLiteral("answer %1 corrupted (%2)").arg(nth).arg(names[kind]);
            break;
        }
        case 3:
            m_chip->armStrayAnswer(nth);
            fault = QStringLiteral("stray answer before answer %1").arg(nth);
            break;
        case 4: {
            const quint8 code = m_random.bounded(2) ? 0 : quint8(1 + m_random.bounded(255));
            m_chip->armErrorStatus(nth, code);
            fault = QStringLiteral("command %1 refused with code %2").arg(nth).arg(code);
            break;
        }
        case 5:
            m_chip->armVanishAfterCommands(nth - 1);
            fault = QStringLiteral("port vanishes once quiet after %1 commands").arg(nth - 1);
            break;
        case 6: {
            // The chip's own fault waits for the line to go quiet; this one strikes at once,
            // before the answer to that command is out.
            m_vanishAtCommand = nth;
            fault = QStringLiteral("port vanishes while answering command %1").arg(nth);
            break;
        }
        case 7: {
            const qint64 bytes = 1 + m_random.bounded(150000);
            m_chip->armVanishAfterBytes(bytes);
            fault = QStringLiteral("port vanishes after %1 bytes").arg(bytes);
            break;
        }
        default: {
            static const int factors[] = {2, 6, 40};
            const int factor = factors[m_random.bounded(3)];
            m_chip->armSlowErase(factor);
            fault = QStringLiteral("erase %1 times slower").arg(factor);
            break;
        }
        }
        m_report.faults.append(fault);
        ++m_report.faultsArmed;
    }
}

bool SoakSession::run(int cmd, const QVariantList &params, const QString &what)
{
    traceLine(QStringLiteral("worker: %1").arg(what));
    m_filesBefore = scratchFiles();
    const WorkerClient::Outcome outcome = m_worker->run(cmd, params, guardMs);
    traceLine(QStringLiteral("worker: %1 %2 %3")
                  .arg(what,
                       outcome.result ? QStringLiteral("succeeded") : QStringLiteral("failed"),
                       outcome.messages.join(QStringLiteral(" | "))));
    ++m_report.commands;
    m_device.reset();
    m_deviceBytes.reset();
    m_what = what;
    m_finished = outcome.finished;
    m_result = outcome.result;
    m_results = outcome.results;
    m_messages = outcome.messages;
    if (!m_finished) {
        violation(QStringLiteral("%1: no finished() within %2 s").arg(what).arg(guardMs / 1000));
        m_connectionFailed = m_report.failed = true;
    }
    return m_finished;
}

bool SoakSession::settle(bool success, bool isRead)
{
    if (!success)
        checkFilesUnchanged();
    int notices = 0;
    for (const QString &message : qAsConst(m_messages))
        notices += message == readNotice ? 1 : 0;
    const int reasons = m_messages.size() - notices;
    const QString said = m_messages.join(QStringLiteral(" | "));
    if (m_connectionFailed) {
        // The one message of this connection was said; later commands fail quietly.
        if (!m_messages.isEmpty())
            violation(QStringLiteral("%1 after a failure said again: %2").arg(m_what, said));
        return false;
    }
    if (success) {
        if (!m_messages.isEmpty())
            violation(QStringLiteral("%1 succeeded but said: %2").arg(m_what, said));
        return true;
    }
    m_connectionFailed = m_report.failed = true;
    m_report.failure = m_messages.isEmpty() ? QString() : m_messages.first();
    m_report.readNotices += notices;
    // A failed read-back adds its deliberate digest notice to the reason when the digests differ
    // (or the notice is the reason itself, when only they differ). The notice may also be absent:
    // a garbled answer to the read request can fail the command after all the data and a
    // matching digest arrived.
    const bool oneReason = isRead ? (reasons == 1 && notices <= 1) || (reasons == 0 && notices == 1)
                                  : (reasons == 1 && notices == 0);
    if (!oneReason) {
        violation(QStringLiteral("%1 failed with %2 messages instead of one: %3")
                      .arg(m_what)
                      .arg(m_messages.size())
                      .arg(said.isEmpty() ? QStringLiteral("(none)") : said));
    }
    return false;
}

bool SoakSession::connectChip()
{
    m_connectionFailed = false;
    m_connected = false;
    if (!run(ESPToolWorker::Connect, {m_chip->devicePath()}, QStringLiteral("connect")))
        return false;
    m_connected = settle(m_result);
    return m_connected;
}

bool SoakSession::loadLoader()
{
    if (!run(ESPToolWorker::LoadStub,
             {fileParameter(m_loaderElf, QStringLiteral("esp8266_loader_stub.elf"))},
             QStringLiteral("load stub")))
        return false;
    const bool ok = settle(m_result);
    if (ok && !m_chip->stubRunning())
        violation(QStringLiteral("load stub succeeded but the chip runs no loader"));
    return ok;
}

bool SoakSession::getInfo()
{
    if (!run(ESPToolWorker::GetInfo, {}, QStringLiteral("get info")))
        return false;
    if (!settle(m_result))
        return false;
    const VirtualEsp8266::Config config = m_chip->config();
    const std::array<quint32, 4> efuses = VirtualEsp8266::efuseWordsFor(config);
    const quint32 chipId = (efuses[0] >> 24) | ((efuses[1] & 0xFFFFFF) << 8);
    const QString model = config.model == VirtualEsp8266::Model::Esp8285
                              ? QStringLiteral("ESP8285")
                              : QStringLiteral("ESP8266EX");
    if (m_results.size() != 5 || m_results.at(0).toString() != model ||
        m_results.at(1).toString() != QStringLiteral("%1").arg(chipId, 8, 16, QLatin1Char('0')) ||
        m_results.at(2).toString() != QString::fromLatin1(config.mac.toHex().toUpper()) ||
        m_results.at(4).toUInt() != config.flashSize) {
        QStringList texts;
        for (const QVariant &item : qAsConst(m_results))
            texts << item.toString();
        violation(
            QStringLiteral("get info succeeded with wrong results: %1").arg(texts.join(", ")));
    }
    return true;
}

quint32 SoakSession::randomAddress(quint32 length)
{
    const quint32 flashSize = m_chip->flashSize();
    switch (m_random.bounded(20)) {
    case 0: // past the end: the fit check refuses it
        return flashSize - sectorSize * quint32(m_random.bounded(2));
    case 1: // not on a sector boundary: the loader refuses the erase
        return quint32(m_random.bounded(int(flashSize / 2))) | 1u;
    default: {
        const quint32 sectors = (flashSize - qMin(length, flashSize)) / sectorSize;
        return sectorSize * quint32(m_random.bounded(int(qMax<quint32>(sectors, 1))));
    }
    }
}

QVariant SoakSession::fileParameter(const QByteArray &bytes, const QString &name)
{
    // Half of the files go as paths, half as open devices (how the dialog hands over package
    // entries).
    if (m_random.bounded(2)) {
        const QString path = m_scratchDir + QLatin1Char('/') + name;
        QFile file(path);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(bytes);
        return path;
    }
    m_deviceBytes = std::make_unique<QByteArray>(bytes);
    auto buffer = std::make_unique<QBuffer>(m_deviceBytes.get());
    buffer->open(QIODevice::ReadOnly);
    IODeviceDescriptor descriptor;
    descriptor.device = buffer.get();
    descriptor.description = name;
    m_device = std::move(buffer);
    return QVariant::fromValue(descriptor);
}

bool SoakSession::writeData()
{
    const int length = m_random.bounded(12) == 0 ? 0 : 1 + m_random.bounded(48 * 1024);
    const QByteArray data = randomBytes(m_random, length);
    const quint32 address = randomAddress(quint32(length));
    if (!run(ESPToolWorker::WriteData, {fileParameter(data, "data.bin"), address, sizeText()},
             QStringLiteral("write data (%1 bytes at 0x%2)").arg(length).arg(address, 0, 16))) {
        recordWrite(address, data, false);
        return false;
    }
    const bool written = settle(m_result);
    recordWrite(address, data, written);
    if (!written)
        return false;
    if (m_chip->flash(address, quint32(length)) != data)
        violation(QStringLiteral("%1 succeeded but the flash differs").arg(m_what));
    else
        ++m_report.writesVerified;
    m_written.append({address, quint32(length)});
    return true;
}

bool SoakSession::writeFirmware()
{
    EspImageBuilder builder;
    builder.setFlashMode(quint8(m_random.bounded(4)));
    builder.setFlashSize(quint8(m_random.bounded(10)));
    builder.setFlashFrequency(quint8(m_random.bounded(3)));
    const int segments = 1 + m_random.bounded(3);
    for (int i = 0; i < segments; ++i)
        builder.addRandomSegment(0x40100000 + 0x1000 * quint32(i), 1 + m_random.bounded(12000),
                                 m_random.generate());
    const QByteArray image = builder.build();
    const FlashText &mode = modeTexts[m_random.bounded(4)];
    const FlashText &frequency = frequencyTexts[m_random.bounded(4)];
    const quint8 sizeCode = m_chip->flashSize() == 0x100000 ? 2 : 4;
    const quint32 address = randomAddress(quint32(image.size()));
    if (!run(ESPToolWorker::WriteFirmware,
             {fileParameter(image, "firmware.bin"), address, sizeText(), mode.text, frequency.text},
             QStringLiteral("write firmware (%1 bytes at 0x%2)")
                 .arg(image.size())
                 .arg(address, 0, 16))) {
        recordWrite(address, image, false);
        return false;
    }
    // The header carries the codes asked for; everything else is the file.
    QByteArray expected = image;
    expected[2] = char(mode.code);
    expected[3] = char((sizeCode << 4) | frequency.code);
    const bool written = settle(m_result);
    recordWrite(address, expected, written);
    if (!written)
        return false;
    if (m_chip->flash(address, quint32(image.size())) != expected)
        violation(QStringLiteral("%1 succeeded but the flash differs").arg(m_what));
    else
        ++m_report.writesVerified;
    m_written.append({address, quint32(image.size())});
    return true;
}

bool SoakSession::readBack()
{
    quint32 address = 0;
    quint32 size = 0;
    if (!m_written.isEmpty() && m_random.bounded(3) != 0) {
        const auto region = m_written.at(m_random.bounded(m_written.size()));
        address = region.first;
        size = region.second;
    } else {
        size = 1 + quint32(m_random.bounded(40 * 1024));
        address = randomAddress(size);
    }
    const QString path = m_scratchDir + QStringLiteral("/read.bin");
    QFile::remove(path);
    // Half of the reads go into a file that is there already: a failed read must leave it be.
    if (m_random.bounded(2)) {
        QFile earlier(path);
        if (earlier.open(QIODevice::WriteOnly))
            earlier.write(randomBytes(m_random, 1 + m_random.bounded(4096)));
    }
    if (!run(ESPToolWorker::ReadData, {path, address, size},
             QStringLiteral("read data (%1 bytes at 0x%2)").arg(size).arg(address, 0, 16)))
        return false;
    if (!settle(m_result && m_results.size() == 1, true))
        return false;
    QFile file(path);
    const QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    const QByteArray flash = m_chip->flash(address, size);
    if (bytes != flash || m_results.at(0).toByteArray() != md5(flash))
        violation(QStringLiteral("%1 succeeded but the file or digest differs from the flash")
                      .arg(m_what));
    else
        ++m_report.readsVerified;
    return true;
}

bool SoakSession::flashMd5()
{
    const quint32 size = quint32(m_random.bounded(64 * 1024));
    const quint32 address = randomAddress(size);
    const QString tag = QStringLiteral("region %1").arg(m_report.commands);
    if (!run(ESPToolWorker::FlashMd5, {address, size, tag},
             QStringLiteral("flash md5 (%1 bytes at 0x%2)").arg(size).arg(address, 0, 16)))
        return false;
    if (!settle(m_result && m_results.size() == 2))
        return false;
    const QString expected =
        QString::fromLatin1(md5(m_chip->flash(address, size)).toHex().toUpper());
    if (m_results.at(0).toString() != expected || m_results.at(1).toString() != tag)
        violation(QStringLiteral("%1 succeeded with a wrong digest or tag").arg(m_what));
    else
        ++m_report.digestsVerified;
    return true;
}

bool SoakSession::erase()
{
    const bool whole = m_random.bounded(8) == 0;
    const quint32 size = 1 + quint32(m_random.bounded(80 * 1024));
    const quint32 address = whole ? 0 : randomAddress(size);
    const QVariantList params =
        whole ? QVariantList{ESPToolWorker::wholeChipErase} : QVariantList{address, size};
    // A region erase covers whole sectors around the range.
    const quint32 start = whole ? 0 : address / sectorSize * sectorSize;
    const quint32 end = whole ? m_chip->flashSize()
                              : quint32(qMin<quint64>((quint64(address) + size + sectorSize - 1) /
                                                          sectorSize * sectorSize,
                                                      m_chip->flashSize()));
    if (!run(ESPToolWorker::EraseFlash, params,
             whole ? QStringLiteral("erase the chip")
                   : QStringLiteral("erase %1 bytes at 0x%2").arg(size).arg(address, 0, 16))) {
        recordErase(start, end, false);
        return false;
    }
    const bool erased = settle(m_result);
    recordErase(start, end, erased);
    if (!erased)
        return false;
    const QByteArray contents = m_chip->flash(start, end - start);
    if (contents.count('\xFF') != contents.size())
        violation(QStringLiteral("%1 succeeded but the flash is not erased").arg(m_what));
    else
        ++m_report.erasesVerified;
    return true;
}

QMap<QString, QByteArray> SoakSession::scratchFiles() const
{
    QMap<QString, QByteArray> files;
    const QDir dir(m_scratchDir);
    for (const QString &name : dir.entryList(QDir::Files)) {
        QFile file(dir.filePath(name));
        files.insert(name, file.open(QIODevice::ReadOnly) ? md5(file.readAll()) : QByteArray());
    }
    return files;
}

void SoakSession::checkFilesUnchanged()
{
    const QMap<QString, QByteArray> now = scratchFiles();
    if (now == m_filesBefore)
        return;
    QStringList changed;
    for (auto it = now.cbegin(); it != now.cend(); ++it) {
        if (!m_filesBefore.contains(it.key()))
            changed << it.key() + QStringLiteral(" (created)");
        else if (m_filesBefore.value(it.key()) != it.value())
            changed << it.key();
    }
    for (auto it = m_filesBefore.cbegin(); it != m_filesBefore.cend(); ++it) {
        if (!now.contains(it.key()))
            changed << it.key() + QStringLiteral(" (removed)");
    }
    violation(QStringLiteral("%1 failed but changed %2").arg(m_what, changed.join(", ")));
}

void SoakSession::recordWrite(quint32 address, const QByteArray &data, bool written)
{
    const quint32 flashSize = m_chip->flashSize();
    const quint64 end = qMin<quint64>(quint64(address) + quint32(data.size()), flashSize);
    if (address >= end)
        return;
    const quint32 first = address / sectorSize * sectorSize;
    const quint32 last =
        quint32(qMin<quint64>((end + sectorSize - 1) / sectorSize * sectorSize, flashSize));
    recordErase(first, last, written);
    if (written)
        m_expected.replace(int(address), int(end - address), data.left(int(end - address)));
}

void SoakSession::recordErase(quint32 start, quint32 end, bool erased)
{
    end = qMin(end, m_chip->flashSize());
    if (start >= end)
        return;
    m_known.fill(erased, int(start), int(end));
    m_expected.replace(int(start), int(end - start), QByteArray(int(end - start), '\xFF'));
}

void SoakSession::checkWrittenSections()
{
    for (const auto &section : qAsConst(m_written)) {
        const QByteArray flash = m_chip->flash(section.first, section.second);
        for (int i = 0; i < flash.size(); ++i) {
            const int at = int(section.first) + i;
            if (m_known.testBit(at) && flash.at(i) != m_expected.at(at)) {
                violation(QStringLiteral("the %1 bytes written at 0x%2 no longer match at the end "
                                         "of the run (first difference at 0x%3)")
                              .arg(section.second)
                              .arg(section.first, 0, 16)
                              .arg(at, 0, 16));
                break;
            }
        }
    }
}

void SoakSession::disconnectChip()
{
    if (!run(ESPToolWorker::Disconnect, {}, QStringLiteral("disconnect")))
        return;
    // After a failure on an established connection the worker fails every command until the
    // next connect, quietly. A connect that failed leaves no connection to fail for: the
    // disconnect after it may succeed.
    const bool failedBefore = m_connectionFailed && m_connected;
    settle(m_result);
    if (failedBefore && m_result)
        violation(QStringLiteral("disconnect succeeded after a failed command"));
}

void SoakSession::checkReconnect()
{
    // A port that vanished comes back only by restarting the chip; otherwise a reset will do
    // (it also disarms every fault of the chip's own).
    m_vanishAtCommand = -1;
    if (m_chip->vanished()) {
        m_chip->stop();
        if (!m_chip->start()) {
            violation(QStringLiteral("the virtual chip did not restart"));
            return;
        }
        publishPort();
    } else {
        m_chip->reset();
    }
    if (!connectChip() || !m_messages.isEmpty()) {
        violation(QStringLiteral("connect after the failure did not work: %1")
                      .arg(m_messages.join(QStringLiteral(" | "))));
        return;
    }
    if (run(ESPToolWorker::Disconnect, {}, QStringLiteral("disconnect")) && !m_result)
        violation(QStringLiteral("disconnect after the reconnect failed"));
}
