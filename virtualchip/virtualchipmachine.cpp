#include "virtualchip/virtualchipmachine.h"

#include <QFile>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr qint64 nsPerUs = 1000;
constexpr quint32 maxFlashSize = 128u * 1024 * 1024; // bytes; larger parts are not emulated

bool setFlags(int fd, int statusFlags)
{
    const int current = fcntl(fd, F_GETFL);
    return current >= 0 && fcntl(fd, F_SETFL, current | statusFlags) == 0 &&
           fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

QString systemError(const char *what)
{
    return QStringLiteral("%1: %2").arg(QLatin1String(what),
                                        QString::fromLocal8Bit(strerror(errno)));
}

void closeFd(int &fd)
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

} // namespace

VirtualChipMachine::VirtualChipMachine(const VirtualEsp8266::Config &config)
    : m_config(config), m_loader(config), m_txBaud(config.initialBaud), m_rxBaud(config.initialBaud)
{}

VirtualChipMachine::~VirtualChipMachine()
{
    stop();
}

qint64 VirtualChipMachine::nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool VirtualChipMachine::start()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_running)
        return true;
    m_error.clear();
    if (m_config.flashSize == 0 || m_config.flashSize % VirtualNorFlash::sectorSize != 0 ||
        m_config.flashSize > maxFlashSize) {
        m_error = QStringLiteral("Flash size must be a non-zero multiple of 4096 up to 128 MiB");
        return false;
    }
    if (!m_config.overrideEfuses && m_config.mac.size() != 6) {
        m_error = QStringLiteral("MAC address must have 6 bytes");
        return false;
    }
    if (m_config.jedecId.size() != 3) {
        m_error = QStringLiteral("JEDEC id must have 3 bytes");
        return false;
    }
    if (m_config.initialBaud == 0) {
        m_error = QStringLiteral("Initial baud rate must not be 0");
        return false;
    }

    int master = -1;
    int slave = -1;
    char name[256] = {};
    if (openpty(&master, &slave, name, nullptr, nullptr) != 0) {
        m_error = systemError("openpty");
        return false;
    }
    // Raw, no echo: the host must see exactly the bytes the chip sends.
    termios attributes{};
    int wakePipe[2] = {-1, -1};
    if (tcgetattr(slave, &attributes) != 0) {
        m_error = systemError("tcgetattr");
    } else {
        cfmakeraw(&attributes);
        cfsetispeed(&attributes, B115200);
        cfsetospeed(&attributes, B115200);
        if (tcsetattr(slave, TCSANOW, &attributes) != 0)
            m_error = systemError("tcsetattr");
        else if (!setFlags(master, O_NONBLOCK) || !setFlags(slave, 0))
            m_error = systemError("fcntl");
        else if (pipe2(wakePipe, O_NONBLOCK | O_CLOEXEC) != 0)
            m_error = systemError("pipe");
    }
    if (!m_error.isEmpty()) {
        closeFd(master);
        closeFd(slave);
        return false;
    }

    m_master = master;
    m_slave = slave;
    m_wakeRead = wakePipe[0];
    m_wakeWrite = wakePipe[1];
    m_path = QString::fromLocal8Bit(name);
    m_decoder.clear();
    m_faults.disarm();
    m_loader.setEraseFactor(1);
    clearLine();
    m_dtrAsserted = false;
    m_rtsAsserted = false;
    m_resetCount = 0;
    m_bootAtNs = -1;
    m_loader.boot(m_config.powerUpMode, VirtualChipBootOutput::Cause::PowerOn, nowNs() / nsPerUs);
    collectOutput(VirtualChipFaults::Plan(), nullptr);
    m_vanished = false;
    m_vanishRequested = false;
    m_vanishPending = false;
    m_stopRequested = false;
    m_running = true;
    m_thread = std::thread(&VirtualChipMachine::run, this);
    return true;
}

void VirtualChipMachine::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_running)
            return;
        m_stopRequested = true;
    }
    wake();
    m_thread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    closeTerminal();
    closeFd(m_slave);
    closeFd(m_wakeRead);
    closeFd(m_wakeWrite);
    m_running = false;
    m_vanishedSignal.notify_all();
}

bool VirtualChipMachine::isRunning() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_running;
}

QString VirtualChipMachine::devicePath() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_path;
}

QString VirtualChipMachine::errorString() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
}

QByteArray VirtualChipMachine::flash(quint32 offset, quint32 size) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loader.flash().read(offset, size);
}

void VirtualChipMachine::setFlash(quint32 offset, const QByteArray &data)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loader.flash().store(offset, data);
}

quint32 VirtualChipMachine::flashSize() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loader.flash().size();
}

QByteArray VirtualChipMachine::ram(quint32 address, quint32 size) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loader.ram(address, size);
}

VirtualEsp8266::LoaderState VirtualChipMachine::loaderState() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loader.state();
}

quint32 VirtualChipMachine::baudRate() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loader.baudRate();
}

VirtualEsp8266::SpiParams VirtualChipMachine::spiParams() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loader.spiParams();
}

void VirtualChipMachine::reset()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_loader.reset();
        m_loader.setEraseFactor(1);
        m_decoder.clear();
        m_faults.disarm();
        m_vanishPending = false;
        m_dtrAsserted = false;
        m_rtsAsserted = false;
        m_bootAtNs = -1;
        clearLine();
    }
    wake();
}

void VirtualChipMachine::setModemLines(bool dtrAsserted, bool rtsAsserted)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_running)
            return;
        // GPIO0 was read at its time even if the chip thread has not got round to booting yet.
        const qint64 now = nowNs();
        if (m_bootAtNs >= 0 && m_bootAtNs <= now)
            bootFromLines(now);
        const bool wasHeld = m_rtsAsserted;
        m_dtrAsserted = dtrAsserted;
        m_rtsAsserted = rtsAsserted;
        if (rtsAsserted == wasHeld)
            return; // GPIO0 counts only when EN rises
        // Whatever was on its way in or out is lost with the UART's state.
        m_decoder.clear();
        clearLine();
        m_loader.holdInReset();
        m_bootAtNs = -1;
        if (!rtsAsserted)
            releaseReset(now);
    }
    wake();
}

void VirtualChipMachine::releaseReset(qint64 now)
{
    m_bootAtNs = now + qint64(qMax(0, m_config.gpio0SampleDelayMs)) * 1000000;
    if (m_config.gpio0SampleDelayMs <= 0)
        bootFromLines(now);
}

void VirtualChipMachine::bootFromLines(qint64 now)
{
    m_bootAtNs = -1;
    ++m_resetCount;
    m_loader.boot(m_dtrAsserted ? VirtualEsp8266::BootMode::Download
                                : VirtualEsp8266::BootMode::Firmware,
                  VirtualChipBootOutput::Cause::ResetPin, now / nsPerUs);
    collectOutput(VirtualChipFaults::Plan(), nullptr);
}

VirtualEsp8266::BootMode VirtualChipMachine::bootMode() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loader.bootMode();
}

int VirtualChipMachine::resetCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_resetCount;
}

bool VirtualChipMachine::vanished() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vanished;
}

QVector<VirtualEsp8266::CommandRecord> VirtualChipMachine::commandLog() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_log;
}

void VirtualChipMachine::clearCommandLog()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_log.clear();
}

VirtualEsp8266::Counters VirtualChipMachine::counters() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_counters;
}

void VirtualChipMachine::clearCounters()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_counters = VirtualEsp8266::Counters();
}

void VirtualChipMachine::setCommandObserver(
    std::function<void(const VirtualEsp8266::CommandRecord &)> observer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_observer = std::move(observer);
}

void VirtualChipMachine::armSilence(int commands)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armSilence(commands);
}

void VirtualChipMachine::armDropAnswer(int nth)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armDropAnswer(nth);
}

void VirtualChipMachine::armCorruptAnswer(int nth, VirtualEsp8266::Corruption kind)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armCorruptAnswer(nth, kind);
}

void VirtualChipMachine::armStrayAnswer(int nth)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armStrayAnswer(nth);
}

void VirtualChipMachine::armErrorStatus(int nth, quint8 code)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armErrorStatus(nth, code);
}

void VirtualChipMachine::armIgnoreCommand(int nth)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armIgnoreCommand(nth);
}

void VirtualChipMachine::armVanishAfterCommands(int commands)
{
    if (commands <= 0) {
        vanishNow();
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armVanishAfterCommands(commands);
}

void VirtualChipMachine::armVanishAfterBytes(qint64 bytes)
{
    if (bytes <= 0) {
        vanishNow();
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.armVanishAfterBytes(bytes);
}

void VirtualChipMachine::armSlowErase(int factor)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loader.setEraseFactor(factor);
}

void VirtualChipMachine::disarmFaults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.disarm();
    m_loader.setEraseFactor(1);
    m_vanishPending = false;
}

void VirtualChipMachine::vanishNow()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    // Not running, or called by the command observer on the chip thread (which is not waiting).
    if (!m_running || std::this_thread::get_id() == m_thread.get_id()) {
        closeTerminal();
        return;
    }
    // The chip thread closes the terminal, so that it never waits on a closed descriptor.
    m_vanishRequested = true;
    lock.unlock();
    wake();
    lock.lock();
    m_vanishedSignal.wait(lock, [this] { return m_vanished || !m_running; });
}

void VirtualChipMachine::wake()
{
    if (m_wakeWrite >= 0) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_wakeWrite, &byte, 1);
    }
}

qint64 VirtualChipMachine::byteNs(quint32 baud) const
{
    // 8N1: ten bit times per byte.
    return baud ? qint64(10) * 1000000000 / baud : 0;
}

void VirtualChipMachine::clearLine()
{
    m_rx.clear();
    m_scheduled.clear();
    m_tx.clear();
    m_rxWireNs = 0;
    m_txWireNs = 0;
    m_txBaud = m_config.initialBaud;
    m_rxBaud = m_config.initialBaud;
}

void VirtualChipMachine::closeTerminal()
{
    const bool wasOpen = m_master >= 0;
    // Closing the master unplugs the port: its node goes, the host's side reads EIO. The slave
    // stays open until stop(), so the kernel does not hand the number to another terminal
    // while a host may still hold a lock on the old name.
    closeFd(m_master);
    clearLine();
    if (wasOpen)
        m_vanished = true;
    m_vanishRequested = false;
    m_vanishPending = false;
    m_vanishedSignal.notify_all();
}

void VirtualChipMachine::run()
{
    QVector<VirtualEsp8266::CommandRecord> handled;
    while (!m_stopRequested) {
        handled.clear();
        bool waitWritable = false;
        qint64 waitNs = -1;
        int master = -1;
        std::function<void(const VirtualEsp8266::CommandRecord &)> observer;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            waitNs = iterate(nowNs(), &waitWritable, &handled);
            master = m_master;
            if (!handled.isEmpty())
                observer = m_observer;
        }
        if (observer) {
            for (const auto &record : qAsConst(handled))
                observer(record);
        }
        pollfd fds[2] = {{m_wakeRead, POLLIN, 0},
                         {master, short(POLLIN | (waitWritable ? POLLOUT : 0)), 0}};
        timespec timeout{};
        timespec *timeoutPointer = nullptr;
        if (waitNs >= 0) {
            timeout.tv_sec = time_t(waitNs / 1000000000);
            timeout.tv_nsec = long(waitNs % 1000000000);
            timeoutPointer = &timeout;
        }
        ppoll(fds, master >= 0 ? 2 : 1, timeoutPointer, nullptr);
        if (fds[0].revents & POLLIN) {
            char buffer[64];
            while (::read(m_wakeRead, buffer, sizeof buffer) > 0) {
            }
        }
    }
}

qint64 VirtualChipMachine::iterate(qint64 now, bool *waitWritable,
                                   QVector<VirtualEsp8266::CommandRecord> *handled)
{
    if (m_vanishRequested)
        closeTerminal();
    if (m_master < 0)
        return -1;
    readTerminal(now);
    qint64 next = processInput(now, handled);
    const auto earliest = [&next](qint64 candidate) {
        if (candidate >= 0 && (next < 0 || candidate < next))
            next = candidate;
    };
    if (m_master < 0) // vanished on a received byte
        return -1;
    if (m_bootAtNs >= 0 && m_bootAtNs <= now)
        bootFromLines(now);
    earliest(m_bootAtNs);
    const qint64 nowUs = now / nsPerUs;
    if (m_loader.nextTickUs() >= 0 && m_loader.nextTickUs() <= nowUs) {
        m_loader.tick(nowUs);
        collectOutput(VirtualChipFaults::Plan(), nullptr);
    }
    if (m_loader.nextTickUs() >= 0)
        earliest(m_loader.nextTickUs() * nsPerUs);
    // Frames whose time has come join the line in order.
    while (!m_scheduled.empty() && m_scheduled.front().dueNs <= now) {
        m_tx.push_back(std::move(m_scheduled.front()));
        m_scheduled.pop_front();
    }
    if (!m_scheduled.empty())
        earliest(m_scheduled.front().dueNs);
    earliest(writeTerminal(now, waitWritable));
    checkVanish(now);
    if (m_master < 0)
        return -1;
    if (m_vanishPending)
        earliest(now + vanishPollNs);
    return next < 0 ? -1 : qMax<qint64>(0, next - now);
}

void VirtualChipMachine::readTerminal(qint64 now)
{
    char buffer[readChunkSize];
    for (;;) {
        const ssize_t n = ::read(m_master, buffer, sizeof buffer);
        if (n <= 0)
            return; // EAGAIN: nothing more; the chip keeps a slave open, so no hang-up here
        m_rx.push_back(RxChunk{QByteArray(buffer, int(n)), 0, now});
    }
}

qint64 VirtualChipMachine::processInput(qint64 now, QVector<VirtualEsp8266::CommandRecord> *handled)
{
    if (m_loader.state() == VirtualEsp8266::LoaderState::InReset) {
        m_rx.clear(); // nothing runs to take it
        return -1;
    }
    while (!m_rx.empty()) {
        const qint64 busyUntil = m_loader.busyUntilUs() * nsPerUs;
        if (busyUntil > now)
            return busyUntil; // erasing or programming: the UART waits
        RxChunk &chunk = m_rx.front();
        if (m_config.throttle) {
            // A byte counts as received once it could have crossed the wire.
            const qint64 arrived = qMax(m_rxWireNs, chunk.arrivalNs) + byteNs(m_rxBaud);
            if (arrived > now)
                return arrived;
            m_rxWireNs = arrived;
        }
        const quint8 byte = quint8(chunk.data[chunk.position]);
        if (++chunk.position == chunk.data.size())
            m_rx.pop_front();
        ++m_counters.bytesIn;
        ++m_counters.bytesInByBaud[m_rxBaud];
        if (m_faults.byteReceived()) {
            closeTerminal();
            return -1;
        }
        if (m_decoder.feed(byte))
            handleFrame(m_decoder.takeFrame(), m_decoder.lastFrameWireSize(), now, handled);
        if (m_master < 0)
            return -1;
    }
    return -1;
}

void VirtualChipMachine::handleFrame(const QByteArray &frame, int wireBytes, qint64 now,
                                     QVector<VirtualEsp8266::CommandRecord> *handled)
{
    const qint64 nowUs = now / nsPerUs;
    if (m_loader.readingFlash()) {
        m_loader.handleAck(frame, nowUs);
        m_counters.acksReceived += m_loader.takeAcks();
        collectOutput(VirtualChipFaults::Plan(), nullptr);
        return;
    }
    if (!m_loader.takesCommand(frame) || m_faults.silent())
        return;
    ++m_counters.commands[quint8(frame[1])];
    const VirtualChipFaults::Plan plan = m_faults.nextCommand();
    VirtualEsp8266::CommandRecord record =
        plan.ignore   ? m_loader.ignoreCommand(frame)
        : plan.refuse ? m_loader.refuseCommand(frame, plan.refuseCode, nowUs)
                      : m_loader.handleCommand(frame, nowUs);
    record.wireBytes = wireBytes;
    collectOutput(plan, &record);
    const auto erases = m_loader.takeErases();
    m_counters.erases += erases;
    if (m_faults.commandHandled()) {
        m_vanishPending = true;
        m_vanishDeadlineNs = -1; // set once the answers are on the line
    }
    if (m_log.size() >= maxLogRecords)
        m_log.remove(0, maxLogRecords / 10);
    m_log.append(record);
    handled->append(record);
}

void VirtualChipMachine::collectOutput(const VirtualChipFaults::Plan &plan,
                                       VirtualEsp8266::CommandRecord *record)
{
    bool firstAnswer = true;
    const auto outputs = m_loader.takeOutput();
    for (const auto &output : outputs) {
        const qint64 dueNs = output.dueUs * nsPerUs;
        if (output.unframed) {
            schedule(output.packet, dueNs, 0);
            continue;
        }
        if (!output.answer) {
            schedule(VirtualSlip::encode(output.packet), dueNs, 0);
            continue;
        }
        if (plan.drop) {
            if (record)
                record->answered = false;
            continue;
        }
        if (firstAnswer && plan.stray)
            schedule(VirtualSlip::encode(strayAnswer(quint8(output.packet[1]))), dueNs, 0);
        const QByteArray wire = firstAnswer && plan.corrupt
                                    ? corrupted(output.packet, plan.corruption)
                                    : VirtualSlip::encode(output.packet);
        schedule(wire, dueNs, output.baudAfter);
        firstAnswer = false;
    }
}

void VirtualChipMachine::schedule(const QByteArray &wire, qint64 dueNs, quint32 baudAfter)
{
    // Keep the order of queuing among frames due at the same time.
    auto position = m_scheduled.end();
    while (position != m_scheduled.begin() && std::prev(position)->dueNs > dueNs)
        --position;
    m_scheduled.insert(position, TxFrame{wire, dueNs, 0, baudAfter});
}

QByteArray VirtualChipMachine::corrupted(const QByteArray &packet, VirtualEsp8266::Corruption kind)
{
    QByteArray damaged = packet;
    switch (kind) {
    case VirtualEsp8266::Corruption::BrokenEscape: {
        const int half = packet.size() / 2;
        QByteArray wire(1, char(VirtualSlip::End));
        wire += VirtualSlip::escape(packet.left(half));
        wire += char(VirtualSlip::Esc);
        wire += char(0x01); // no valid escape code
        wire += VirtualSlip::escape(packet.mid(half));
        wire += char(VirtualSlip::End);
        return wire;
    }
    case VirtualEsp8266::Corruption::GarbledBytes:
        for (char &c : damaged)
            c = char(quint8(c) ^ 0xA5);
        break;
    case VirtualEsp8266::Corruption::Truncated:
        damaged = packet.left(4);
        break;
    case VirtualEsp8266::Corruption::WrongLength:
        if (damaged.size() >= 4)
            damaged[2] = char(quint8(damaged[2]) + 3);
        break;
    }
    return VirtualSlip::encode(damaged);
}

QByteArray VirtualChipMachine::strayAnswer(quint8 answeredOpcode)
{
    const quint8 opcode =
        answeredOpcode == VirtualEsp8266::ReadReg ? VirtualEsp8266::Sync : VirtualEsp8266::ReadReg;
    QByteArray packet = QByteArray::fromHex("01000200000000000000");
    packet[1] = char(opcode);
    return packet;
}

qint64 VirtualChipMachine::writeTerminal(qint64 now, bool *waitWritable)
{
    const qint64 perByte = m_config.throttle ? byteNs(m_txBaud) : 0;
    while (!m_tx.empty()) {
        qint64 allowed = std::numeric_limits<qint64>::max();
        if (perByte > 0) {
            m_txWireNs = qMax(m_txWireNs, now);
            allowed = (now + txQuantumNs - m_txWireNs) / perByte;
            // Wake again when half the lead has gone out, not for every single byte: the rest
            // of the lead keeps the line busy meanwhile, and the host is spared a read per byte.
            if (allowed <= 0)
                return m_txWireNs - txQuantumNs / 2;
        }
        // Gather whole frames (the first one possibly started) up to what the line allows;
        // a baud switch ends the gathering, since later bytes leave at the new rate.
        iovec parts[maxFramesPerWrite];
        int count = 0;
        qint64 gathered = 0;
        for (auto it = m_tx.begin();
             it != m_tx.end() && count < maxFramesPerWrite && gathered < allowed; ++it) {
            const qint64 left = qMin<qint64>(it->wire.size() - it->written, allowed - gathered);
            parts[count++] = iovec{it->wire.data() + it->written, size_t(left)};
            gathered += left;
            if (it->baudAfter)
                break;
        }
        const ssize_t written = ::writev(m_master, parts, count);
        if (written < 0) {
            // EAGAIN: the host's side is full; wait until it reads.
            *waitWritable = errno == EAGAIN || errno == EINTR;
            return -1;
        }
        m_counters.bytesOut += written;
        m_counters.bytesOutByBaud[m_txBaud] += written;
        if (perByte > 0)
            m_txWireNs += written * perByte;
        m_loader.noteReadProgress(now / nsPerUs);
        qint64 left = written;
        while (left > 0) {
            TxFrame &frame = m_tx.front();
            const qint64 step = qMin<qint64>(left, frame.wire.size() - frame.written);
            frame.written += int(step);
            left -= step;
            if (frame.written == frame.wire.size()) {
                ++m_counters.framesSent;
                if (frame.baudAfter) {
                    m_txBaud = frame.baudAfter;
                    m_rxBaud = frame.baudAfter;
                }
                m_tx.pop_front();
            }
        }
        if (written < gathered) {
            *waitWritable = true;
            return -1;
        }
    }
    return -1;
}

void VirtualChipMachine::checkVanish(qint64 now)
{
    if (!m_vanishPending || !m_tx.empty() || !m_scheduled.empty())
        return;
    if (m_vanishDeadlineNs < 0) {
        m_vanishDeadlineNs = now + vanishGraceNs;
        // Written bytes reach the host's queue a moment after write() returns.
        m_vanishEarliestNs = now + vanishSettleNs;
    }
    if (now < m_vanishEarliestNs)
        return;
    // Vanish once the host has read the last answers (or gave up reading them).
    int unread = 0;
    if (ioctl(m_slave, FIONREAD, &unread) != 0 || unread == 0 || now >= m_vanishDeadlineNs)
        closeTerminal();
}
