// esp-virtual-chip: a virtual ESP8266 behind a pseudo-terminal, for trying the utility without a
// board. Prints the device path first, then one line per received command. A pseudo-terminal has
// no modem lines, so the reset circuit is driven by lines on standard input ("dtr=1 rts=0").
#include "virtualchip/virtualesp8266.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

constexpr int exitUsage = 2;   // bad command line or unreadable file
constexpr int exitFailure = 1; // the chip could not start or the dump failed

// "4MB", "512KB", "1M", "0x400000", "4194304".
bool parseSize(const QString &text, quint32 *size)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d+)\\s*([kKmM])?[bB]?$"));
    bool ok = false;
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) {
        *size = text.mid(2).toUInt(&ok, 16);
        return ok;
    }
    const auto match = pattern.match(text.trimmed());
    if (!match.hasMatch())
        return false;
    quint64 value = match.captured(1).toULongLong(&ok);
    const QString unit = match.captured(2).toLower();
    if (unit == QLatin1String("k"))
        value *= 1024;
    else if (unit == QLatin1String("m"))
        value *= 1024 * 1024;
    if (!ok || value > 0xFFFFFFFFu)
        return false;
    *size = quint32(value);
    return true;
}

bool parseAddress(const QString &text, quint32 *address)
{
    bool ok = false;
    *address = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)
                   ? text.mid(2).toUInt(&ok, 16)
                   : text.toUInt(&ok, 10);
    return ok;
}

bool parseMac(const QString &text, QByteArray *mac)
{
    static const QRegularExpression pattern(
        QStringLiteral("^([0-9a-fA-F]{2})([:-]?[0-9a-fA-F]{2}){5}$"));
    if (!pattern.match(text).hasMatch())
        return false;
    *mac = QByteArray::fromHex(
        QString(text).remove(QRegularExpression(QStringLiteral("[:-]"))).toLatin1());
    return mac->size() == 6;
}

QString describe(const VirtualEsp8266::CommandRecord &record)
{
    QString line = QStringLiteral("%1 len=%2")
                       .arg(VirtualEsp8266::opcodeName(record.opcode))
                       .arg(record.payloadLength);
    if (record.dataPacket)
        line += QStringLiteral(" size=%1 seq=%2 sum=0x%3")
                    .arg(record.dataSize)
                    .arg(record.sequence)
                    .arg(record.checksum, 2, 16, QLatin1Char('0'));
    line += record.byStub ? QStringLiteral(" [flash loader]") : QStringLiteral(" [ROM]");
    if (!record.answered)
        return line + QStringLiteral(" -> no answer");
    if (record.status == 0 && record.error == 0)
        return line + QStringLiteral(" -> ok");
    return line + QStringLiteral(" -> status %1 %2")
                      .arg(record.status, 2, 16, QLatin1Char('0'))
                      .arg(record.error, 2, 16, QLatin1Char('0'));
}

int fail(int code, const QString &message)
{
    fprintf(stderr, "esp-virtual-chip: %s\n", qPrintable(message));
    return code;
}

void printLine(const QString &line)
{
    fprintf(stdout, "%s\n", qPrintable(line));
    fflush(stdout);
}

// "dtr=1 rts=0", either part optional, in any order: the new state of the lines, an omitted one
// kept. False for anything else.
bool parseControlLine(const QString &line, bool *dtr, bool *rts)
{
    static const QRegularExpression pattern(QStringLiteral("^(dtr|rts)=([01])$"));
    const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (words.isEmpty())
        return false;
    for (const QString &word : words) {
        const auto match = pattern.match(word);
        if (!match.hasMatch())
            return false;
        *(match.captured(1) == QLatin1String("dtr") ? dtr : rts) =
            match.captured(2) == QLatin1String("1");
    }
    return true;
}

// Applies the control lines read from standard input; false at its end.
class ControlInput
{
public:
    ControlInput(VirtualEsp8266 &chip, bool quiet) : m_chip(chip), m_quiet(quiet) {}

    bool readAvailable()
    {
        char buffer[4096];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n < 0)
            return errno == EINTR || errno == EAGAIN;
        if (n == 0)
            return false; // no more commands; the chip runs on
        m_pending.append(buffer, int(n));
        for (int end; (end = m_pending.indexOf('\n')) >= 0; m_pending.remove(0, end + 1))
            apply(QString::fromLocal8Bit(m_pending.left(end)).trimmed());
        return true;
    }

private:
    void apply(const QString &line)
    {
        if (line.isEmpty())
            return;
        if (!parseControlLine(line, &m_dtr, &m_rts)) {
            fail(0, QStringLiteral("ignored control line \"%1\" (expected dtr=0|1 and/or rts=0|1)")
                        .arg(line));
            return;
        }
        m_chip.setModemLines(m_dtr, m_rts);
        if (!m_quiet)
            printLine(QStringLiteral("LINES dtr=%1 rts=%2 -> %3")
                          .arg(int(m_dtr))
                          .arg(int(m_rts))
                          .arg(VirtualEsp8266::loaderStateName(m_chip.loaderState())));
    }

    VirtualEsp8266 &m_chip;
    const bool m_quiet;
    bool m_dtr = false;
    bool m_rts = false;
    QByteArray m_pending;
};

} // namespace

int main(int argc, char *argv[])
{
    // Block the stop signals before any thread exists, so that only sigwait() below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-virtual-chip"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "A virtual ESP8266 behind a pseudo-terminal. Prints the device path on the first line,\nthen one line per command received, until interrupted (SIGINT / SIGTERM).\nPoint the utility at the printed path, e.g. through ESP_UTILITY_EXTRA_PORTS.\n\nThe reset circuit of a USB serial adapter (RTS to EN, DTR to GPIO0, both active low) is\ndriven by lines on standard input, since a pseudo-terminal has none: \"dtr=0|1 rts=0|1\"\n(either part may be left out; 1 = asserted). rts=1 holds the chip in reset; rts=0 boots\nit into the ROM loader when dtr=1 at that moment, else into its user program. The classic\nreset into the ROM loader is \"dtr=0 rts=1\", \"dtr=1 rts=0\", \"dtr=0\". Each line is\nconfirmed with \"LINES dtr=.. rts=.. -> <what runs>\" (not with --quiet)."));
    parser.addHelpOption();
    const QCommandLineOption chipOption(
        QStringLiteral("chip"), QStringLiteral("Chip model: esp8266ex (default) or esp8285."),
        QStringLiteral("model"), QStringLiteral("esp8266ex"));
    const QCommandLineOption macOption(
        QStringLiteral("mac"), QStringLiteral("Station MAC address, e.g. 18:FE:34:A1:B2:C3."),
        QStringLiteral("AA:BB:CC:DD:EE:FF"));
    const QCommandLineOption flashSizeOption(
        QStringLiteral("flash-size"),
        QStringLiteral("Flash size: 512KB, 1MB, 2MB, 4MB (default), 8MB, 16MB or bytes."),
        QStringLiteral("size"), QStringLiteral("4MB"));
    const QCommandLineOption throttleOption(
        QStringLiteral("throttle"),
        QStringLiteral("Move bytes no faster than the baud rate allows."));
    const QCommandLineOption timingOption(
        QStringLiteral("flash-timing"),
        QStringLiteral("Erase and program take as long as on a real SPI NOR flash."));
    const QCommandLineOption loadOption(
        QStringLiteral("load"),
        QStringLiteral("Preload FILE into the flash at ADDR (decimal or 0x hex); repeatable."),
        QStringLiteral("ADDR:FILE"));
    const QCommandLineOption dumpOption(QStringLiteral("dump"),
                                        QStringLiteral("Write the whole flash to FILE on exit."),
                                        QStringLiteral("FILE"));
    const QCommandLineOption quietOption(QStringLiteral("quiet"),
                                         QStringLiteral("Print only the device path."));
    const QCommandLineOption bootModeOption(
        QStringLiteral("boot-mode"),
        QStringLiteral("What power-up starts: download (the ROM loader, default) or firmware "
                       "(the user program, which answers nothing until a reset into download "
                       "mode)."),
        QStringLiteral("mode"), QStringLiteral("download"));
    parser.addOptions({chipOption, macOption, flashSizeOption, throttleOption, timingOption,
                       loadOption, dumpOption, quietOption, bootModeOption});
    parser.process(app);
    if (!parser.positionalArguments().isEmpty())
        return fail(
            exitUsage,
            QStringLiteral("unexpected argument %1").arg(parser.positionalArguments().first()));

    VirtualEsp8266::Config config;
    const QString model = parser.value(chipOption).toLower();
    if (model == QLatin1String("esp8285"))
        config.model = VirtualEsp8266::Model::Esp8285;
    else if (model != QLatin1String("esp8266ex"))
        return fail(exitUsage, QStringLiteral("unknown chip %1 (esp8266ex or esp8285)").arg(model));
    if (parser.isSet(macOption) && !parseMac(parser.value(macOption), &config.mac))
        return fail(exitUsage, QStringLiteral("bad MAC address %1").arg(parser.value(macOption)));
    if (!parseSize(parser.value(flashSizeOption), &config.flashSize))
        return fail(exitUsage,
                    QStringLiteral("bad flash size %1").arg(parser.value(flashSizeOption)));
    const QString bootMode = parser.value(bootModeOption).toLower();
    if (bootMode == QLatin1String("firmware"))
        config.powerUpMode = VirtualEsp8266::BootMode::Firmware;
    else if (bootMode != QLatin1String("download"))
        return fail(exitUsage,
                    QStringLiteral("unknown boot mode %1 (download or firmware)").arg(bootMode));
    config.throttle = parser.isSet(throttleOption);
    config.flashTiming = parser.isSet(timingOption);
    const bool quiet = parser.isSet(quietOption);

    VirtualEsp8266 chip(config);
    for (const QString &load : parser.values(loadOption)) {
        const int colon = load.indexOf(QLatin1Char(':'));
        quint32 address = 0;
        if (colon <= 0 || !parseAddress(load.left(colon), &address))
            return fail(exitUsage, QStringLiteral("bad --load %1 (ADDR:FILE)").arg(load));
        QFile file(load.mid(colon + 1));
        if (!file.open(QIODevice::ReadOnly))
            return fail(
                exitUsage,
                QStringLiteral("cannot read %1: %2").arg(file.fileName(), file.errorString()));
        const QByteArray data = file.readAll();
        if (quint64(address) + quint64(data.size()) > config.flashSize)
            return fail(exitUsage, QStringLiteral("%1 does not fit into the flash at 0x%2")
                                       .arg(file.fileName())
                                       .arg(address, 8, 16, QLatin1Char('0')));
        chip.setFlash(address, data);
    }

    if (!quiet) {
        chip.setCommandObserver([](const VirtualEsp8266::CommandRecord &record) {
            fprintf(stdout, "%s\n", qPrintable(describe(record)));
            fflush(stdout);
        });
    }
    if (!chip.start())
        return fail(exitFailure, chip.errorString());
    fprintf(stdout, "%s\n", qPrintable(chip.devicePath()));
    fflush(stdout);

    // Wait for a stop signal, applying control lines meanwhile.
    const int stopFd = signalfd(-1, &stopSignals, SFD_CLOEXEC);
    ControlInput control(chip, quiet);
    bool stdinOpen = true;
    for (;;) {
        pollfd fds[2] = {{stopFd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(fds, stdinOpen ? 2 : 1, -1) < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLIN)
            break;
        if (stdinOpen && (fds[1].revents & (POLLIN | POLLHUP | POLLERR)))
            stdinOpen = control.readAvailable();
    }
    chip.stop();

    if (parser.isSet(dumpOption)) {
        QFile dump(parser.value(dumpOption));
        if (!dump.open(QIODevice::WriteOnly) ||
            dump.write(chip.flash(0, chip.flashSize())) != qint64(chip.flashSize()))
            return fail(
                exitFailure,
                QStringLiteral("cannot write %1: %2").arg(dump.fileName(), dump.errorString()));
    }
    return 0;
}
