#include "connectedflasher.h"

#include "flashertestkit.h"

#include "serial/qcomport.h"

#include <QComboBox>
#include <QDeadlineTimer>
#include <QPushButton>
#include <QTest>
#include <QToolButton>

namespace {

// How often the log is looked at while waiting, in milliseconds.
constexpr int pollIntervalMs = 10;

// Removes the dots that progress reports append to a line; a line of dots only stays as it is.
QString withoutDots(const QString &line)
{
    int end = line.size();
    while (end > 0 && line.at(end - 1) == QLatin1Char('.'))
        --end;
    return line.left(end);
}

} // namespace

ConnectedFlasher::ConnectedFlasher(ESPFlasher::RUN_MODE mode, const VirtualEsp8266::Config &config)
    : m_savedPorts(qgetenv(QComPort::extraPortsVariable)), m_chip(config), m_mode(mode)
{}

ConnectedFlasher::~ConnectedFlasher()
{
    // The worker lets go of the port before the chip stops.
    m_dialog.reset();
    qputenv(QComPort::extraPortsVariable, m_savedPorts);
}

bool ConnectedFlasher::connect(QString *why)
{
    if (!m_chip.start()) {
        *why = QStringLiteral("the virtual chip did not start: ") + m_chip.chip().errorString();
        return false;
    }
    m_dialog = std::make_unique<ESPFlasher>(m_mode, nullptr);
    auto *combo = FlasherTestKit::child<QComboBox>(m_dialog.get(), "comPortCombo");
    FlasherTestKit::child<QToolButton>(m_dialog.get(), "comPortScanTool")->click();
    combo->setCurrentText(port());
    if (combo->currentText() != port()) {
        *why = QStringLiteral("the chip's port is not listed");
        return false;
    }
    FlasherTestKit::child<QPushButton>(m_dialog.get(), "comPortConnect")->click();
    if (!waitForLogLine(m_dialog.get(),
                        FlasherTestKit::line(FlasherTestKit::green, "Retrieved chip info"), 0)) {
        *why = QStringLiteral("the chip was not identified: ") +
               FlasherTestKit::logStrings(m_dialog.get()).join(QLatin1Char('\n'));
        return false;
    }
    return true;
}

QStringList logWithoutDots(QWidget *flasher, int from)
{
    QStringList lines;
    const QStringList all = FlasherTestKit::logStrings(flasher);
    for (int index = qMax(0, from); index < all.size(); ++index)
        lines.append(withoutDots(all.at(index)));
    return lines;
}

int logLineCount(QWidget *flasher)
{
    return FlasherTestKit::logLines(flasher).size();
}

bool waitForLogLine(QWidget *flasher, const QString &line, int from, int timeoutMs)
{
    const QString wanted = withoutDots(line);
    QDeadlineTimer deadline(timeoutMs);
    while (!logWithoutDots(flasher, from).contains(wanted)) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(pollIntervalMs);
    }
    return true;
}
